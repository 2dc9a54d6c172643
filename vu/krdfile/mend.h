// Which complete blocks of a recording agree with each other, before they are written to a new file.
#pragma once

#include "vu/krdfile/recording.h"

namespace vu::krd {

struct Mended {
    Recording recording;   // without the blocks that were left out; of the same file
    uint64_t left_out = 0; // blocks whose samples or messages another block has, or whose numbers cannot be
    uint64_t elements = 0; // in them
    std::string first_left_out; // "NAME at OFFSET"
};

// Of a periodic channel the longest row of blocks whose sample numbers rise is kept. Of other channels a
// block that repeats the one before it in every byte is left out, as long as there are more elements than the
// ledger says.
Mended mend(const Recording &recording);

} // namespace vu::krd
