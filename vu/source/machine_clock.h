// The machine's clock in ticks.
#pragma once

#include <cstdint>

namespace vu {

// A clock that never jumps, from anywhere.
int64_t machineTicks();

// When it was `nanoseconds` by the wall clock, on the clock of machineTicks(): the kernel stamps what comes
// in with the wall clock, which somebody may set meanwhile.
int64_t ticksOfWallTime(int64_t nanoseconds);

} // namespace vu
