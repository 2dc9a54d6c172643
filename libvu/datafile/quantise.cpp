#include "libvu/datafile/quantise_private.h"

#include "libvu/core/wire_private.h"

#if defined(__x86_64__)
#define VU_WIDE [[gnu::target("avx2")]]
#else
#define VU_WIDE
#endif

namespace libvu {

namespace {

// Shorter runs are not worth the wide path.
constexpr size_t kWideFrom = 16;

template <typename Source, Rounding kRounding>
[[gnu::always_inline]] inline void divide(double *__restrict out, const uint8_t *__restrict values,
                                          size_t count, Quantisation by)
{
    const Quantisation same = by; // out of the caller's memory, which `out` might be
    for (size_t i = 0; i < count; i++)
        out[i] = quotient<kRounding>(loadHost<Source>(values + i * sizeof(Source)), same);
}

template <typename Source, Rounding kRounding>
void divideNarrow(double *__restrict out, const uint8_t *__restrict values, size_t count, Quantisation by)
{
    divide<Source, kRounding>(out, values, count, by);
}

template <typename Source, Rounding kRounding>
VU_WIDE void divideWide(double *__restrict out, const uint8_t *__restrict values, size_t count,
                        Quantisation by)
{
    divide<Source, kRounding>(out, values, count, by);
}

bool machineIsWide()
{
#if defined(__x86_64__)
    static const bool wide = __builtin_cpu_supports("avx2");
    return wide;
#else
    return false;
#endif
}

} // namespace

template <typename Source, Rounding kRounding>
void quotients(double *out, const uint8_t *values, size_t count, Quantisation by)
{
    if (count >= kWideFrom && machineIsWide())
        divideWide<Source, kRounding>(out, values, count, by);
    else
        divideNarrow<Source, kRounding>(out, values, count, by);
}

template void quotients<float, Rounding::none>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<double, Rounding::none>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<float, Rounding::halfAwayFromZero>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<double, Rounding::halfAwayFromZero>(double *, const uint8_t *, size_t, Quantisation);

} // namespace libvu
