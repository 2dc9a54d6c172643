#include "vu/description/store_rules.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace vu {

namespace {

// The integer type of that name, if it is one.
std::optional<ValueType> integerNamed(const std::string &element)
{
    const auto type = valueTypeNamed(element);
    return type && rowOf(*type).kind != ValueKind::kFloat ? type : std::nullopt;
}

// A conversion that does nothing: the element is what the channel brings.
bool isIdentity(const Store &store, const Storable &channel)
{
    return store.element == nameOf(channel.values);
}

// The float type that a channel's values can be converted to.
const char *otherFloat(ValueType values)
{
    return nameOf(values == ValueType::kFloat64 ? ValueType::kFloat32 : ValueType::kFloat64);
}

void checkConversion(ObjectReader &keys, Store &store, const Storable &channel)
{
    Findings &findings = keys.findings();
    if (!channel.numbers) {
        findings.mistake(keys.pathOf("data_type"), "only channels of numbers can be converted");
        return;
    }
    if (store.run_length && !channel.periodic)
        findings.mistake(keys.pathOf("encoding"), "run-length needs a periodic channel: expected plain");
    if (store.run_length && isIdentity(store, channel))
        findings.mistake(keys.pathOf("data_type"),
                         fmt::format("run-length needs an integer type or {}", otherFloat(channel.values)));
}

void readRange(ObjectReader &keys, const Store &store)
{
    const Json *range = keys.find("range");
    if (!range)
        return;
    if (!range->is_array() || range->size() != 2 || !(*range)[0].is_number() || !(*range)[1].is_number()) {
        keys.findings().mistake(keys.pathOf("range"), "expected [lowest, highest]");
        return;
    }
    const std::string warning = rangeWarning(store, (*range)[0].get<double>(), (*range)[1].get<double>());
    if (!warning.empty())
        keys.findings().warning(keys.path(), warning);
}

} // namespace

uint32_t elementSize(const std::string &element)
{
    const auto type = valueTypeNamed(element);
    return type ? sizeOf(*type) : 0;
}

Store readStore(ObjectReader &owner, const Storable &channel, bool fallback)
{
    Store store;
    store.path = owner.pathOf("store");
    const Json *value = owner.find("store");
    if (!value || value->is_boolean()) {
        store.wanted = value ? value->get<bool>() : fallback;
        return store;
    }
    ObjectReader keys(owner.findings(), *value, store.path);
    store.element = keys.word(
        "data_type",
        {"", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64", "float32", "float64"},
        "");
    store.run_length = keys.word("encoding", {"plain", "rle"}, "plain") == "rle";
    store.scale = keys.number("scale", kAnyNumber, 1.0);
    if (store.scale == 0.0)
        keys.findings().mistake(keys.pathOf("scale"), "expected a number other than 0");
    store.offset = keys.number("offset", kAnyNumber, 0.0);
    store.limit =
        static_cast<int64_t>(keys.number("limit", {0.5, 9e15, "a number of samples from 1 on"}, -1.0));
    if (store.limit > 0 && (!channel.periodic || store.run_length))
        keys.findings().mistake(keys.pathOf("limit"), "needs a periodic channel with plain encoding");
    if (!store.element.empty() || store.run_length)
        checkConversion(keys, store, channel);
    if (store.run_length && store.element.empty())
        keys.findings().mistake(keys.pathOf("encoding"), "run-length needs a data_type");
    if (isIdentity(store, channel) && !store.run_length)
        store.element.clear();
    if (!integerNamed(store.element) && !store.run_length && (store.scale != 1.0 || store.offset != 0.0))
        owner.findings().warning(store.path, "scale and offset are not used: floats are stored as they come");
    readRange(keys, store);
    keys.close();
    return store;
}

std::string rangeWarning(const Store &store, double lowest, double highest)
{
    const auto type = integerNamed(store.element);
    if (!type)
        return {};
    const bool isUnsigned = rowOf(*type).kind == ValueKind::kUnsigned;
    const int bits = static_cast<int>(sizeOf(*type)) * 8;
    const double least = isUnsigned ? 0.0 : -std::ldexp(1.0, bits - 1);
    const double beyond = std::ldexp(1.0, isUnsigned ? bits : bits - 1);
    for (const double value : {lowest, highest}) {
        const double stored = std::round((value - store.offset) / store.scale);
        if (!(stored >= least && stored < beyond))
            return fmt::format("{} would store {:g} as {:g}, which {} hold: choose another scale or type",
                               store.element, value, stored,
                               bits < 32 ? "wraps around in what it can" : "it cannot");
    }
    return {};
}

std::optional<double> lowestStored(ValueType values, const Store &store)
{
    const ValueType stored = store.wanted ? valueTypeNamed(store.element).value_or(values) : values;
    const auto lowest = lowestFloat(stored), own = lowestFloat(values);
    if (!lowest || !own)
        return std::nullopt;
    return std::max(*lowest, *own);
}

} // namespace vu
