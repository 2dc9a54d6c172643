// What happened during a recording: zeroes, excursions, sources lost and found, a full disk, errors. Each is
// told on standard error as it happens and stands in the closing block of the file.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vu {

struct Event {
    double time;      // seconds since the recording began
    std::string kind; // "zero", "range", "source_lost", "source_ended", "source_found", "disk_full", "error"
    std::string channel; // empty: none in particular
    std::optional<double> value;
    std::string text;
};

class Events {
public:
    // Times count from now on.
    void begin();
    double seconds() const;
    void add(const char *kind, const std::string &channel, const std::string &text,
             std::optional<double> value = {}, std::optional<double> time = {});
    const std::vector<Event> &list() const { return list_; }
    // Data may be missing: a source was lost, the disk was full, or something failed.
    bool anyLoss() const;

private:
    // A channel that fails a million times does not fill the memory, nor the closing block.
    static constexpr size_t kMost = 10000;
    std::vector<Event> list_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace vu
