#include "vu/description/mistakes.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string_view>
#include <vector>

#include "vu/command.h"

namespace vu {

std::string warningLine(const std::string &warning)
{
    return warning + " (warning)";
}

void Mistakes::throwIfAny(const std::vector<std::string> &warnings) const
{
    if (lines_.empty())
        return;
    std::string text = fmt::format("{}", fmt::join(lines_, "\n"));
    for (const std::string &warning : warnings)
        text += "\n" + warningLine(warning);
    throw InputError(text);
}

Fields::Fields(Mistakes &mistakes, const Json &value, std::string path)
    : mistakes_(mistakes), object_(&value), path_(std::move(path))
{
    static const Json empty = Json::object();
    if (value.is_object())
        return;
    mistakes_.add(path_, "expected an object");
    object_ = &empty;
}

const Json *Fields::find(const char *key)
{
    asked_.emplace_back(key);
    const auto found = object_->find(key);
    return found == object_->end() ? nullptr : &*found;
}

std::string Fields::text(const char *key)
{
    const Json *value = find(key);
    if (!value)
        mistakes_.add(pathOf(key), "is missing: expected a text");
    else if (!value->is_string() || value->get_ref<const std::string &>().empty())
        mistakes_.add(pathOf(key), "expected a text that is not empty");
    else
        return value->get<std::string>();
    return {};
}

std::string Fields::text(const char *key, const std::string &fallback)
{
    const Json *value = find(key);
    if (!value)
        return fallback;
    if (value->is_string())
        return value->get<std::string>();
    mistakes_.add(pathOf(key), "expected a text");
    return fallback;
}

std::string Fields::word(const char *key, std::initializer_list<const char *> words, const char *fallback)
{
    const std::string given = text(key, fallback);
    if (std::find(words.begin(), words.end(), given) != words.end())
        return given;
    // A word of no letters stands for the key that is not given.
    std::vector<std::string_view> expected(words.begin(), words.end());
    std::erase(expected, "");
    mistakes_.add(pathOf(key), fmt::format("expected one of {}", fmt::join(expected, ", ")));
    return fallback;
}

bool Fields::flag(const char *key, bool fallback)
{
    const Json *value = find(key);
    if (!value)
        return fallback;
    if (value->is_boolean())
        return value->get<bool>();
    mistakes_.add(pathOf(key), "expected true or false");
    return fallback;
}

double Fields::numberIn(const char *key, const Json &value, const Range &range, double fallback)
{
    if (value.is_number()) {
        const double number = value.get<double>();
        if (std::isfinite(number) && number > range.above && number <= range.most)
            return number;
    }
    mistakes_.add(pathOf(key), fmt::format("expected {}", range.expected));
    return fallback;
}

double Fields::number(const char *key, const Range &range)
{
    if (const Json *value = find(key))
        return numberIn(key, *value, range, 1.0);
    mistakes_.add(pathOf(key), fmt::format("is missing: expected {}", range.expected));
    return 1.0;
}

double Fields::number(const char *key, const Range &range, double fallback)
{
    const Json *value = find(key);
    return value ? numberIn(key, *value, range, fallback) : fallback;
}

const Json &Fields::array(const char *key)
{
    static const Json empty = Json::array();
    const Json *value = find(key);
    if (!value)
        return empty;
    if (value->is_array())
        return *value;
    mistakes_.add(pathOf(key), "expected an array");
    return empty;
}

std::vector<std::string> Fields::notAsked() const
{
    std::vector<std::string> keys;
    for (const auto &[key, value] : object_->items())
        if (std::find(asked_.begin(), asked_.end(), key) == asked_.end())
            keys.push_back(key);
    return keys;
}

void Fields::close()
{
    for (const std::string &key : notAsked())
        mistakes_.add(pathOf(key), "is no key of a description");
}

} // namespace vu
