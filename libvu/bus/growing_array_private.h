// Arrays that a host reads as pointer, capacity and count.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace libvu {

// Room for one element more: 32 slots at first, then twice as many. False, with nothing changed, if memory is
// short.
template <typename T>
bool makeRoom(T *&elements, uint32_t &capacity, uint32_t count)
{
    constexpr uint32_t kFirst = 32;
    if (count < capacity)
        return true;
    if (capacity > std::numeric_limits<uint32_t>::max() / 2)
        return false;
    const uint32_t wanted = capacity ? capacity * 2 : kFirst;
    auto *grown = static_cast<T *>(std::calloc(wanted, sizeof(T)));
    if (!grown)
        return false;
    if (count)
        std::memcpy(grown, elements, count * sizeof(T));
    std::free(elements);
    elements = grown;
    capacity = wanted;
    return true;
}

} // namespace libvu
