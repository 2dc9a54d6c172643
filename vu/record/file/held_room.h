// Room on the disk that is kept free for the end of a recording, so that a full disk does not take the ledger
// with it: blocks in a file without a name, and some of what the system lets this process write to one file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <sys/resource.h>

#include "vu/support/descriptor.h"

namespace vu {

class HeldRoom {
public:
    ~HeldRoom() { release(); }

    // Keeps about `bytes`, at most a share of what is free. Called again with more, it grows; where it
    // cannot, it keeps what it has.
    void hold(const std::filesystem::path &folder, uint64_t bytes);
    void release();

private:
    void holdBlocks(const std::filesystem::path &folder, uint64_t bytes);
    void holdLimit(uint64_t bytes);

    Descriptor file_;
    uint64_t held_ = 0; // bytes asked for
    bool limited_ = false;
    rlimit before_{}; // valid while `limited_`
};

} // namespace vu
