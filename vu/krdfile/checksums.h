// CRC-32 of any part of a file, at a cost that does not grow with the part.
//
// After damage every place that looks like a header is tried, and each may claim most of the file. The
// checksums of the file's beginnings, one every few hundred bytes, make a try cheap: what precedes the part
// is taken off the checksum of all that reaches to its end.
#pragma once

#include <cstdint>
#include <vector>

#include "vu/krdfile/input_file.h"

namespace vu::krd {

class Checksums {
public:
    explicit Checksums(const InputFile &file) : file_(file) {}
    // Parts of some length make it read the whole file, once.
    uint32_t of(uint64_t begin, uint64_t size);

private:
    void gather();
    uint32_t upTo(uint64_t end);
    uint32_t direct(uint64_t offset, uint64_t size, uint32_t of_what_precedes);

    const InputFile &file_;
    uint64_t step_ = 0;
    std::vector<uint32_t> beginnings_; // of the first i steps
    std::vector<uint8_t> room_;
};

uint32_t checksum(Bytes bytes, uint32_t of_what_precedes = 0);
uint32_t checksum(Window &window, uint64_t offset, uint64_t size);

} // namespace vu::krd
