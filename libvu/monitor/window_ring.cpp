#include "libvu/monitor/window_ring_private.h"

#include <algorithm>
#include <cstring>

#include "libvu/core/saturate_private.h"

namespace libvu {

namespace {

// With one window more in use a full ring would look like an empty one.
constexpr uint32_t kMostAhead = kRing - 1;
constexpr uint32_t kWordBits = 64;

// Windows between the oldest one not yet put out and the oldest one not yet passed.
uint32_t windowsWaiting(const OverRngModule &module)
{
    return (module.back - module.front) % kRing;
}

uint32_t roomFromBack(const OverRngModule &module)
{
    return kMostAhead - windowsWaiting(module);
}

uint64_t frontNumber(const OverRngModule &module)
{
    return module.windowsPassed - windowsWaiting(module);
}

// `ahead` is counted from the window at `back`. False: too far ahead to be remembered.
bool markOne(OverRngModule &module, uint64_t ahead)
{
    if (ahead < roomFromBack(module)) {
        module.entries[(module.back + ahead) % kRing].value = 1.0;
        return true;
    }
    if (ahead >= kMarksAhead - windowsWaiting(module))
        return false;
    const uint64_t number = module.windowsPassed + ahead;
    module.waitingMarks[number % kMarksAhead / kWordBits] |= uint64_t{1} << number % kWordBits;
    module.marksEnd = std::max(module.marksEnd, number + 1);
    return true;
}

} // namespace

double backTime(const OverRngModule &module)
{
    return static_cast<double>(module.windowsPassed) / module.rate;
}

Marked markWindows(OverRngModule &module, double first, double lastEnd)
{
    const double back = backTime(module);
    // Two windows early, since the quotient may be rounded up.
    const double skipped = (first - back) / module.window - 2.0;
    if (skipped >= static_cast<double>(kMarksAhead))
        return Marked::notAll;
    Marked marked = Marked::none;
    for (uint64_t ahead = saturated<uint64_t>(skipped);; ahead++) {
        const double begin = back + static_cast<double>(ahead) * module.window;
        if (begin > lastEnd)
            return marked;
        if (!(begin + module.window - kWindowEdge > first))
            continue;
        if (!markOne(module, ahead))
            return Marked::notAll;
        marked = Marked::all;
    }
}

void passWindows(OverRngModule &module, uint32_t number, double last)
{
    OverRngChannel &channel = *module.channels[number];
    const uint32_t begin = module.back;
    const uint32_t room = roomFromBack(module);
    double end = backTime(module) + module.window;
    uint32_t ahead = 0;
    for (; ahead < room && last >= end; ahead++, end += module.window) {
        OverRngEntry &entry = module.entries[(begin + ahead) % kRing];
        if (!entry.seen[number]) {
            entry.seen[number] = 1;
            entry.seenCount++;
        }
        if (entry.seenCount == module.channelCount) {
            module.back = (module.back + 1) % kRing;
            module.windowsPassed++;
        }
    }
    if (ahead < room || last < end)
        return;
    channel.deliveredTo = channel.isHeldBack ? std::max(channel.deliveredTo, last) : last;
    channel.isHeldBack = true;
}

void passHeldBackWindows(OverRngModule &module)
{
    for (uint32_t number = 0; number < module.channelCount && !module.stopped; number++) {
        OverRngChannel &channel = *module.channels[number];
        if (!channel.isHeldBack)
            continue;
        channel.isHeldBack = false;
        passWindows(module, number, channel.deliveredTo);
    }
}

void takeWaitingMarks(OverRngModule &module)
{
    const uint64_t front = frontNumber(module);
    const uint64_t end = std::min(module.marksEnd, front + kMostAhead);
    for (uint64_t number = front; number < end; number++) {
        uint64_t &word = module.waitingMarks[number % kMarksAhead / kWordBits];
        const uint64_t bit = uint64_t{1} << number % kWordBits;
        if (word & bit)
            module.entries[(module.front + (number - front)) % kRing].value = 1.0;
        word &= ~bit;
    }
}

OverRngEntry &oldestWindow(OverRngModule &module)
{
    return module.entries[module.front];
}

void dropOldestWindow(OverRngModule &module)
{
    OverRngEntry &entry = oldestWindow(module);
    entry.value = 0.0;
    entry.seenCount = 0;
    std::memset(entry.seen, 0, module.channelCount);
    module.front = (module.front + 1) % kRing;
}

} // namespace libvu
