#include "libvu/time/sequentializer_private.h"

const char *libvu::brokenStreamRule(const Sequentializer &seq)
{
    const SampleClock *clock = seq.clock;
    if (!clock || !clockRuns(*clock))
        return "a stream has a running clock";
    if (clock->current_tick < 0 || clock->current_tick > clock->next_tick)
        return "the clock is at tick 0 or after, and its next tick is no earlier";
    if (seq.sample_count < 0 || seq.frame_samples < 1)
        return "samples are counted from 0, and a frame has room for one";
    if (seq.free_frames && seq.free_frames->prev)
        return "the pool begins at its head";
    const Frame *frame = seq.current_frame;
    if (!frame)
        return nullptr;
    if (frame->pool != &seq.free_frames || frame->refcount != 1)
        return "the current frame is the stream's own, and nobody else's yet";
    if (frame->capacity != static_cast<uint32_t>(seq.frame_samples) || frame->length >= frame->capacity)
        return "the current frame has the stream's capacity and is not full";
    // Equal, unless samples were dropped while nobody listened or memory was short.
    if (frame->start < 0 || frame->start > seq.sample_count - frame->length)
        return "the samples of the current frame have been counted";
    return nullptr;
}
