#include "libvu/time/sample_clock.h"

#include <array>
#include <cmath>
#include <cstring>
#include <gmock/gmock.h>
#include <limits>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

using testing::ElementsAre;

namespace {

TEST(SampleClock, StepsThroughTheKnownSequences)
{
    const std::pair<double, std::array<int64_t, 8>> sequences[] = {
        {20000.0, {2000, 4000, 6000, 8000, 10000, 12000, 14000, 16000}},
        {3.0, {13333333, 26666666, 40000000, 53333333, 66666666, 80000000, 93333333, 106666666}},
        {7000.0, {5714, 11428, 17143, 22857, 28571, 34285, 40000, 45714}},
        {1024.0, {39062, 78124, 117187, 156249, 195312, 234374, 273437, 312499}}};
    for (const auto &[rate, instants] : sequences) {
        SampleClock clock;
        std::memset(&clock, 0xA5, sizeof clock); // whatever the record held before
        sampleClockInit(&clock, rate);
        EXPECT_EQ(clock.current_tick, 0);
        for (const int64_t instant : instants) {
            sampleClockTick(&clock);
            EXPECT_EQ(clock.current_tick, instant) << rate;
        }
    }
}

// An hour of samples, each against the exact instant n x 40,000,000 x denominator / numerator, in whole
// numbers.
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
    SampleClock clock;
    sampleClockInit(&clock, GetParam());
    EXPECT_EQ(clock.rate, GetParam());
    const auto samples = static_cast<int64_t>(GetParam() * 3600.0);
    for (int64_t n = 1; n <= samples; n++) {
        sampleClockTick(&clock);
        const __int128 stray = clock.current_tick * numerator - n * denominator * 40'000'000;
        if (2 * stray > numerator + 2 * slack || 2 * stray < -3 * numerator - 2 * slack)
            FAIL() << "sample " << n << " at tick " << clock.current_tick;
    }
}
INSTANTIATE_TEST_SUITE_P(SampleClock, Hour,
                         testing::Values(44100.0 / 1.001, 3.0, 7000.0, 1024.0, 12.5, 0.1, 44100.0));

TEST(SampleClock, RefusesRatesWithoutPeriodAndReportsWhatIsMissing)
{
    vu::test::ErrorTrap errors;
    constexpr double kInfinite = std::numeric_limits<double>::infinity();
    for (const double rate :
         {0.0, -0.0, -1000.0, kInfinite, -kInfinite, std::nan(""), 1.0000001e9, 4.4e-9, 5e-324}) {
        SampleClock clock;
        std::memset(&clock, 0xA5, sizeof clock);
        sampleClockInit(&clock, rate);
        const SampleClock zeros{};
        EXPECT_EQ(std::memcmp(&clock, &zeros, sizeof clock), 0) << rate;
        EXPECT_EQ(sampleClockCreate(rate), nullptr);
        char text[64];
        std::snprintf(text, sizeof text, "Invalid sample rate: %g", rate);
        EXPECT_THAT(errors.texts(), ElementsAre(text, text));
    }
    for (const double rate : {1e9, 4.5e-9}) { // the outermost ones run, and end at the last tick
        SampleClock *clock = sampleClockCreate(rate);
        ASSERT_NE(clock, nullptr) << rate;
        for (int i = 0; i < 3000; i++)
            sampleClockTick(clock);
        EXPECT_GE(clock->next_tick, clock->current_tick);
        EXPECT_GE(clock->current_tick, 118);
        free(clock);
    }
    vu::test::AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(sampleClockCreate(1.0), nullptr);
    sampleClockTick(nullptr);
    EXPECT_THAT(errors.texts(),
                ElementsAre("Unable to allocate memory for sampleClock", "Sample clock not given"));
}

} // namespace
