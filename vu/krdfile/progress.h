// How a walk through a large file goes on: a line that is rewritten on a terminal, a line now and then
// elsewhere, nothing at all if it is soon over.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vu::krd {

class ReadProgress {
public:
    ReadProgress(std::string name, uint64_t total);
    ~ReadProgress(); // clears the line
    ReadProgress(const ReadProgress &) = delete;
    ReadProgress &operator=(const ReadProgress &) = delete;

    void reached(uint64_t offset)
    {
        if (offset - looked_ >= kLookEvery)
            show(offset);
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr uint64_t kLookEvery = 32 << 20; // bytes; the clock is not asked for each block

    void show(uint64_t offset);

    std::string name_;
    uint64_t total_;
    uint64_t looked_ = 0;
    bool terminal_;
    bool shown_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point told_ = start_;
};

} // namespace vu::krd
