// The blocks of a data file, each proved before it is believed, and the search for the next one after damage.
//
// A block is whole if both of its size words agree and its checksum is right; nothing else is ever used. What
// lies between two whole blocks is damage. What is left after the last one is unfinished if it begins like a
// block that the file ends before: a full disk or a killed recorder leaves that, and it is no damage.
#pragma once

#include <cstdint>
#include <optional>

#include "vu/krdfile/checksums.h"
#include "vu/krdfile/input_file.h"
#include "vu/support/progress.h"

namespace vu::krd {

// Where a whole block is. The file has to outlive it.
struct Block {
    const InputFile *file = nullptr;
    uint64_t offset = 0; // in the file
    uint32_t group = 0;
    uint32_t size = 0; // header and trailer included

    uint64_t payloadOffset() const;
    uint32_t payloadSize() const;
};

// The payload of one block at a time.
class BlockReader {
public:
    explicit BlockReader(ReadProgress *progress = nullptr) : progress_(progress) {}
    BlockReader(BlockReader &&) = default;
    BlockReader &operator=(BlockReader &&) = default;

    Bytes payload(const Block &block); // good until the next call

private:
    ReadProgress *progress_; // of the whole job; may be null
    std::vector<uint8_t> room_;
};

// Whether two blocks are the same in every byte.
bool sameBytes(const Block &one, const Block &other);

// The whole block at `offset` or the one that ends at `end`; nothing if none is there.
std::optional<Block> blockAt(const InputFile &file, uint64_t offset);
std::optional<Block> blockBefore(const InputFile &file, uint64_t end);

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
    explicit BlockWalk(const InputFile &file) : file_(file), window_(file), sums_(file) {}
    std::optional<Piece> next();

private:
    std::optional<Block> proven(uint64_t offset);
    std::optional<Block> findAfter(uint64_t offset);
    bool unfinishedAt(uint64_t offset);
    uint32_t sumOf(uint64_t offset, uint64_t size);

    const InputFile &file_;
    Window window_;
    Checksums sums_;
    uint64_t wasted_ = 0; // bytes that were summed for headers that begin no block
    uint64_t offset_ = 0;
    std::optional<Block> found_; // after damage that has just been reported
};

} // namespace vu::krd
