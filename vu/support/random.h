// Numbers that look random and follow from a seed and an index alone, so that a test computes any of them by
// itself: splitmix64.
#pragma once

#include <cstdint>

namespace vu {

constexpr uint64_t randomBits(uint64_t seed, uint64_t index)
{
    uint64_t z = seed + (index + 1) * 0x9E3779B97F4A7C15u;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

// From 0 up to, but not including, 1.
constexpr double randomUnit(uint64_t seed, uint64_t index)
{
    return static_cast<double>(randomBits(seed, index) >> 11) * 0x1p-53;
}

} // namespace vu
