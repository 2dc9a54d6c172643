// The windows that a detector has not yet put out: which channels have passed them, and which are marked.
//
// Windows are numbered from 0 at the start of the test. 4095 of them, from the oldest one that is still to be
// put out, are in the ring; what belongs to later ones waits until they get into it.
#pragma once

#include "libvu/monitor/over_range_module_private.h"

namespace libvu {

constexpr double kWindowEdge = 2.5e-06; // seconds of rounding allowed at a window's edge

// Seconds, of the oldest window that not all channels have passed.
double backTime(const OverRngModule &module);

enum class Marked { none, all, notAll };
// Marks every window that an excursion from `first` to `lastEnd`, in seconds, touches. `notAll`: some lie
// beyond what can wait.
Marked markWindows(OverRngModule &module, double first, double lastEnd);

// Channel `number` passes every window that ends at or before `last`, in seconds.
void passWindows(OverRngModule &module, uint32_t number, double last);
// The same for the channels whose windows had no room in an earlier run.
void passHeldBackWindows(OverRngModule &module);

// Puts the marks that have waited into the part of the ring that has become free since. Comes before
// anything is passed.
void takeWaitingMarks(OverRngModule &module);

OverRngEntry &oldestWindow(OverRngModule &module);
void dropOldestWindow(OverRngModule &module);

} // namespace libvu
