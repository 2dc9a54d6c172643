#include "vu/source/machine_clock.h"

#include <ctime>

namespace vu {

namespace {

constexpr int64_t kNanosecondsPerTick = 25;

int64_t nanosecondsOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

} // namespace

int64_t machineTicks()
{
    return nanosecondsOf(CLOCK_MONOTONIC) / kNanosecondsPerTick;
}

int64_t ticksOfWallTime(int64_t nanoseconds)
{
    const int64_t age = nanosecondsOf(CLOCK_REALTIME) - nanoseconds;
    return (nanosecondsOf(CLOCK_MONOTONIC) - age) / kNanosecondsPerTick;
}

} // namespace vu
