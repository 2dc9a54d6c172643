// How a channel may be stored, and what of its range a stored type cannot hold.
#pragma once

#include "vu/description/description.h"
#include "vu/description/object_reader.h"

namespace vu {

// What of a channel decides how it can be stored.
struct Storable {
    bool numbers = true; // floats, periodic or with times
    bool periodic = true;
    ValueType values = ValueType::kFloat64;
};

// Reads true, false, or an object with data_type, encoding, scale, offset, limit and range; a missing key is
// `fallback`. A range that the type cannot hold is warned of.
Store readStore(ObjectReader &owner, const Storable &channel, bool fallback);

// The stored type does not hold physical values from `lowest` to `highest`: what becomes of them, else empty.
std::string rangeWarning(const Store &store, double lowest, double highest);

// The lowest number of `values` that stays a finite number as it is stored: what a sample without a value
// reads where nobody says anything else. Empty where the storage holds no such number.
std::optional<double> lowestStored(ValueType values, const Store &store);

// Bytes of a stored element: of "int16" 2; 0 of what is no number.
uint32_t elementSize(const std::string &element);

} // namespace vu
