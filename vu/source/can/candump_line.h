// One line of a candump log, in the log form "(1436509052.249713) vcan0 044#2A366C2BBA" or the form that
// candump shows on a screen, "  vcan0  044   [5]  2A 36 6C 2B BA", with or without a time in front.
#pragma once

#include <optional>
#include <string_view>

#include "vu/source/can/can_frame.h"

namespace vu {

struct CandumpLine {
    enum class Kind {
        Frame,   // also a CAN FD frame of at most 8 bytes
        Blank,   // nothing in it
        Comment, // it begins with "#"
        Fd,      // a CAN FD or CAN XL frame with more bytes
        TooLong, // a classic frame with more than 8 bytes, which cannot be
        Error,   // an error frame
        Bad,     // no candump line
    } kind = Kind::Bad;
    std::optional<int64_t> ticks; // the time in front, cut to whole ticks
    std::string_view time;        // the same as the line has it
    std::string_view bus;         // the interface
    CanFrame frame;

    // Whether a frame of some kind came on `bus`.
    bool isFrame() const { return kind != Kind::Blank && kind != Kind::Comment && kind != Kind::Bad; }
};

// Both views are parts of `line`.
CandumpLine parseCandumpLine(std::string_view line);

} // namespace vu
