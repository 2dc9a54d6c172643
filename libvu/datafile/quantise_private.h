// (value - offset) / scale over many samples, with which every conversion begins.
//
// The division stays a division and halves go away from zero. Where the machine allows it several samples are
// taken at once, with the same results to the bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace libvu {

struct Quantisation {
    double scale;
    double offset;
    // Where a rounded quotient stops; a NaN gives 0.
    double least = -std::numeric_limits<double>::infinity();
    double most = std::numeric_limits<double>::infinity();
};

// The least power of two that is beyond T: as a double it is exact, while the largest 64-bit number is not.
template <typename T>
constexpr double kBeyond = static_cast<double>(std::numeric_limits<T>::max() / 2 + 1) * 2.0;

// For elements of T: 8 and 16 bits stop where 32 bits stop, and keep the low bits of that; 64 bits may reach
// the number that is just beyond them.
template <typename T>
constexpr Quantisation quantisationFor(double scale, double offset)
{
    using Wide = std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>;
    if constexpr (std::is_integral_v<T> && sizeof(T) < 8)
        return {scale, offset, std::numeric_limits<Wide>::min(), std::numeric_limits<Wide>::max()};
    if constexpr (std::is_integral_v<T>)
        return {scale, offset, static_cast<double>(std::numeric_limits<T>::min()), kBeyond<T>};
    return {scale, offset};
}

enum class Rounding { none, halfAwayFromZero };

// `values` are `count` floats or doubles at any alignment.
template <typename Source, Rounding kRounding>
void quotients(double *out, const uint8_t *values, size_t count, Quantisation by);

// Quotients rounded within the bounds of T, as they are stored, to any address.
template <typename T>
void storeIntegers(uint8_t *to, const double *rounded, size_t count);

// What trunc() cuts off is exact, so comparing it with a half rounds correctly; for an infinity it is a NaN,
// which is not above a half. There is no branch, so that noise around a half or a bound costs no more than a
// quiet signal.
[[gnu::always_inline]] inline double roundedWithin(double x, Quantisation by)
{
    const double truncated = __builtin_trunc(x);
    const double step = __builtin_fabs(x - truncated) >= 0.5 ? 1.0 : 0.0;
    const double rounded = truncated + __builtin_copysign(step, x);
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
[[gnu::always_inline]] inline T storedInteger(double rounded)
{
    if constexpr (sizeof(T) == 8) {
        const bool isBeyond = rounded >= kBeyond<T>;
        const auto whole = static_cast<T>(isBeyond ? 0.0 : rounded);
        return isBeyond ? std::numeric_limits<T>::max() : whole;
    }
    // Several at a time are converted to signed 32 bits only.
    if constexpr (std::is_signed_v<T>)
        return static_cast<T>(static_cast<int32_t>(rounded));
    constexpr uint32_t kHalf = uint32_t{1} << 31;
    return static_cast<T>(static_cast<uint32_t>(static_cast<int32_t>(rounded - kHalf)) ^ kHalf);
}

} // namespace libvu
