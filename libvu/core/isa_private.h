// Loops that are worth more than the baseline instruction set.
//
// A kernel is written once, as an always-inlined loop, and instantiated twice: plainly, and inside a function
// that carries VU_AVX2. Which one runs is asked of the machine once. Both give the same bits.
#pragma once

#define VU_AVX2 __attribute__((target("avx2,fma")))
#define VU_INLINE_KERNEL __attribute__((always_inline)) inline

namespace vu {

inline bool hasAvx2()
{
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}

} // namespace vu
