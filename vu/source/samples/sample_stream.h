// Periodic samples as the records of a sequential channel, from whatever they are read.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "vu/source/serve/serve.h"

namespace vu {

// Where the samples come from. Both calls fill the front of `out` with the next samples in the width of the
// channel, so that neither width is rounded through the other, and return how many came; fewer than asked for
// is the end. Bad input throws InputError, once the samples before it were handed out.
class SampleReader {
public:
    virtual ~SampleReader() = default;
    virtual size_t read(std::span<float> out) = 0;
    virtual size_t read(std::span<double> out) = 0;
    // Samples that the file should have and has not: it is cut.
    virtual uint64_t missing() const { return 0; }
};

// Serves the reader's samples at `options.sampleRate`, `options.duration` seconds of them if that is set, as
// "sequential_float32" or "sequential_float64", whichever `options.dataType` contains; else throws
// InputError.
int serveSamples(const ServeOptions &options, std::unique_ptr<SampleReader> reader);

} // namespace vu
