// What a source read of its input, what it wrote into records, and what it left out, by cause. A person sees
// it on standard error; the recorder that started the source reads it as JSON lines (vu/support/account.h).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vu {

class InputAccount {
public:
    // Frames, sentences, samples or messages of the input, and how many of them are in records by now.
    void read(uint64_t count = 1) { read_ += count; }
    void wrote(uint64_t count = 1) { wrote_ += count; }
    // Both at once, for what is made here.
    void made(uint64_t count = 1) { read(count), wrote(count); }
    // `cause`: a key of Account::left_out. With a place and a text the first few are shown by name.
    void leaveOut(const std::string &cause, uint64_t count = 1);
    void leaveOut(const std::string &cause, const std::string &where, std::string_view text);
    // News that belongs into the recording's events.
    void note(const std::string &text);

    uint64_t readSoFar() const { return read_; }
    uint64_t wroteSoFar() const { return wrote_; }
    std::map<std::string, uint64_t> leftOut() const;
    const std::vector<std::string> &notes() const { return notes_; }
    // Grows whenever there is something that the recorder should hear soon: a loss or a note.
    uint64_t news() const { return news_; }
    // For standard error: each cause with its count and its first examples.
    std::vector<std::string> lines() const;

private:
    struct Cause {
        uint64_t count = 0;
        std::vector<std::string> examples;
    };
    std::map<std::string, Cause> causes_;
    std::vector<std::string> notes_;
    uint64_t read_ = 0;
    uint64_t wrote_ = 0;
    uint64_t news_ = 0;
};

// The way to the recorder: an inherited descriptor, or none.
class AccountReport {
public:
    explicit AccountReport(int descriptor); // -1: nobody wants it. Throws InputError if it is not open

    // A line as soon as there are news, and then at most one a second. `sent`: what went to the reader.
    void look(const InputAccount &account, uint64_t sent);
    // A line in any case: the first one says that the source listens, the one with `end` is the last.
    void write(const InputAccount &account, uint64_t sent, bool end);

private:
    using Clock = std::chrono::steady_clock;

    int descriptor_;
    uint64_t told_ = 0; // news
    size_t notes_ = 0;  // reported
    Clock::time_point next_{};
};

} // namespace vu
