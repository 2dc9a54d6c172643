// How a recording goes on: one line that is rewritten on a terminal, a line now and then elsewhere.
#pragma once

#include <chrono>

#include "vu/record/data_file.h"
#include "vu/record/description.h"

namespace vu {

class Progress {
public:
    Progress(const Description &test, const DataFile &file);
    void show();
    void end(); // leaves the line

private:
    using Clock = std::chrono::steady_clock;

    const Description &test_;
    const DataFile &file_;
    bool terminal_;
    bool shown_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
    uint64_t last_bytes_ = 0;
};

// 1234567 as "1.2 MB"
std::string byteText(double bytes);
// 3725 s as "1 h 2 min"
std::string durationText(double seconds);

} // namespace vu
