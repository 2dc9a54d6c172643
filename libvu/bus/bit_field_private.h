// A bit field of 8 payload bytes: what both ways to a CAN signal share.
#pragma once

#include <cstdint>

#include "libvu/core/wire_private.h"

namespace libvu {

enum class ByteOrder { intel, motorola };

template <ByteOrder order>
inline uint64_t payloadWord(const uint8_t *payload)
{
    return order == ByteOrder::intel ? loadHost<uint64_t>(payload) : loadBig<uint64_t>(payload);
}

// A field without bits, or one beyond the payload, has shifts that C++ does not define; it reads 0.
inline bool leavesWord(uint32_t leftShift, uint32_t rightShift)
{
    return (leftShift | rightShift) > 63;
}

inline uint64_t unsignedField(uint64_t word, uint32_t leftShift, uint32_t rightShift)
{
    return leavesWord(leftShift, rightShift) ? 0 : word << leftShift >> rightShift;
}

inline int64_t signedField(uint64_t word, uint32_t leftShift, uint32_t rightShift)
{
    return leavesWord(leftShift, rightShift) ? 0 : static_cast<int64_t>(word << leftShift) >> rightShift;
}

} // namespace libvu
