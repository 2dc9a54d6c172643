// A channel in as many columns as a picture has: what each holds first, last, lowest and highest, so that no
// peak is lost however many samples fall into one.
#pragma once

#include <limits>
#include <span>
#include <vector>

#include "vu/krdfile/samples.h"

namespace vu::krd {

struct TimeRange {
    double from = -std::numeric_limits<double>::infinity(); // seconds
    double to = std::numeric_limits<double>::infinity();
};

struct Column {
    bool any = false;
    bool joined = false; // to the column before it that has any; not across missing samples
    double first = 0.0, last = 0.0;
    double low = 0.0, high = 0.0;
};

struct Envelope {
    TimeRange time;               // what the columns span
    double low = 0.0, high = 0.0; // over all of them
    uint64_t values = 0;          // finite ones in the range; 0: nothing to show
    std::vector<Column> columns;
};

// Of a periodic channel or one of float messages. What stands for "no value" is a break, like what is not
// finite.
Envelope envelopeOf(const Channel &channel, std::span<const Block> blocks, int64_t ticksPerSecond,
                    TimeRange wanted, size_t columns, ReadProgress *progress = nullptr);

} // namespace vu::krd
