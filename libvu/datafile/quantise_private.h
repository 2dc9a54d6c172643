// (value - offset) / scale over a run of samples: the front of every conversion.
//
// The division stays a division and halves go away from zero. Where the machine allows it several samples are
// taken at once, with the same results to the bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "libvu/core/saturate_private.h"

namespace vu {

struct Quantisation {
    double scale;
    double offset;
};

enum class Rounding { none, halfAwayFromZero };

// `values` are `count` floats or doubles at any alignment.
template <typename Source, Rounding kRounding>
void quotients(double *out, const uint8_t *values, size_t count, Quantisation by);

inline double quotient(double value, Quantisation by)
{
    return (value - by.offset) / by.scale;
}

// A rounded quotient as it is stored. 8 and 16 bits keep the low bits of what 32 bits hold.
template <typename T>
inline T storedInteger(double rounded)
{
    using Wide32 = std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>;
    using Wide = std::conditional_t<sizeof(T) == 8, T, Wide32>;
    return static_cast<T>(saturated<Wide>(rounded));
}

} // namespace vu
