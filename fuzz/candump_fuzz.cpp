// Any text as a line of a candump log. Besides the sanitizers' checks: a frame is one that CAN can carry, its
// time fits, and written as a line again it reads the same.
#include <cstdlib>
#include <fmt/format.h>

#include "vu/source/candump_line.h"

using vu::CandumpLine;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

std::string written(const CandumpLine &line)
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const CandumpLine line = vu::parseCandumpLine({reinterpret_cast<const char *>(data), size});
    if (line.kind != CandumpLine::Kind::Frame)
        return 0;
    require(line.frame.length <= 8 && line.frame.id <= (line.frame.extended ? 0x1FFFFFFFu : 0x7FFu));
    for (size_t i = line.frame.remote ? 0 : line.frame.length; i < 8; ++i)
        require(line.frame.data[i] == 0);
    require(line.ticks.value_or(0) >= 0);
    const CandumpLine again = vu::parseCandumpLine(written(line));
    require(again.kind == CandumpLine::Kind::Frame && again.frame == line.frame &&
            again.ticks == line.ticks.value_or(0));
    return 0;
}
