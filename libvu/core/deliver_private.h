// A finished frame to every consumer of a chain.
#pragma once

#include "libvu/core/pipe.h"

namespace libvu {

// The first pipe takes over the producer's reference, each further one gets a clone. A clone that could not
// be made is reported, as is the null that its pipe gets instead. The callback that gets the report may
// detach any pipes; the delivery goes on with the pipe after them. With no pipe at all the frame is deleted.
void deliver(const PipeList &list, Frame *frame);

// Numbers a frame of a periodic or message channel: `start`, and the same as a 32-bit float in `aux`.
inline void stampStart(Frame *frame, int64_t start)
{
    frame->start = start;
    const float rounded = static_cast<float>(start);
    __builtin_memcpy(&frame->aux[1], &rounded, sizeof rounded);
}

} // namespace libvu
