#include "vu/source/can/can_frame.h"

namespace vu {

namespace {

constexpr uint8_t kRemote = 0x10;
constexpr uint8_t kTimeOnly = 0x20;
constexpr uint8_t kExtended = 0x80;

void write(WireWriter &wire, int64_t ticks, const CanFrame &frame, uint8_t flags)
{
    wire.big(ticks);
    wire.big(frame.id);
    wire.raw(frame.data);
    wire.big(flags);
}

} // namespace

void writeCan(WireWriter &wire, int64_t ticks, const CanFrame &frame)
{
    uint8_t flags = frame.length;
    if (frame.remote)
        flags |= kRemote;
    if (frame.extended)
        flags |= kExtended;
    write(wire, ticks, frame, flags);
}

void writeCanTime(WireWriter &wire, int64_t ticks)
{
    write(wire, ticks, {}, kTimeOnly);
}

} // namespace vu
