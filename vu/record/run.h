// A recording from beginning to end.
#pragma once

#include "vu/description/description.h"

namespace vu {

struct RecordOptions {
    bool start_sources = false; // as child processes
    bool force = false;         // replace an existing data file
    bool json = false;          // the summary for programs
};

// Records until the duration is over, all sources have ended, or a signal asks for the end. Returns an
// ExitStatus; throws InputError or std::runtime_error where the recording could not begin.
int recordTest(const Description &test, const RecordOptions &options);

} // namespace vu
