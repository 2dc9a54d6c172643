// Does a data file hold what it says? Every block, every index entry, the ledger, the sample numbers.
#pragma once

#include <string>
#include <vector>

#include "vu/krdfile/recording.h"

namespace vu::krd {

struct ChannelCheck {
    uint32_t group = 0;
    std::string name;
    uint64_t blocks = 0;
    uint64_t elements = 0; // counted in the whole blocks
    uint64_t stored = 0;   // as the ledger has it; 0 without one
    uint64_t gaps = 0;     // samples missing between blocks
    bool inLedger = false;
};

struct Check {
    std::vector<ChannelCheck> channels;
    uint64_t indexBlocks = 0;
    uint64_t indexEntries = 0;
    uint64_t danglingEntries = 0; // point at no whole block of their group
    uint64_t unlistedBlocks = 0;  // channel blocks that no entry points at
    std::vector<std::string> problems;

    // True if the file is whole, closed, and agrees with itself.
    bool sound() const { return problems.empty(); }
};

Check check(const Recording &recording);

} // namespace vu::krd
