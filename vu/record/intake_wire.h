// Constants and numbers of the wire that the parts of Intake share.
#pragma once

#include <cstdint>
#include <cstring>

#include "libvu/core/wire_format.h"

namespace vu {

constexpr double kTicksPerSecond = VU_TICKS_PER_SECOND;
constexpr uint32_t kLengthWord = VU_LENGTH_BYTES;
constexpr uint32_t kTime = VU_TIME_BYTES;
constexpr uint32_t kReadAtOnce = 64 << 10;     // room of the node's buffer
constexpr uint32_t kCompleteRecord = 32 << 10; // a longer one is not kept together
constexpr uint32_t kBatch = 2 << 10;           // bytes handed on between two looks at the clock

inline uint32_t loadWord(const uint8_t *bytes, bool little = false)
{
    uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    return little ? word : __builtin_bswap32(word);
}

inline void storeWord(uint8_t *bytes, uint32_t word)
{
    word = __builtin_bswap32(word);
    std::memcpy(bytes, &word, sizeof word);
}

// On a clock that only goes forward.
double steadySeconds();

} // namespace vu
