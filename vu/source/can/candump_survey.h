// What a candump log holds, found out before it is served: the buses in it, and whether its times are times.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vu {

struct CandumpSurvey {
    std::map<std::string, uint64_t> buses; // frames of each
    bool complete = true;                  // the log was read to its end
    bool differences = false;              // its times are steps from frame to frame (candump -td)
};

// Reads the first 200,000 lines of a log, plain or gzip. A damaged place ends the look without a word: who
// reads the log for its frames finds it again. Throws InputError if the file cannot be opened.
CandumpSurvey surveyCandump(const std::string &path);

// Throws InputError unless the log can be one channel: its times are times, and `bus` is in it, or it has one
// bus alone where `bus` is empty.
void checkCandump(const std::string &path, const std::string &bus);

} // namespace vu
