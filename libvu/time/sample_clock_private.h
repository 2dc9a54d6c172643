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

// Whether a clock may be stepped in whole numbers as far as that. Longer periods are stepped as doubles, by
// tick().
inline bool stepsInWholeNumbers(const SampleClock &clock)
{
    return clock.whole_ticks <= 0x1p50;
}

// One step in whole numbers. What changes is the clock's own fields, or copies of them in registers.
inline void stepWhole(const SampleClock &clock, int64_t period, int64_t &current, int64_t &next,
                      double &accumulator)
{
    current = next;
    next += period;
    if (clock.remainder_per_sample == 0.0)
        return;
    accumulator += clock.remainder_per_sample;
    if (accumulator > clock.half_numerator) {
        next += 1;
        accumulator -= clock.rate_numerator;
    }
}

// Steps a clock whose state is in registers, and writes it back at the end.
class RegisterClock {
public:
    explicit RegisterClock(SampleClock &clock)
        : current(clock.current_tick), next(clock.next_tick), clock_(clock),
          period_(static_cast<int64_t>(clock.whole_ticks)), accumulator_(clock.remainder_accumulator)
    {
    }
    ~RegisterClock()
    {
        clock_.current_tick = current;
        clock_.next_tick = next;
        clock_.remainder_accumulator = accumulator_;
    }
    RegisterClock(const RegisterClock &) = delete;
    RegisterClock &operator=(const RegisterClock &) = delete;

    void tick() { stepWhole(clock_, period_, current, next, accumulator_); }

    int64_t current, next;

private:
    SampleClock &clock_;
    const int64_t period_;
    double accumulator_;
};

} // namespace libvu
