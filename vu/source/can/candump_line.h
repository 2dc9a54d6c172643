// One line of a candump log, in the log form "(1436509052.249713) vcan0 044#2A366C2BBA" or the form that
// candump shows on a screen, "  vcan0  044   [5]  2A 36 6C 2B BA", with or without a time in front.
#pragma once

#include <optional>
#include <string_view>

#include "vu/source/can/can_frame.h"

namespace vu {

struct CandumpLine {
    enum class Kind {
        Frame,
        Blank, // nothing in it, or a comment
        Fd,    // a CAN FD or CAN XL frame
        Error, // an error frame
        Bad,   // no candump line
    } kind = Kind::Bad;
    std::optional<int64_t> ticks; // the time in front, cut to whole ticks
    CanFrame frame;
};

CandumpLine parseCandumpLine(std::string_view line);

} // namespace vu
