#include "vu/krdfile/checksums.h"

#include <zlib.h>

namespace vu::krd {

namespace {

constexpr uint64_t kStep = 1024;
constexpr uint64_t kShort = 8 * kStep; // bytes that are summed up as quickly as they are looked up

} // namespace

uint32_t checksum(Bytes bytes, uint32_t of_what_precedes)
{
    return static_cast<uint32_t>(crc32_z(of_what_precedes, bytes.data(), bytes.size()));
}

uint32_t Checksums::of(uint64_t begin, uint64_t size)
{
    if (size <= kShort)
        return checksum(file_.subspan(begin, size));
    if (beginnings_.empty())
        gather();
    const uLong before = crc32_combine64(upTo(begin), 0, static_cast<z_off64_t>(size));
    return upTo(begin + size) ^ static_cast<uint32_t>(before);
}

void Checksums::gather()
{
    beginnings_.reserve(file_.size() / kStep + 1);
    beginnings_.push_back(0);
    for (uint64_t end = kStep; end <= file_.size(); end += kStep)
        beginnings_.push_back(checksum(file_.subspan(end - kStep, kStep), beginnings_.back()));
}

uint32_t Checksums::upTo(uint64_t end) const
{
    const uint64_t step = end / kStep;
    return checksum(file_.subspan(step * kStep, end % kStep), beginnings_[step]);
}

} // namespace vu::krd
