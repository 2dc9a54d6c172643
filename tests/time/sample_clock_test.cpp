#include "libvu/time/sample_clock.h"

#include <cmath>
#include <cstring>
#include <gmock/gmock.h>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

using testing::ElementsAre;

namespace {

// An hour of samples, known to the tick in whole numbers: what a sample leaves over of a whole tick is paid
// out one sample after it is earned.
class Hour : public testing::TestWithParam<double> {};

TEST_P(Hour, NeverStraysFromTheExactInstant)
{
    __int128 ticks = 40'000'000; // in so many samples
    double samples = GetParam();
    for (; samples != std::floor(samples); samples *= 2)
        ticks *= 2;
    const auto numerator = static_cast<__int128>(samples);
    const __int128 whole = ticks / numerator, rest = ticks % numerator;
    const int64_t up = GetParam() == 0.1; // a little more as a double: its period rounds to whole ticks
    SampleClock clock;
    std::memset(&clock, 0xA5, sizeof clock); // whatever the record held before
    sampleClockInit(&clock, GetParam());
    EXPECT_EQ(clock.current_tick, 0);
    for (int64_t n = 1; n <= GetParam() * 3600.0; n++) {
        sampleClockTick(&clock);
        if (clock.current_tick != up + n * whole + (2 * (n - 1) * rest + numerator - 1) / (2 * numerator))
            FAIL() << "sample " << n << " at tick " << clock.current_tick;
    }
}
INSTANTIATE_TEST_SUITE_P(SampleClock, Hour,
                         testing::Values(44100.0 / 1.001, 3.0, 7000.0, 1024.0, 12.5, 0.1, 44100.0, 20000.0));

TEST(SampleClock, TheLongestPeriodHas2To53Ticks)
{
    vu::test::ErrorTrap errors;
    constexpr double kSlowest = 40e6 / 0x1p53;
    SampleClock clock;
    sampleClockInit(&clock, kSlowest);
    EXPECT_EQ(clock.next_tick, int64_t{1} << 53);
    sampleClockInit(&clock, std::nextafter(kSlowest, 0.0));
    EXPECT_EQ(clock.next_tick, 0);
    EXPECT_THAT(errors.texts(), ElementsAre("Invalid sample rate: 4.44089e-09"));
}

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
