// Any text as a line of a candump log. Besides the sanitizers' checks: a frame is one that CAN can carry, its
// time fits, and written as a line again it reads the same.
#include <algorithm>
#include <fmt/format.h>

#include "fuzz/target.h"
#include "vu/source/can/candump_line.h"

using vu::CandumpLine;

static std::string written(const CandumpLine &line)
{
    const vu::CanFrame &frame = line.frame;
    const int64_t ticks = line.ticks.value_or(0);
    std::string text = fmt::format("({}.{:09}) x {:0{}X}#", ticks / vu::kTicksPerSecond,
                                   ticks % vu::kTicksPerSecond * 25, frame.id, frame.extended ? 8 : 3);
    if (frame.remote)
        return fmt::format("{}R{}", text, frame.length);
    for (size_t i = 0; i < frame.length; ++i)
        text += fmt::format("{:02X}", frame.data[i]);
    return text;
}

void fuzz(const uint8_t *data, size_t size)
{
    const CandumpLine line = vu::parseCandumpLine({reinterpret_cast<const char *>(data), size});
    if (line.kind != CandumpLine::Kind::Frame)
        return;
    const vu::CanFrame &frame = line.frame;
    const std::optional<int64_t> ticks = line.ticks;
    const std::string text = written(line);
    const CandumpLine again = vu::parseCandumpLine(text);
    const auto unused = frame.data.begin() + (frame.remote ? 0 : std::min<int>(frame.length, 8));
    require(frame.length <= 8 && frame.id <= (frame.extended ? 0x1FFFFFFFu : 0x7FFu) &&
            ticks.value_or(0) >= 0);
    require(std::all_of(unused, frame.data.end(), [](uint8_t byte) { return byte == 0; }));
    require(again.kind == line.kind && again.frame == frame && again.ticks == ticks.value_or(0));
}
