// What a source says of its input: what it read, what it sent, and what it left out, by cause. A source that
// `vu run` starts writes it as JSON lines on the descriptor of --account; nobody knows what a source from
// elsewhere loses.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace vu {

struct Account {
    std::string channel;
    std::string kind;   // of the source, "candump" for instance; empty: a source from elsewhere
    bool known = false; // whether the source gave an account at all
    bool final = false; // its last line came: the source ended by itself
    uint64_t read = 0;  // frames, sentences, samples or messages of the input
    uint64_t sent = 0;  // of them, what went to the reader
    std::map<std::string, uint64_t> left_out; // by cause
    bool can_fd_wanted_out = false;           // the description says: "leave_out": ["can_fd"]

    // The causes that are losses. Everything else, error frames and comments for instance, is counted and no
    // loss.
    static constexpr std::array<std::string_view, 6> kLosses{"truncated", "unreadable",      "lost_in_kernel",
                                                             "too_long",  "failed_checksum", "can_fd"};

    uint64_t lost() const
    {
        uint64_t sum = 0;
        for (const std::string_view cause : kLosses)
            if (const auto at = left_out.find(std::string(cause)); at != left_out.end())
                sum += cause == "can_fd" && can_fd_wanted_out ? 0 : at->second;
        return sum;
    }
};

} // namespace vu
