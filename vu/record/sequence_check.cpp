#include "vu/record/sequence_check.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "libvu/core/wire_format.h"

namespace vu {

namespace {

constexpr double kTicksPerSecond = VU_TICKS_PER_SECOND;
constexpr double kFewestTicks = 8.0;   // times are whole ticks, and their sources round
constexpr double kPartOfPeriod = 0.75; // less than that is a rounding, too
constexpr double kOffSeconds = 1.0;
constexpr double kOffPart = 0.01;
constexpr double kOffFor = 2.0; // seconds; one late burst is no wrong rate

} // namespace

void SequenceCheck::record(int64_t ticks, uint64_t samples, double now)
{
    if (samples == 0)
        return;
    if (ticks != 0 || count_ == 0)
        compareTimes(ticks);
    compareRate(samples, now);
    count_ += samples;
}

void SequenceCheck::compareTimes(int64_t ticks)
{
    const double period = kTicksPerSecond / rate_;
    const double difference = static_cast<double>(ticks) - static_cast<double>(count_) * period;
    const double step = difference - difference_;
    difference_ = difference;
    if (!std::exchange(told_, true))
        return;
    if (std::abs(step) <= std::max(kFewestTicks, kPartOfPeriod * period)) {
        trusted_ = true;
    } else if (step > 0.0) {
        gaps_++;
        missing_ += static_cast<uint64_t>(std::min(std::round(step / period), 0x1p53));
    } else {
        overlaps_++;
    }
}

void SequenceCheck::compareRate(uint64_t samples, double now)
{
    if (count_ == 0) {
        first_arrival_ = now;
        first_samples_ = samples;
        return;
    }
    const double seconds = now - first_arrival_;
    const double came = static_cast<double>(count_ + samples - first_samples_);
    const double off = std::abs(came - rate_ * seconds);
    if (off <= rate_ * kOffSeconds || off <= rate_ * seconds * kOffPart) {
        off_since_ = -1.0;
        return;
    }
    if (off_since_ < 0.0)
        off_since_ = now;
    if (off_rate_ || now - off_since_ < kOffFor)
        return;
    off_rate_ = true;
    measured_rate_ = came / seconds;
}

} // namespace vu
