// Loops that are worth more than the baseline instruction set.
//
// A kernel is written once, as an always-inlined loop, and instantiated for each set: plainly, and inside a
// function that carries VU_AVX2 or VU_AVX512. The machine is asked once which one runs. All give the same
// bits. VU_INDEPENDENT marks a loop in which no round needs what another one stores.
#pragma once

#define VU_AVX2 __attribute__((target("avx2,fma")))
#ifdef __clang__
#define VU_AVX512 __attribute__((target("avx512bw,avx512vl"), min_vector_width(512)))
#define VU_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#else
#define VU_AVX512 __attribute__((target("avx512bw,avx512vl,prefer-vector-width=512")))
#define VU_INDEPENDENT _Pragma("GCC ivdep")
#endif
#define VU_INLINE_KERNEL __attribute__((always_inline)) inline

namespace libvu {

inline bool hasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}

inline bool hasAvx512()
{
    static const bool has = __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
    return has;
}

// Which of a kernel's instances this machine runs.
template <typename Kernel>
Kernel *fastest(Kernel *plain, Kernel *avx2, Kernel *avx512)
{
    return hasAvx512() ? avx512 : hasAvx2() ? avx2 : plain;
}

} // namespace libvu
