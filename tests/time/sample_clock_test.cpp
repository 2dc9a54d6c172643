#include "libvu/time/sample_clock.h"

#include <cmath>
#include <cstring>
#include <gmock/gmock.h>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

using testing::ElementsAre;

namespace {

// An hour of samples, each against the exact instant n x 40,000,000 x denominator / numerator, in whole
// numbers. Of a whole rate it is known to the tick: what a second leaves over is paid out one sample after it
// is earned.
class Hour : public testing::TestWithParam<double> {};

TEST_P(Hour, NeverStraysFromTheExactInstant)
{
    double scaled = GetParam();
    __int128 denominator = 1;
    for (; scaled != std::floor(scaled); scaled *= 2)
        denominator *= 2;
    const __int128 numerator = static_cast<__int128>(scaled);
    // A large numerator rounds the remainder itself: an hour of that is far below a thousandth of a tick.
    const __int128 slack = denominator == 1 ? 0 : numerator / 1000;
    const __int128 whole = 40'000'000 / numerator, rest = 40'000'000 % numerator;
    SampleClock clock;
    std::memset(&clock, 0xA5, sizeof clock); // whatever the record held before
    sampleClockInit(&clock, GetParam());
    EXPECT_EQ(clock.current_tick, 0);
    const auto samples = static_cast<int64_t>(GetParam() * 3600.0);
    for (int64_t n = 1; n <= samples; n++) {
        sampleClockTick(&clock);
        const __int128 stray = clock.current_tick * numerator - n * denominator * 40'000'000;
        const __int128 known = n * whole + (2 * (n - 1) * rest + numerator - 1) / (2 * numerator);
        if (2 * stray > numerator + 2 * slack || 2 * stray < -3 * numerator - 2 * slack ||
            (denominator == 1 && clock.current_tick != known))
            FAIL() << "sample " << n << " at tick " << clock.current_tick;
    }
}
INSTANTIATE_TEST_SUITE_P(SampleClock, Hour,
                         testing::Values(44100.0 / 1.001, 3.0, 7000.0, 1024.0, 12.5, 0.1, 44100.0, 20000.0));

TEST(SampleClock, RefusesRatesWithoutPeriodAndReportsWhatIsMissing)
{
    vu::test::ErrorTrap errors;
    for (const double rate :
         {0.0, -0.0, -1000.0, HUGE_VAL, -HUGE_VAL, std::nan(""), 1.0000001e9, 4.4e-9, 5e-324}) {
        SampleClock clock, zeros{};
        std::memset(&clock, 0xA5, sizeof clock);
        sampleClockInit(&clock, rate);
        EXPECT_EQ(std::memcmp(&clock, &zeros, sizeof clock), 0) << rate;
        EXPECT_EQ(sampleClockCreate(rate), nullptr);
        char text[64];
        std::snprintf(text, sizeof text, "Invalid sample rate: %g", rate);
        EXPECT_THAT(errors.texts(), ElementsAre(text, text));
    }
    vu::test::AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(sampleClockCreate(1.0), nullptr);
    sampleClockTick(nullptr);
    EXPECT_THAT(errors.texts(),
                ElementsAre("Unable to allocate memory for sampleClock", "Sample clock not given"));
}

} // namespace
