// The blocks of a data file, each proved before it is believed, and the way on behind damage.
//
// A block is whole if both of its size words agree and its checksum is right; nothing else is ever used. What
// lies between two whole blocks is damage. What is left behind the last one is unfinished if it begins like a
// block that the file ends before: a full disk or a killed recorder leaves that, and it is no damage.
#pragma once

#include <cstdint>
#include <optional>

#include "vu/krdfile/bytes.h"
#include "vu/krdfile/checksums.h"

namespace vu::krd {

struct Block {
    uint64_t offset = 0; // in the file
    uint32_t group = 0;
    Bytes whole; // header and trailer included; part of the file's bytes, like the next
    Bytes payload;
};

// The whole block at `offset` or the one that ends at `end`; nothing if none is there.
std::optional<Block> blockAt(Bytes file, uint64_t offset);
std::optional<Block> blockBefore(Bytes file, uint64_t end);

struct Piece {
    enum Kind { kBlock, kDamage, kUnfinished };
    Kind kind = kBlock;
    uint64_t offset = 0;
    uint64_t bytes = 0;
    Block block; // kBlock only
};

// Every byte of a file, in order, each in one piece.
class BlockWalk {
public:
    explicit BlockWalk(Bytes file) : file_(file), sums_(file) {}
    std::optional<Piece> next();

private:
    std::optional<Block> proven(uint64_t offset);
    std::optional<Block> findBehind(uint64_t offset);
    bool unfinishedAt(uint64_t offset) const;

    Bytes file_;
    Checksums sums_;
    bool damaged_ = false; // from then on many places may claim the same bytes
    uint64_t offset_ = 0;
    std::optional<Block> found_; // behind damage that has just been told
};

} // namespace vu::krd
