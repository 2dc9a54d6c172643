#include "vu/description/store_rules.h"

#include <cmath>
#include <fmt/format.h>

namespace vu {

namespace {

bool isInteger(const std::string &element)
{
    return element.find("int") != std::string::npos;
}

// A conversion that does nothing: the element is what the channel brings.
bool isIdentity(const Store &store, const Storable &channel)
{
    return store.element == (channel.wide ? "float64" : "float32");
}

void checkConversion(Fields &keys, Store &store, const Storable &channel)
{
    Mistakes &mistakes = keys.mistakes();
    if (!channel.numbers) {
        mistakes.add(keys.pathOf("data_type"), "only channels of numbers can be converted");
        return;
    }
    if (store.run_length && !channel.periodic)
        mistakes.add(keys.pathOf("encoding"), "run-length needs a periodic channel: expected plain");
    if (store.run_length && isIdentity(store, channel))
        mistakes.add(keys.pathOf("data_type"), fmt::format("run-length needs an integer type or {}",
                                                           channel.wide ? "float32" : "float64"));
}

void readRange(Fields &keys, const Store &store, std::vector<std::string> &warnings)
{
    const Json *range = keys.find("range");
    if (!range)
        return;
    if (!range->is_array() || range->size() != 2 || !(*range)[0].is_number() || !(*range)[1].is_number()) {
        keys.mistakes().add(keys.pathOf("range"), "expected [lowest, highest]");
        return;
    }
    const std::string warning = rangeWarning(store, (*range)[0].get<double>(), (*range)[1].get<double>());
    if (!warning.empty())
        warnings.push_back(keys.mistakes().line(keys.path(), warning));
}

} // namespace

uint32_t elementSize(const std::string &element)
{
    const size_t digits = element.find_first_of("0123456789");
    return digits == std::string::npos ? 0 : static_cast<uint32_t>(std::stoul(element.substr(digits))) / 8;
}

Store readStore(Fields &owner, const Storable &channel, bool fallback, std::vector<std::string> &warnings)
{
    Store store;
    store.path = owner.pathOf("store");
    const Json *value = owner.find("store");
    if (!value || value->is_boolean()) {
        store.wanted = value ? value->get<bool>() : fallback;
        return store;
    }
    Fields keys(owner.mistakes(), *value, store.path);
    store.element = keys.word(
        "data_type",
        {"", "int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64", "float32", "float64"},
        "");
    store.run_length = keys.word("encoding", {"plain", "rle"}, "plain") == "rle";
    store.scale = keys.number("scale", kAnyNumber, 1.0);
    if (store.scale == 0.0)
        keys.mistakes().add(keys.pathOf("scale"), "expected a number other than 0");
    store.offset = keys.number("offset", kAnyNumber, 0.0);
    store.limit =
        static_cast<int64_t>(keys.number("limit", {0.5, 9e15, "a number of samples from 1 on"}, -1.0));
    if (store.limit > 0 && (!channel.periodic || store.run_length))
        keys.mistakes().add(keys.pathOf("limit"), "needs a periodic channel with plain encoding");
    if (!store.element.empty() || store.run_length)
        checkConversion(keys, store, channel);
    if (store.run_length && store.element.empty())
        keys.mistakes().add(keys.pathOf("encoding"), "run-length needs a data_type");
    if (isIdentity(store, channel) && !store.run_length)
        store.element.clear();
    if (!isInteger(store.element) && !store.run_length && (store.scale != 1.0 || store.offset != 0.0))
        warnings.push_back(owner.mistakes().line(
            store.path, "scale and offset are not used: floats are stored as they come"));
    readRange(keys, store, warnings);
    keys.close();
    return store;
}

std::string rangeWarning(const Store &store, double lowest, double highest)
{
    if (!isInteger(store.element))
        return {};
    const bool isUnsigned = store.element.front() == 'u';
    const int bits = static_cast<int>(elementSize(store.element)) * 8;
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

} // namespace vu
