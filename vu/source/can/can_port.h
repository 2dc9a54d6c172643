// A CAN interface of the kernel. What a source does with its frames is separate from how the kernel gives
// them, so that tests can take the kernel's place: not every machine has CAN.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "vu/source/can/can_frame.h"

namespace vu {

struct CanArrival {
    // Fd: a CAN FD or CAN XL frame of more than 8 bytes; a smaller one is a Frame.
    enum class Kind { Frame, Fd, Error } kind = Kind::Frame;
    CanFrame frame;         // of a Frame
    int64_t ticks = 0;      // on the clock of nowTicks()
    uint64_t lostSoFar = 0; // frames that the kernel had no room for, since the interface was opened
};

class CanPort {
public:
    virtual ~CanPort() = default;
    virtual int descriptor() const = 0; // readable when frames have come
    // The next frame that has come, empty if there is none now. Throws std::runtime_error.
    virtual std::optional<CanArrival> receive() = 0;
    virtual int64_t nowTicks() = 0; // a clock that never jumps, from anywhere
};

// Throws InputError: no such interface, it is down, or the kernel knows no CAN.
std::unique_ptr<CanPort> openCan(const std::string &interface);

} // namespace vu
