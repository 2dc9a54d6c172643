#include "vu/krdfile/envelope.h"

#include <algorithm>
#include <cmath>

namespace vu::krd {

namespace {

// visit(seconds, seconds of the last sample of the run, value, samples, whether samples are missing before
// it)
template <typename Visit>
void forEachPoint(const Channel &channel, std::span<const Block> blocks, int64_t ticksPerSecond,
                  ReadProgress *progress, Visit &&visit)
{
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    if (!channel.periodic()) {
        const auto point = [&](const Message &message) {
            const double time = static_cast<double>(message.tick) / static_cast<double>(ticksPerSecond);
            const uint8_t *stored = message.body.data();
            const double value =
                isNoValue(channel, stored) ? kNone : toDouble(physicalValue(channel, stored));
            visit(time, time, value, uint64_t{1}, false);
        };
        forEachMessage(channel, blocks, point, progress);
        return;
    }
    int64_t expected = -1;
    SampleCursor cursor(channel, blocks, progress);
    while (!cursor.atEnd()) {
        const uint64_t run = cursor.runLeft();
        const int64_t last = sampleAfter(cursor.sample(), run - 1);
        visit(static_cast<double>(cursor.sample()) / channel.sampleRate,
              static_cast<double>(last) / channel.sampleRate,
              cursor.noValue() ? kNone : toDouble(cursor.value()), run,
              expected >= 0 && cursor.sample() != expected);
        expected = sampleAfter(cursor.sample(), run);
        cursor.advance(run);
    }
}

void add(Column &column, double value, bool joined)
{
    if (!column.any)
        column = {true, joined, value, value, value, value};
    column.last = value;
    column.low = std::min(column.low, value);
    column.high = std::max(column.high, value);
}

} // namespace

Envelope envelopeOf(const Channel &channel, std::span<const Block> blocks, int64_t ticksPerSecond,
                    TimeRange wanted, size_t columns, ReadProgress *progress)
{
    Envelope envelope;
    envelope.columns.resize(columns);
    const auto seen = [&wanted](double from, double to, double value) {
        return std::isfinite(value) && to >= wanted.from && from <= wanted.to;
    };
    forEachPoint(channel, blocks, ticksPerSecond, progress,
                 [&](double from, double to, double value, uint64_t count, bool) {
                     if (!seen(from, to, value))
                         return;
                     const double begin = std::max(from, wanted.from), end = std::min(to, wanted.to);
                     if (envelope.values == 0)
                         envelope = {{begin, end}, value, value, 0, std::move(envelope.columns)};
                     envelope.time = {std::min(envelope.time.from, begin), std::max(envelope.time.to, end)};
                     envelope.low = std::min(envelope.low, value);
                     envelope.high = std::max(envelope.high, value);
                     envelope.values += count;
                 });
    if (envelope.values == 0 || columns == 0)
        return envelope;

    const double span = envelope.time.to - envelope.time.from;
    const auto columnOf = [&](double time) {
        const double part =
            span > 0 ? (std::clamp(time, envelope.time.from, envelope.time.to) - envelope.time.from) / span
                     : 0;
        return std::min(static_cast<size_t>(part * static_cast<double>(columns)), columns - 1);
    };
    bool joined = false;
    forEachPoint(channel, blocks, ticksPerSecond, progress,
                 [&](double from, double to, double value, uint64_t, bool missing) {
                     joined = joined && !missing;
                     if (!seen(from, to, value)) {
                         joined = false;
                         return;
                     }
                     for (size_t column = columnOf(from); column <= columnOf(to); ++column) {
                         add(envelope.columns[column], value, joined);
                         joined = true;
                     }
                 });
    return envelope;
}

} // namespace vu::krd
