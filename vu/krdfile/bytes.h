// Numbers out of the bytes of a data file, at any alignment and in either order.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>

namespace vu::krd {

using Bytes = std::span<const uint8_t>;

static_assert(std::endian::native == std::endian::little, "a little-endian machine throughout");

template <typename T>
T loadLittle(const uint8_t *from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

inline uint32_t loadBig32(const uint8_t *from)
{
    return __builtin_bswap32(loadLittle<uint32_t>(from));
}

inline uint64_t loadBig64(const uint8_t *from)
{
    return __builtin_bswap64(loadLittle<uint64_t>(from));
}

} // namespace vu::krd
