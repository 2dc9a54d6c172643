// What a function may abandon half-way: memory from malloc() and its kin, freed unless released.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

namespace libvu {

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};

template <typename T>
using Owned = std::unique_ptr<T, Free>;

// A zeroed record, or null.
template <typename T>
Owned<T> makeZeroed()
{
    return Owned<T>(static_cast<T *>(std::calloc(1, sizeof(T))));
}

// The same, at the start of a cache line: for records that the per-sample path touches.
template <typename T>
Owned<T> makeZeroedAtLine()
{
    constexpr size_t kLine = 64;
    constexpr size_t kSize = (sizeof(T) + kLine - 1) / kLine * kLine;
    void *memory = std::aligned_alloc(kLine, kSize);
    return Owned<T>(memory ? static_cast<T *>(std::memset(memory, 0, kSize)) : nullptr);
}

} // namespace libvu
