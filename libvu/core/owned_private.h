// What a function may abandon half-way: memory from malloc() and its kin, freed unless released.
#pragma once

#include <cstdlib>
#include <memory>

namespace vu {

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

} // namespace vu
