#include "vu/description/object_reader.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string_view>

#include "vu/support/nearest.h"

namespace vu {

ObjectReader::ObjectReader(Findings &findings, const Json &value, std::string path)
    : findings_(findings), object_(&value), path_(std::move(path))
{
    static const Json empty = Json::object();
    if (value.is_object())
        return;
    findings_.mistake(path_, "expected an object");
    object_ = &empty;
}

const Json *ObjectReader::find(const char *key)
{
    asked_.emplace_back(key);
    const auto found = object_->find(key);
    return found == object_->end() ? nullptr : &*found;
}

std::string ObjectReader::text(const char *key)
{
    const Json *value = find(key);
    if (!value)
        findings_.mistake(pathOf(key), "is missing: expected a text");
    else if (!value->is_string() || value->get_ref<const std::string &>().empty())
        findings_.mistake(pathOf(key), "expected a text that is not empty");
    else
        return value->get<std::string>();
    return {};
}

std::string ObjectReader::text(const char *key, const std::string &fallback)
{
    const Json *value = find(key);
    if (!value)
        return fallback;
    if (value->is_string())
        return value->get<std::string>();
    findings_.mistake(pathOf(key), "expected a text");
    return fallback;
}

std::string ObjectReader::word(const char *key, std::initializer_list<const char *> words,
                               const char *fallback)
{
    const std::string given = text(key, fallback);
    if (std::find(words.begin(), words.end(), given) != words.end())
        return given;
    // An empty word means that the key may be left out; nobody has to write it.
    std::vector<std::string_view> expected(words.begin(), words.end());
    std::erase(expected, "");
    findings_.mistake(pathOf(key), fmt::format("expected one of {}", fmt::join(expected, ", ")));
    return fallback;
}

bool ObjectReader::flag(const char *key, bool fallback)
{
    const Json *value = find(key);
    if (!value)
        return fallback;
    if (value->is_boolean())
        return value->get<bool>();
    findings_.mistake(pathOf(key), "expected true or false");
    return fallback;
}

double ObjectReader::numberIn(const char *key, const Json &value, const Range &range, double fallback)
{
    if (value.is_number()) {
        const double number = value.get<double>();
        if (std::isfinite(number) && number > range.above && number <= range.most)
            return number;
    }
    findings_.mistake(pathOf(key), fmt::format("expected {}", range.expected));
    return fallback;
}

double ObjectReader::number(const char *key, const Range &range)
{
    if (const Json *value = find(key))
        return numberIn(key, *value, range, 1.0);
    findings_.mistake(pathOf(key), fmt::format("is missing: expected {}", range.expected));
    return 1.0;
}

double ObjectReader::number(const char *key, const Range &range, double fallback)
{
    const Json *value = find(key);
    return value ? numberIn(key, *value, range, fallback) : fallback;
}

const Json &ObjectReader::array(const char *key)
{
    static const Json empty = Json::array();
    const Json *value = find(key);
    if (!value)
        return empty;
    if (value->is_array())
        return *value;
    findings_.mistake(pathOf(key), "expected an array");
    return empty;
}

void ObjectReader::know(std::initializer_list<const char *> keys)
{
    asked_.insert(asked_.end(), keys.begin(), keys.end());
}

void ObjectReader::close()
{
    for (const auto &[key, value] : object_->items()) {
        if (std::ranges::find(asked_, key) != asked_.end())
            continue;
        const std::string nearest = nearestOf(key, asked_);
        findings_.mistake(pathOf(key), nearest.empty()
                                           ? "is no key that is known here"
                                           : fmt::format("is no key that is known here: {}?", nearest));
    }
}

} // namespace vu
