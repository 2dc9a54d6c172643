// The loops over a frame's samples, once for every instruction set. Samples may lie at any alignment, and
// change between integers and floats, so every access is a copy.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "libvu/core/isa_private.h"
#include "libvu/core/wire_private.h"

namespace libvu {

// x = fma(x, scale, offset), one rounding.
template <typename Sample>
VU_INLINE_KERNEL void scaleOffsetLoop(void *data, size_t count, Sample scale, Sample offset)
{
    auto *at = static_cast<uint8_t *>(data);
    for (size_t i = 0; i < count; i++)
        storeHost(at + i * sizeof(Sample),
                  std::fma(loadHost<Sample>(at + i * sizeof(Sample)), scale, offset));
}

// Bytes in reverse order, as bit patterns: a float register might quiet a signalling NaN. `from` is `to`, or
// does not overlap it.
template <typename Word>
VU_INLINE_KERNEL void swapLoop(uint8_t *to, const uint8_t *from, size_t count)
{
    VU_INDEPENDENT
    for (size_t i = 0; i < count; i++)
        storeHost(to + i * sizeof(Word), loadBig<Word>(from + i * sizeof(Word)));
}

template <typename Sample>
void scaleOffsetPlain(void *data, size_t count, Sample scale, Sample offset)
{
    scaleOffsetLoop<Sample>(data, count, scale, offset);
}

template <typename Word>
void swapPlain(uint8_t *to, const uint8_t *from, size_t count)
{
    swapLoop<Word>(to, from, count);
}

template <typename Sample>
VU_AVX2 void scaleOffsetAvx2(void *data, size_t count, Sample scale, Sample offset)
{
    scaleOffsetLoop<Sample>(data, count, scale, offset);
}

template <typename Word>
VU_AVX2 void swapAvx2(uint8_t *to, const uint8_t *from, size_t count)
{
    swapLoop<Word>(to, from, count);
}

// Elements before the first cache line that begins within the data. From there on each store fills one line
// and not parts of two, so that data which has left the cache is fetched back with half as many accesses.
template <typename Element>
inline size_t aheadOfLine(const void *data, size_t count)
{
    constexpr size_t kLine = 64; // bytes
    return std::min(count, -reinterpret_cast<uintptr_t>(data) % kLine / sizeof(Element));
}

template <typename Sample>
VU_AVX512 void scaleOffsetAvx512(void *data, size_t count, Sample scale, Sample offset)
{
    const size_t ahead = aheadOfLine<Sample>(data, count);
    scaleOffsetLoop<Sample>(data, ahead, scale, offset);
    scaleOffsetLoop<Sample>(static_cast<uint8_t *>(data) + ahead * sizeof(Sample), count - ahead, scale,
                            offset);
}

template <typename Word>
VU_AVX512 void swapAvx512(uint8_t *to, const uint8_t *from, size_t count)
{
    const size_t ahead = aheadOfLine<Word>(to, count);
    swapLoop<Word>(to, from, ahead);
    swapLoop<Word>(to + ahead * sizeof(Word), from + ahead * sizeof(Word), count - ahead);
}

} // namespace libvu
