#include "vu/krdfile/checksums.h"

#include <algorithm>
#include <bit>
#include <zlib.h>

namespace vu::krd {

namespace {

constexpr uint64_t kSmallestStep = 256;
constexpr uint64_t kMostSteps = 1 << 24; // 64 MiB of checksums, however large the file

} // namespace

uint32_t checksum(Bytes bytes, uint32_t of_what_precedes)
{
    return static_cast<uint32_t>(crc32_z(of_what_precedes, bytes.data(), bytes.size()));
}

uint32_t checksum(Window &window, uint64_t offset, uint64_t size)
{
    uint32_t sum = 0;
    forEachPiece(window, offset, size, [&sum](Bytes piece) { sum = checksum(piece, sum); });
    return sum;
}

uint32_t Checksums::of(uint64_t begin, uint64_t size)
{
    if (size <= 2 * kSmallestStep) // summed as quickly as looked up
        return direct(begin, size, 0);
    if (beginnings_.empty())
        gather();
    const uLong before = crc32_combine64(upTo(begin), 0, static_cast<z_off64_t>(size));
    return upTo(begin + size) ^ static_cast<uint32_t>(before);
}

void Checksums::gather()
{
    step_ = std::max(kSmallestStep, std::bit_ceil(file_.size() / kMostSteps));
    beginnings_.reserve(file_.size() / step_ + 1);
    beginnings_.push_back(0);
    Window window(file_);
    for (uint64_t end = step_; end <= file_.size(); end += step_) {
        uint32_t sum = beginnings_.back();
        forEachPiece(window, end - step_, step_, [&sum](Bytes piece) { sum = checksum(piece, sum); });
        beginnings_.push_back(sum);
    }
}

uint32_t Checksums::upTo(uint64_t end)
{
    const uint64_t step = end / step_;
    return direct(step * step_, end % step_, beginnings_[step]);
}

// Read by itself: the places lie anywhere in the file, and no buffer would serve the next one.
uint32_t Checksums::direct(uint64_t offset, uint64_t size, uint32_t of_what_precedes)
{
    room_.resize(size);
    file_.read(offset, room_);
    return checksum(Bytes(room_), of_what_precedes);
}

} // namespace vu::krd
