// The step of a clock, inline for the loops that run it once a sample.
#pragma once

#include "libvu/core/saturate_private.h"
#include "libvu/time/sample_clock.h"

namespace vu {

// A clock whose rate was refused reads all zero: no loop may wait for it.
inline bool clockRuns(const SampleClock &clock)
{
    return clock.rate > 0.0;
}

inline void tick(SampleClock &clock)
{
    clock.remainder_accumulator += clock.remainder_per_sample;
    clock.current_tick = clock.next_tick;
    clock.next_tick = saturated<int64_t>(static_cast<double>(clock.next_tick) + clock.whole_ticks);
    if (clock.remainder_accumulator > clock.half_numerator) {
        clock.next_tick = addSaturated(clock.next_tick, 1);
        clock.remainder_accumulator -= clock.rate_numerator;
    }
}

} // namespace vu
