// The end of a stream, as its host brings it about.
#pragma once

#include <cstdlib>

#include "libvu/time/sequentializer.h"

namespace vu::test {

// Detaches all pipes, then frees everything that destroySequentializer() leaves to the host.
inline void releaseStream(Sequentializer *seq)
{
    while (seq->pipes && seq->pipes->first)
        pipeDetachPipe(seq->pipes, seq->pipes->first);
    free(seq->current_frame);
    while (Frame *frame = seq->free_frames) {
        seq->free_frames = frame->next;
        free(frame);
    }
    free(seq->clock);
    destroySequentializer(seq);
}

// The same, and the name: of a signal or measurement whose record stays with its set.
inline void releaseSignal(auto *signal)
{
    free(signal->name);
    releaseStream(signal->sequentializer);
}

} // namespace vu::test
