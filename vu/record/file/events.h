// What happened during a recording: zeroes, excursions, sources lost and found, a full disk, errors. Each is
// said on standard error as it happens and kept for the closing block of the file, in the order of time.
//
// A peer that fails a million times fills neither memory nor log: texts are cut, an error that repeats is
// counted and its count given once a second, and beyond a number of events the rest is only counted.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vu {

struct Event {
    double time;         // seconds since the recording began
    std::string kind;    // "zero", "range", "gap", "rate", "source_lost", "source_ended", "source_found",
                         // "left_out", "pps_lost", "pps_found", "note", "disk_full", "monitor_ended",
                         // "error"
    std::string channel; // empty: none in particular
    std::optional<double> value;
    std::string text; // printable
};

class Events {
public:
    static constexpr size_t kMost = 8000;       // of all kinds
    static constexpr size_t kMostErrors = 4000; // events when errors are no longer kept
    static constexpr size_t kLongestText = 400; // bytes

    // Times count from now on.
    void begin();
    double seconds() const;
    void add(std::string_view kind, std::string_view channel, std::string_view text,
             std::optional<double> value = {}, std::optional<double> time = {});
    // Something failed for which not even an event could be made.
    void addLoss() noexcept { loss_ = true; }
    // Gives the counts of errors that have repeated for a second; of all, at the `end`.
    void giveCounts(bool end = false);
    const std::vector<Event> &list() const { return list_; }
    uint64_t notKept() const { return not_kept_; }
    // Data may be missing: a source was lost, the disk was full, or something failed.
    bool anyLoss() const { return loss_; }

private:
    struct Repeated {
        std::string kind, channel, text; // of the last one
        double since = 0.0;              // when the last event of it was kept
        uint64_t more = 0;               // since then
    };

    bool isRepeated(std::string_view kind, std::string_view channel, std::string_view text);
    void giveCount(Repeated &repeated);
    void keep(Event event);

    std::vector<Event> list_;
    std::map<std::string, Repeated, std::less<>> errors_; // by kind, channel and the beginning of the text
    uint64_t not_kept_ = 0;
    bool loss_ = false;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace vu
