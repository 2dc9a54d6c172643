// Conversions of doubles to integers, and sums, that stop at the bounds instead of leaving them. A NaN
// becomes 0.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>

namespace libvu {

template <std::integral T>
inline T saturated(double value)
{
    // 2^31, 2^63 and so on are exact as a double; the bounds of T themselves need not be.
    constexpr double kBeyond = static_cast<double>(std::numeric_limits<T>::max() / 2 + 1) * 2.0;
    if (value != value)
        return 0;
    if (value >= kBeyond)
        return std::numeric_limits<T>::max();
    if (value <= static_cast<double>(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    return static_cast<T>(value);
}

inline int64_t addSaturated(int64_t a, int64_t b)
{
    int64_t sum;
    if (!__builtin_add_overflow(a, b, &sum))
        return sum;
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

inline int64_t subtractSaturated(int64_t a, int64_t b)
{
    int64_t difference;
    if (!__builtin_sub_overflow(a, b, &difference))
        return difference;
    return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

inline int64_t multiplySaturated(int64_t a, int64_t b)
{
    int64_t product;
    if (!__builtin_mul_overflow(a, b, &product))
        return product;
    return (a < 0) == (b < 0) ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
}

} // namespace libvu
