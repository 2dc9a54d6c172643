#include "libvu/datafile/checksum_private.h"

#include <algorithm>
#include <isa-l/crc.h>
#include <zlib.h>

namespace libvu {

namespace {

uint32_t sumFolded(uint32_t running, const uint8_t *piece, uint32_t bytes)
{
    return crc32_gzip_refl(running, piece, bytes);
}

const SumPiece fastestSum = foldedSum() ? foldedSum() : sumWithZlib;

} // namespace

uint32_t sumWithZlib(uint32_t running, const uint8_t *piece, uint32_t bytes)
{
    return static_cast<uint32_t>(crc32(running, piece, bytes));
}

SumPiece foldedSum()
{
#if defined(__x86_64__)
    return __builtin_cpu_supports("pclmul") ? sumFolded : nullptr;
#else
    return nullptr;
#endif
}

uint32_t checksum(uint32_t running, const void *piece, size_t bytes)
{
    return checksum(running, piece, bytes, fastestSum);
}

uint32_t checksum(uint32_t running, const void *piece, size_t bytes, SumPiece sum)
{
    constexpr size_t kMost = size_t{1} << 30; // fits the length that zlib takes
    const auto *at = static_cast<const uint8_t *>(piece);
    // For a null piece zlib starts over instead of going on.
    while (at && bytes > 0) {
        const auto part = static_cast<uint32_t>(std::min(bytes, kMost));
        running = sum(running, at, part);
        at += part;
        bytes -= part;
    }
    return running;
}

} // namespace libvu
