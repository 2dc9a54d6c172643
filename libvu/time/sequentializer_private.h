// The two steps of a stream for callers inside the library: reached directly, not through the exported names.
#pragma once

#include "libvu/core/saturate_private.h"
#include "libvu/time/sample_clock_private.h"
#include "libvu/time/sequentializer.h"

namespace libvu {

void advance(Sequentializer &seq, double time);                 // sequentialize()
void takeValue(Sequentializer &seq, double time, double value); // sequentialize_value()

// Writes the samples before `target`, which lies behind the clock and within the whole numbers.
void advanceTo(Sequentializer &seq, int64_t target);

// A record's time, for all the streams that it moves. Most are small enough to be compared in whole numbers.
struct Moment {
    explicit Moment(int64_t at) : ticks(at), isWhole(at > -kWholeNumbers && at < kWholeNumbers) {}
    int64_t ticks;
    bool isWhole;
};

inline void advance(Sequentializer &seq, Moment moment)
{
    if (!moment.isWhole) {
        advance(seq, static_cast<double>(moment.ticks));
        return;
    }
    const int64_t target = moment.ticks - seq.half_period_ticks;
    if (seq.clock->current_tick < target)
        advanceTo(seq, target);
    seq.last_target = target;
}

inline void takeValue(Sequentializer &seq, Moment moment, double value)
{
    advance(seq, moment);
    seq.value = value;
    seq.expiry_tick = addSaturated(seq.clock->next_tick, seq.stale_ticks);
}

} // namespace libvu
