#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/sim/sim.h"
#include "vu/support/random.h"

namespace vu {

namespace {

constexpr int64_t kStep = kTicksPerSecond / 100;
constexpr double kFarTicks = 4e18;

} // namespace

SteppedProducer::SteppedProducer(double durationSeconds)
    : end_(static_cast<int64_t>(durationSeconds > 0.0 ? std::min(durationSeconds * kTicksPerSecond, kFarTicks)
                                                      : kFarTicks))
{
}

bool SteppedProducer::next(WireWriter &wire, int64_t &dueTicks)
{
    const int64_t end = std::min(now_ + kStep, end_);
    step(wire, now_, end);
    now_ = end;
    dueTicks = end;
    if (end < end_)
        return true;
    close(wire);
    return false;
}

int64_t MessageTimes::nominal(uint64_t n) const
{
    return static_cast<int64_t>(
        std::min(std::round(static_cast<double>(n) / rate_ * kTicksPerSecond), kFarTicks));
}

int64_t MessageTimes::at(uint64_t n) const
{
    const double shift = jitter_ * (2.0 * randomUnit(seed_ + 1, n) - 1.0);
    return std::max<int64_t>(0, nominal(n) + std::llround(shift * kTicksPerSecond));
}

int64_t parseStartTime(const std::string &text)
{
    if (text.empty())
        return std::time(nullptr) * kTicksPerSecond;
    std::tm parts{};
    const char *rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    parts.tm_isdst = -1;
    char *end = nullptr;
    const double fraction = rest ? std::strtod(rest, &end) : 0.0;
    if (!rest || *end != '\0' || !(fraction >= 0.0 && fraction < 1.0))
        throw InputError(fmt::format(
            "--start-time: expected YYYY-MM-DDThh:mm:ss with or without a fraction, got '{}'", text));
    return std::mktime(&parts) * kTicksPerSecond + static_cast<int64_t>(fraction * kTicksPerSecond);
}

} // namespace vu
