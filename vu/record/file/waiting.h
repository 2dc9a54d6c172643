// How much memory the frames in a pipe take. Each frame is looked at once, when it is new.
#pragma once

#include <cstdint>

#include "libvu/core/pipe.h"

namespace vu {

class Waiting {
public:
    // Counts what has come since the last call; nothing may have left the pipe except through emptied().
    // Returns the bytes of all that waits.
    uint64_t look(const Pipe &pipe);
    void emptied();
    uint64_t bytes() const { return bytes_; } // as of the last look

private:
    const Frame *newest_ = nullptr; // the last one that was counted
    uint64_t bytes_ = 0;
};

// How much may wait before it is written without waiting for the next interval. A block of many tiny messages
// takes a millisecond to write: so long as the budget of all tracks is kept, a round of the loop writes a
// few.
struct WaitingLimits {
    uint64_t budget = 64 << 20; // bytes of all tracks together
    uint64_t track = 256 << 10; // of one
};

} // namespace vu
