// How a recording goes on: time, bytes, bytes a second, and what is left of its duration.
#pragma once

#include "vu/description/description.h"
#include "vu/record/file/data_file.h"
#include "vu/support/progress.h"

namespace vu {

class RecordingProgress {
public:
    RecordingProgress(const Description &test, const DataFile &file) : test_(test), file_(file) {}
    void show();
    void end() { line_.keep(); }

private:
    const Description &test_;
    const DataFile &file_;
    ProgressLine line_;
    uint64_t last_bytes_ = 0;
};

} // namespace vu
