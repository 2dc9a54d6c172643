// A classic CAN frame, and its raw record of 21 bytes on the connection.
#pragma once

#include <array>
#include <cstdint>

#include "vu/source/serve/wire_writer.h"

namespace vu {

struct CanFrame {
    uint32_t id = 0;
    bool extended = false; // an identifier of 29 bits
    bool remote = false;
    uint8_t length = 0;            // 0 to 8; of a remote frame the length asked for
    std::array<uint8_t, 8> data{}; // zeros from `length` on

    bool operator==(const CanFrame &) const = default;
};

// Signals move on with the times that the source sends, so it is never silent for longer.
constexpr int64_t kCanTimeSpacing = kTicksPerSecond / 100;

// Into an open body.
void writeCan(WireWriter &wire, int64_t ticks, const CanFrame &frame);
void writeCanTime(WireWriter &wire, int64_t ticks); // no message, only the news that time got so far

} // namespace vu
