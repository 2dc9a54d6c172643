// Numbers out of bytes that somebody else wrote, at any alignment, and a cursor that cannot leave them.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "libvu/core/wire_format.h"

namespace libvu {

constexpr int64_t kTicksPerSecond = VU_TICKS_PER_SECOND;
constexpr uint32_t kLengthBytes = VU_LENGTH_BYTES;
constexpr uint32_t kTimeBytes = VU_TIME_BYTES;
constexpr uint32_t kUnreadBytes = VU_UNREAD_BYTES;

inline uint8_t reversed(uint8_t value)
{
    return value;
}
inline uint16_t reversed(uint16_t value)
{
    return __builtin_bswap16(value);
}
inline uint32_t reversed(uint32_t value)
{
    return __builtin_bswap32(value);
}
inline uint64_t reversed(uint64_t value)
{
    return __builtin_bswap64(value);
}
inline int64_t reversed(int64_t value)
{
    return static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(value)));
}

static_assert(std::endian::native == std::endian::little, "host order is little-endian throughout");

template <typename T>
inline T loadHost(const void *from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
inline T loadBig(const void *from)
{
    return reversed(loadHost<T>(from));
}

template <typename T>
inline void storeHost(void *to, T value)
{
    std::memcpy(to, &value, sizeof value);
}

template <typename T>
inline void storeBig(void *to, T value)
{
    storeHost(to, reversed(value));
}

// Turns the number at `at` from big-endian to host order, in place, and returns it.
template <typename T>
inline T toHostInPlace(void *at)
{
    const T value = loadBig<T>(at);
    storeHost(at, value);
    return value;
}

// Reading past the end yields zeros and empty spans, and makes ok() false for good.
class WireReader {
public:
    explicit WireReader(std::span<const uint8_t> bytes) : rest_(bytes) {}
    WireReader(const void *bytes, size_t count) : rest_(static_cast<const uint8_t *>(bytes), count) {}

    uint8_t u8() { return take<uint8_t>(); }
    uint16_t u16be() { return reversed(take<uint16_t>()); }
    uint32_t u32be() { return reversed(take<uint32_t>()); }
    uint32_t u32le() { return take<uint32_t>(); }
    uint64_t u64be() { return reversed(take<uint64_t>()); }
    int64_t i64be() { return reversed(take<int64_t>()); }
    int64_t i64le() { return take<int64_t>(); }

    std::span<const uint8_t> bytes(size_t count)
    {
        if (count > rest_.size()) {
            fail();
            return {};
        }
        const auto taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    void skip(size_t count) { bytes(count); }

    std::span<const uint8_t> rest() const { return rest_; }
    size_t remaining() const { return rest_.size(); }
    bool ok() const { return ok_; }

private:
    template <typename T>
    T take()
    {
        if (sizeof(T) > rest_.size()) {
            fail();
            return 0;
        }
        const T value = loadHost<T>(rest_.data());
        rest_ = rest_.subspan(sizeof(T));
        return value;
    }
    void fail()
    {
        ok_ = false;
        rest_ = {};
    }

    std::span<const uint8_t> rest_;
    bool ok_ = true;
};

} // namespace libvu
