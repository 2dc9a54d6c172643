// NTP times of messages and stream samples, and the mark of a sample without a value.
#pragma once

#include <cstdint>

#include "libvu/core/wire_private.h"

namespace libvu {

constexpr double kSecondsTo2000 = 946684800.0; // from 1970-01-01
constexpr double kFractionUnit = 0x1p-32;      // seconds

// A float32 with these bits, about 2.0e15, means that the sample has a time and no value.
constexpr uint32_t kNoValueBits = 0x58E35FA9;

// Ticks since 1970-01-01. In f64 and in this order: stored times follow its rounding.
inline double ntpTicks(uint32_t seconds, uint32_t fraction)
{
    return (seconds + kSecondsTo2000 + fraction * kFractionUnit) * static_cast<double>(kTicksPerSecond);
}

// Turns the two words at `entry` to host order, in place, and returns their time.
inline double ntpToHostInPlace(uint8_t *entry)
{
    const auto seconds = toHostInPlace<uint32_t>(entry);
    const auto fraction = toHostInPlace<uint32_t>(entry + 4);
    return ntpTicks(seconds, fraction);
}

} // namespace libvu
