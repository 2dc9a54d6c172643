// The two steps of a stream for callers inside the library: reached directly, not through the exported names.
#pragma once

#include "libvu/core/invariants_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/time/sample_clock_private.h"
#include "libvu/time/sequentializer.h"

namespace libvu {

// The rule of a stream that does not hold between two calls, or null. Asked in builds for tests and fuzzing.
const char *brokenStreamRule(const Sequentializer &seq);
using StreamCheck = InvariantCheck<Sequentializer, brokenStreamRule>;

void advance(Sequentializer &seq, double time);                 // sequentialize()
void takeValue(Sequentializer &seq, double time, double value); // sequentialize_value()

// Writes the samples before `target`, which is after the clock and within the whole numbers.
void advanceTo(Sequentializer &seq, int64_t target);

// A record's time, for all the streams that it moves. Most are small enough to be compared in whole numbers.
struct Moment {
    explicit Moment(int64_t at) : ticks(at), isWhole(at > -kWholeNumbers && at < kWholeNumbers) {}
    int64_t ticks;
    bool isWhole;
};

inline void advance(Sequentializer &seq, Moment moment)
{
    const StreamCheck check(seq);
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
