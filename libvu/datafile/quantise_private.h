// (value - offset) / scale over a run of samples: the front of every conversion.
//
// The division stays a division and halves go away from zero. Where the machine allows it several samples are
// taken at once, with the same results to the bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "libvu/core/saturate_private.h"

namespace libvu {

struct Quantisation {
    double scale;
    double offset;
    // Where a rounded quotient stops; a NaN gives 0.
    double least = -std::numeric_limits<double>::infinity();
    double most = std::numeric_limits<double>::infinity();
};

// For elements of T: 8 and 16 bits stop where 32 bits stop, and keep the low bits of that.
template <typename T>
constexpr Quantisation quantisationFor(double scale, double offset)
{
    using Wide = std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>;
    if constexpr (std::is_integral_v<T> && sizeof(T) < 8)
        return {scale, offset, std::numeric_limits<Wide>::min(), std::numeric_limits<Wide>::max()};
    return {scale, offset};
}

enum class Rounding { none, halfAwayFromZero };

// `values` are `count` floats or doubles at any alignment.
template <typename Source, Rounding kRounding>
void quotients(double *out, const uint8_t *values, size_t count, Quantisation by);

// What trunc() cuts off is exact, so it alone decides; an infinity cuts off a NaN, which decides for itself.
// No branch: noise around a half or a bound costs no more than a quiet signal.
[[gnu::always_inline]] inline double roundedWithin(double x, Quantisation by)
{
    const double whole = __builtin_trunc(x);
    const double step = __builtin_fabs(x - whole) >= 0.5 ? 1.0 : 0.0;
    const double rounded = whole + __builtin_copysign(step, x);
    const double below = rounded > by.most ? by.most : rounded;
    const double held = below < by.least ? by.least : below;
    return held == held ? held : 0.0;
}

template <Rounding kRounding>
[[gnu::always_inline]] inline double quotient(double value, Quantisation by)
{
    const double exact = (value - by.offset) / by.scale;
    return kRounding == Rounding::none ? exact : roundedWithin(exact, by);
}

// A quotient rounded within the bounds of T, as it is stored.
template <typename T>
inline T storedInteger(double rounded)
{
    if constexpr (sizeof(T) == 8)
        return saturated<T>(rounded);
    // Several at a time are converted to signed 32 bits only.
    if constexpr (std::is_signed_v<T>)
        return static_cast<T>(static_cast<int32_t>(rounded));
    constexpr uint32_t kHalf = uint32_t{1} << 31;
    return static_cast<T>(static_cast<uint32_t>(static_cast<int32_t>(rounded - kHalf)) ^ kHalf);
}

} // namespace libvu
