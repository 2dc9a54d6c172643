// Typed access to one JSON object of a data file; what is missing or of another type is named with its place.
#pragma once

#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <set>
#include <string>

#include "vu/krdfile/catalogue.h"

namespace vu::krd {

class Fields {
public:
    Fields(const OrderedJson &json, std::string place) : json_(json), place_(std::move(place))
    {
        if (!json.is_object())
            throw FormatError(place_ + ": expected an object");
    }

    bool has(const char *key) const { return json_.contains(key); }
    std::string text(const char *key) const
    {
        return get(key, "a text", [](const OrderedJson &value) { return value.is_string(); })
            .get<std::string>();
    }
    std::string text(const char *key, const std::string &fallback) const
    {
        return has(key) ? text(key) : fallback;
    }
    double number(const char *key) const
    {
        return get(key, "a finite number",
                   [](const OrderedJson &value) {
                       return value.is_number() && std::isfinite(value.get<double>());
                   })
            .get<double>();
    }
    bool flag(const char *key) const
    {
        return get(key, "true or false", [](const OrderedJson &value) { return value.is_boolean(); })
            .get<bool>();
    }
    bool flag(const char *key, bool fallback) const { return has(key) ? flag(key) : fallback; }
    template <typename T>
    T whole(const char *key) const
    {
        const auto fits = [](const OrderedJson &value) {
            return value.is_number_unsigned() &&
                   value.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<T>::max());
        };
        return static_cast<T>(get(key, "a whole number in range", fits).template get<uint64_t>());
    }
    template <typename T>
    T whole(const char *key, T fallback) const
    {
        return has(key) ? whole<T>(key) : fallback;
    }
    const OrderedJson &array(const char *key) const
    {
        return get(key, "an array", [](const OrderedJson &value) { return value.is_array(); });
    }
    const OrderedJson &object(const char *key) const
    {
        return get(key, "an object", [](const OrderedJson &value) { return value.is_object(); });
    }
    // Whatever is there, null if nothing is.
    OrderedJson any(const char *key) const
    {
        read_.insert(key);
        return json_.value(key, OrderedJson());
    }
    // Counts by name, as the object `key` has them.
    std::map<std::string, uint64_t> counts(const char *key) const
    {
        const Fields named(object(key), place_ + ": " + key);
        std::map<std::string, uint64_t> counts;
        for (const auto &item : named.json_.items())
            counts[item.key()] = named.whole<uint64_t>(item.key().c_str());
        return counts;
    }
    [[noreturn]] void refuse(const std::string &key, const std::string &expected) const
    {
        throw FormatError(fmt::format("{}: '{}': expected {}", place_, key, expected));
    }
    void expectFormat(const char *format) const
    {
        if (text("format") != format)
            refuse("format", fmt::format("\"{}\"", format));
        if (whole<uint32_t>("version") != 1)
            refuse("version", "1, the only version known here");
    }
    // The keys that nobody has asked for: those of a later version, which a copy keeps.
    OrderedJson rest() const
    {
        OrderedJson rest = OrderedJson::object();
        for (const auto &item : json_.items())
            if (!read_.contains(item.key()))
                rest[item.key()] = item.value();
        return rest;
    }

private:
    const OrderedJson &get(const char *key, const char *expected, auto &&fits) const
    {
        read_.insert(key);
        const auto found = json_.find(key);
        if (found == json_.end() || !fits(*found))
            refuse(key, expected);
        return *found;
    }

    const OrderedJson &json_;
    std::string place_;
    mutable std::set<std::string> read_;
};

} // namespace vu::krd
