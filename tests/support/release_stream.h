// The end of a stream, as its host brings it about.
#pragma once

#include <cstdlib>

#include "libvu/time/sequentializer.h"

namespace vu::test {

// Everything that destroySequentializer() leaves to the host. Its pipes hold no frame any more.
inline void releaseStream(Sequentializer *seq)
{
    if (seq->current_frame)
        frameDelete(seq->current_frame);
    while (Frame *frame = seq->free_frames) {
        seq->free_frames = frame->next;
        free(frame);
    }
    free(seq->clock);
    destroySequentializer(seq);
}

} // namespace vu::test
