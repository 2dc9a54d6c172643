// The wires to a receiver: a serial line, and the line of its pulse. What a source does with them is
// separate from how the kernel gives them, so that tests can take the kernel's place.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace vu {

class ReceiverPort {
public:
    virtual ~ReceiverPort() = default;
    virtual int descriptor() const = 0; // readable when characters have come
    // The characters that have come, none if there are none now; empty at the end of the line. Throws
    // std::runtime_error.
    virtual std::optional<size_t> read(std::span<char> to) = 0;
    // The time of a pulse since the last call, on the clock of nowTicks().
    virtual std::optional<int64_t> pulseTicks() = 0;
    virtual bool hasPulses() const = 0;
    virtual int64_t nowTicks() = 0; // a clock that never jumps, from anywhere
};

// `baud`: speed of the line, where it is a serial one. `pps`: a device such as /dev/pps0, or empty. Throws
// InputError.
std::unique_ptr<ReceiverPort> openReceiver(const std::string &device, unsigned baud, const std::string &pps);

} // namespace vu
