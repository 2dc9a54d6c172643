// A whole data file as one walk found it: catalogue, closing block, the blocks of every group, and the
// damage.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vu/krdfile/blocks.h"
#include "vu/krdfile/catalogue.h"
#include "vu/krdfile/mapped_file.h"

namespace vu::krd {

struct Damage {
    uint64_t offset = 0;
    uint64_t bytes = 0;
};

// Refers to the bytes it was made of; they have to outlive it.
struct Recording {
    Bytes file;
    std::optional<Catalogue> catalogue;
    std::optional<Closing> closing;
    std::vector<Block> blocks;                     // every whole one, in the order of the file
    std::map<uint32_t, std::vector<Block>> groups; // the same from group 1 on
    std::vector<Damage> damage;
    uint64_t damagedBytes = 0;
    uint64_t unfinishedBytes = 0;      // of a block that the end of the file cuts
    bool catalogueIsCopy = false;      // not that of the first block, which is lost
    std::vector<std::string> problems; // blocks that are whole and say what they may not

    const std::vector<Block> &blocksOf(uint32_t group) const;
};

// Reads every byte once. Throws InputError, with `name` for the file, if this is no data file.
Recording scan(Bytes file, const std::string &name);

// Catalogue and closing block alone, found from both ends of the file: no walk, whatever its size.
Recording glance(Bytes file, const std::string &name);

// What it takes to read a channel: its blocks, or InputError if the catalogue is lost.
const Catalogue &requireCatalogue(const Recording &recording, const std::string &name);

} // namespace vu::krd
