// The step of a clock, inline for the loops that run it once a sample.
#pragma once

#include "libvu/core/saturate_private.h"
#include "libvu/time/sample_clock.h"

namespace libvu {

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

// Up to this tick whole numbers and doubles step alike: the last step leads less than two periods beyond.
constexpr int64_t kWholeNumbers = int64_t{1} << 52;

// A clock in registers, stepped in whole numbers, as long as no step leads beyond kWholeNumbers.
class WholeClock {
public:
    // Longer periods are stepped as doubles, by tick().
    static bool steps(const SampleClock &clock) { return clock.whole_ticks <= 0x1p50; }

    explicit WholeClock(SampleClock &clock)
        : current(clock.current_tick), next(clock.next_tick), clock_(clock),
          period_(static_cast<int64_t>(clock.whole_ticks)), accumulator_(clock.remainder_accumulator)
    {
    }
    ~WholeClock()
    {
        clock_.current_tick = current;
        clock_.next_tick = next;
        clock_.remainder_accumulator = accumulator_;
    }
    WholeClock(const WholeClock &) = delete;
    WholeClock &operator=(const WholeClock &) = delete;

    void tick()
    {
        accumulator_ += clock_.remainder_per_sample;
        current = next;
        next += period_;
        if (accumulator_ > clock_.half_numerator) {
            next += 1;
            accumulator_ -= clock_.rate_numerator;
        }
    }

    int64_t current, next;

private:
    SampleClock &clock_;
    const int64_t period_;
    double accumulator_;
};

} // namespace libvu
