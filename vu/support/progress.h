// How a long job goes on: a line that is rewritten on a terminal, a line now and then elsewhere, nothing at
// all if it is soon over.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vu {

// When the next line is due, and how it is written.
class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine(); // clears the line of a terminal
    ProgressLine(const ProgressLine &) = delete;
    ProgressLine &operator=(const ProgressLine &) = delete;

    // Seconds since the beginning.
    double seconds() const;
    // Seconds since the last line if the next one is due, else 0.
    double due() const;
    void show(const std::string &text);
    // Leaves the last line on a terminal.
    void keep();

private:
    using Clock = std::chrono::steady_clock;

    bool terminal_;
    bool open_ = false; // a line of the terminal is written and not ended
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_ = start_;
};

// The progress of a walk through `total` bytes.
class ReadProgress {
public:
    ReadProgress(std::string name, uint64_t total) : name_(std::move(name)), total_(total) {}

    void reached(uint64_t offset)
    {
        if (offset - looked_ >= kLookEvery)
            look(offset);
    }
    void more(uint64_t bytes) { reached(done_ += bytes); }

private:
    static constexpr uint64_t kLookEvery = 32 << 20; // bytes; the clock is not asked for each block

    void look(uint64_t offset);

    std::string name_;
    uint64_t total_;
    uint64_t looked_ = 0;
    uint64_t done_ = 0; // as more() added it up
    ProgressLine line_;
};

} // namespace vu
