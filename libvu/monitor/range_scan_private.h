// Where the samples of a frame leave their range.
#pragma once

#include <cstdint>

#include "libvu/core/frame.h"

namespace libvu {

// Elements of a watched frame.
enum class SampleType { float32, float64 };

// Limits that a sample may reach; a limit that is not watched is infinite.
struct Range {
    double lower;
    double upper;
    bool showsExtreme; // of several samples beyond a limit the farthest is shown, not the first
};

struct Excursions {
    bool over = false;
    bool under = false;
    double overValue = 0.0; // the sample that the notice shows
    double underValue = 0.0;
    uint32_t first = 0; // index of the first sample out of range, of either kind
    uint32_t last = 0;  // of the last one
};

// A sample equal to a limit is in range, and so is a NaN.
Excursions findExcursions(const Frame &frame, SampleType type, const Range &range);

} // namespace libvu
