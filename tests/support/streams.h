// What a host does with the stream of a signal: takes its frames, and releases it at the end.
#pragma once

#include <gtest/gtest.h>
#include <vector>

#include "tests/support/release_stream.h"

namespace vu::test {

// Takes every frame out of the pipe. `next` is the number of the first sample expected, and then of the one
// after the last.
inline std::vector<double> drain(Pipe *pipe, int64_t &next)
{
    std::vector<double> samples;
    while (Frame *frame = pipeGetFrame(pipe)) {
        EXPECT_EQ(frame->start, next);
        EXPECT_EQ(*reinterpret_cast<const float *>(&frame->aux[1]), static_cast<float>(next));
        next += frame->length;
        for (uint32_t i = 0; i < frame->length; i++)
            samples.push_back(frame->element_size == 8 ? static_cast<double *>(frame->data)[i]
                                                       : double{static_cast<float *>(frame->data)[i]});
        frameDelete(frame);
    }
    return samples;
}

inline int64_t pooled(const Sequentializer *seq)
{
    int64_t frames = 0;
    for (const Frame *frame = seq->free_frames; frame; frame = frame->next) {
        EXPECT_EQ(frame->prev ? frame->prev->next : seq->free_frames, frame);
        frames++;
    }
    return frames;
}

} // namespace vu::test
