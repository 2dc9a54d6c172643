// CRC-32 as zlib's crc32() has it, folded several words at a time where the machine can.
#pragma once

#include <cstddef>
#include <cstdint>

namespace libvu {

// One way to sum up `bytes` bytes, of which there is at least one.
using SumPiece = uint32_t (*)(uint32_t running, const uint8_t *piece, uint32_t bytes);

uint32_t sumWithZlib(uint32_t running, const uint8_t *piece, uint32_t bytes);
// Null on a machine without carry-less multiplication, where zlib is the faster one.
SumPiece foldedSum();

// The running checksum over one more piece, of any length; an empty piece changes nothing. It starts at 0.
uint32_t checksum(uint32_t running, const void *piece, size_t bytes);
// The same in a chosen way.
uint32_t checksum(uint32_t running, const void *piece, size_t bytes, SumPiece sum);

} // namespace libvu
