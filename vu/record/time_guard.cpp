#include "vu/record/time_guard.h"

#include <algorithm>

#include "libvu/core/wire_format.h"

namespace vu {

namespace {

constexpr double kTicksPerSecond = VU_TICKS_PER_SECOND;
constexpr double kUsualStep = 2.0;      // seconds between two entries that cost nothing
constexpr double kFilledAtOnce = 256e3; // bytes; more than that is a gap
constexpr double kEarnedPerByte = 64.0; // a replay is faster than time, and brings its bytes

} // namespace

double TimeGuard::secondsAhead(int64_t ticks) const
{
    return (static_cast<double>(ticks) - static_cast<double>(furthest_)) / kTicksPerSecond;
}

TimeGuard::Verdict TimeGuard::judge(int64_t ticks)
{
    if (filled_per_second_ <= 0.0 || ticks <= furthest_)
        return Verdict::kFine;
    const double seconds = secondsAhead(ticks);
    const double cost = seconds * filled_per_second_;
    if (cost > (seconds > kUsualStep ? credit_ : kCredit))
        return Verdict::kAbsurd;
    if (cost > kFilledAtOnce)
        return Verdict::kGap;
    accept(ticks);
    return Verdict::kFine;
}

void TimeGuard::accept(int64_t ticks)
{
    if (ticks <= furthest_)
        return;
    if (const double seconds = secondsAhead(ticks); seconds > kUsualStep)
        credit_ -= seconds * filled_per_second_;
    furthest_ = ticks;
}

void TimeGuard::earn(uint64_t bytes, double seconds)
{
    const double earned = static_cast<double>(bytes) * kEarnedPerByte + seconds * filled_per_second_;
    credit_ = std::min(kCredit, credit_ + earned);
}

void TimeGuard::leaveOut(int64_t ticks)
{
    if (cut_++ == 0)
        ahead_ = secondsAhead(ticks);
}

} // namespace vu
