// A finished frame to every consumer of a chain.
#pragma once

#include "libvu/core/pipe.h"

namespace libvu {

// The first pipe takes over the producer's reference, each further one gets a clone. A clone that could not
// be made is handed on as null, so that the pipe reports what it misses. The chain is read as it stands at
// every step: a report may run a callback that detaches pipes. With no pipe left the frame is deleted.
void deliver(const PipeList &list, Frame *frame);

// Numbers a frame of a periodic or message channel: `start`, and the same as a 32-bit float in `aux`.
inline void stampStart(Frame *frame, int64_t start)
{
    frame->start = start;
    const float rounded = static_cast<float>(start);
    __builtin_memcpy(&frame->aux[1], &rounded, sizeof rounded);
}

} // namespace libvu
