// How a channel may be stored, and what of its range a stored type cannot hold.
#pragma once

#include "vu/description/description.h"
#include "vu/description/mistakes.h"

namespace vu {

// What of a channel decides how it can be stored.
struct Storable {
    bool numbers = true; // floats, periodic or with times
    bool periodic = true;
    bool wide = false; // float64
};

// Reads true, false, or an object with data_type, encoding, scale, offset, limit and range; a missing key is
// `fallback`. A range that the type cannot hold goes into `warnings`.
Store readStore(Fields &owner, const Storable &channel, bool fallback, std::vector<std::string> &warnings);

// The stored type does not hold physical values from `lowest` to `highest`: what becomes of them, else empty.
std::string rangeWarning(const Store &store, double lowest, double highest);

// Bytes of a stored element: of "int16" 2.
uint32_t elementSize(const std::string &element);

} // namespace vu
