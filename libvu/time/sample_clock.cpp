#include "libvu/time/sample_clock.h"

#include <cmath>
#include <gmp.h>

#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"
#include "libvu/time/sample_clock_private.h"

namespace {

constexpr double kTicksPerSecond = libvu::kTicksPerSecond;
constexpr double kHighestRate = 1e9;
constexpr double kLongestPeriod = 0x1p53; // ticks: up to here they are exact as a double

bool isUsable(double rate)
{
    return rate > 0.0 && rate <= kHighestRate && kTicksPerSecond / rate <= kLongestPeriod;
}

// The exact rational of a double has a power of two as denominator, so both parts are exact as doubles again.
void setRational(SampleClock &clock, double rate)
{
    mpq_t rational;
    mpq_init(rational);
    mpq_set_d(rational, rate);
    clock.rate = mpq_get_d(rational);
    clock.rate_numerator = mpz_get_d(mpq_numref(rational));
    clock.rate_denominator = mpz_get_d(mpq_denref(rational));
    mpq_clear(rational);
}

} // namespace

void sampleClockInit(SampleClock *clock, double rate)
{
    *clock = SampleClock{};
    if (!isUsable(rate)) {
        libvuError("Invalid sample rate: %g", rate);
        return;
    }
    setRational(*clock, rate);
    clock->ticks_per_second = kTicksPerSecond;
    clock->half_numerator = clock->rate_numerator * 0.5;
    const double total = clock->rate_denominator * kTicksPerSecond;
    clock->whole_ticks = std::floor(total / clock->rate_numerator);
    clock->remainder_per_sample = total - clock->rate_numerator * clock->whole_ticks;
    clock->next_tick = libvu::saturated<int64_t>(clock->whole_ticks);
}

SampleClock *sampleClockCreate(double rate)
{
    auto clock = libvu::makeZeroedAtLine<SampleClock>();
    if (!clock) {
        libvuError("Unable to allocate memory for sampleClock");
        return nullptr;
    }
    sampleClockInit(clock.get(), rate);
    return libvu::clockRuns(*clock) ? clock.release() : nullptr;
}

void sampleClockTick(SampleClock *clock)
{
    if (!clock) {
        libvuError("Sample clock not given");
        return;
    }
    libvu::tick(*clock);
}
