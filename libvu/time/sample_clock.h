/* The instant of every sample of a periodic stream, in whole ticks of 25 ns, without drift at any rate.
 *
 * The period is rate_denominator x 40,000,000 / rate_numerator ticks. Its whole part moves the clock; what is
 * left over gathers in an accumulator, which pays one tick whenever it passes half of the numerator. The
 * whole state is in the record. Thread: the loop's. */
#ifndef LIBVU_TIME_SAMPLE_CLOCK_H
#define LIBVU_TIME_SAMPLE_CLOCK_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

typedef struct SampleClock SampleClock;
struct SampleClock {
    int64_t current_tick;  /* instant of the present sample */
    int64_t next_tick;     /* instant of the following sample */
    double rate_numerator; /* the rate as an exact rational in lowest terms */
    double rate_denominator;
    double whole_ticks;           /* whole ticks in one period */
    double remainder_per_sample;  /* what a period leaves over, in 1/rate_numerator ticks */
    double remainder_accumulator; /* remainders not yet paid out, in the same unit */
    double ticks_per_second;      /* 40000000.0 */
    double half_numerator;        /* above this the accumulator pays one tick */
    double rate;                  /* samples per second */
};
static_assert(offsetof(SampleClock, next_tick) == 8 && offsetof(SampleClock, remainder_accumulator) == 48 &&
                  offsetof(SampleClock, rate) == 72 && sizeof(SampleClock) == 80,
              "SampleClock layout");

/* Sets up a clock at tick 0. A rate in samples per second that is not above 0, above 1,000,000,000, not
 * finite, or so small that a period exceeds 2^53 ticks is reported through libvuError() and leaves a clock of
 * zeros. */
VU_API void sampleClockInit(SampleClock *clock, double rate);
/* A clock in memory of its own, which the caller frees; null after a report. */
VU_API SampleClock *sampleClockCreate(double rate);
/* Moves on by one sample. */
VU_API void sampleClockTick(SampleClock *clock);

#endif
