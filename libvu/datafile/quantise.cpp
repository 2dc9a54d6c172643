#include "libvu/datafile/quantise_private.h"

#include "libvu/core/wire_private.h"

#if defined(__x86_64__)
#define VU_WIDE [[gnu::target("avx2")]]
// Converts several doubles at a time to 64 bits.
#define VU_WIDEST [[gnu::target("avx512dq,avx512bw,avx512vl")]]
#else
#define VU_WIDEST
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

template <typename T>
[[gnu::always_inline]] inline void storeEach(uint8_t *__restrict to, const double *__restrict rounded,
                                             size_t count)
{
    for (size_t i = 0; i < count; i++)
        storeHost(to + i * sizeof(T), storedInteger<T>(rounded[i]));
}

template <typename T>
void storeNarrow(uint8_t *__restrict to, const double *__restrict rounded, size_t count)
{
    storeEach<T>(to, rounded, count);
}

template <typename T>
VU_WIDE void storeWide(uint8_t *__restrict to, const double *__restrict rounded, size_t count)
{
    storeEach<T>(to, rounded, count);
}

template <typename T>
VU_WIDEST void storeWidest(uint8_t *__restrict to, const double *__restrict rounded, size_t count)
{
    storeEach<T>(to, rounded, count);
}

bool machineIsWidest()
{
#if defined(__x86_64__)
    static const bool widest = __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw") &&
                               __builtin_cpu_supports("avx512vl");
    return widest;
#else
    return false;
#endif
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

template <typename T>
void storeIntegers(uint8_t *to, const double *rounded, size_t count)
{
    if (count >= kWideFrom && machineIsWidest())
        storeWidest<T>(to, rounded, count);
    else if (count >= kWideFrom && machineIsWide())
        storeWide<T>(to, rounded, count);
    else
        storeNarrow<T>(to, rounded, count);
}

template void storeIntegers<uint8_t>(uint8_t *, const double *, size_t);
template void storeIntegers<int8_t>(uint8_t *, const double *, size_t);
template void storeIntegers<uint16_t>(uint8_t *, const double *, size_t);
template void storeIntegers<int16_t>(uint8_t *, const double *, size_t);
template void storeIntegers<uint32_t>(uint8_t *, const double *, size_t);
template void storeIntegers<int32_t>(uint8_t *, const double *, size_t);
template void storeIntegers<uint64_t>(uint8_t *, const double *, size_t);
template void storeIntegers<int64_t>(uint8_t *, const double *, size_t);

template void quotients<float, Rounding::none>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<double, Rounding::none>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<float, Rounding::halfAwayFromZero>(double *, const uint8_t *, size_t, Quantisation);
template void quotients<double, Rounding::halfAwayFromZero>(double *, const uint8_t *, size_t, Quantisation);

} // namespace libvu
