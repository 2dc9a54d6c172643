#include "vu/source/serve/input_account.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <unistd.h>

#include "vu/command.h"
#include "vu/support/account.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr size_t kExamples = 5;
constexpr size_t kExampleLength = 60;
constexpr size_t kMostNotes = 20; // a log that is odd in every line does not fill the recording's events
constexpr std::chrono::seconds kBetweenLines{1};
constexpr int kPatienceMs = 1000; // for a recorder that is slow to read the last line

constexpr std::pair<const char *, const char *> kWords[] = {
    {"can_fd", "CAN FD frames with more than 8 bytes"},
    {"too_long", "classic frames with more than 8 bytes"},
    {"error_frames", "error frames"},
    {"other_bus", "frames of other buses"},
    {"failed_checksum", "sentences whose checksum is wrong"},
    {"lost_in_kernel", "frames lost in the kernel, which had no room for them"},
    {"truncated", "pieces that are cut off"},
    {"unreadable", "lines that cannot be read"},
};

bool isLoss(const std::string &cause)
{
    return std::ranges::find(Account::kLosses, cause) != Account::kLosses.end();
}

// False if nobody took it: then a later line says the same and more.
bool writeLine(int descriptor, const std::string &line, bool wait)
{
    for (;;) {
        if (::write(descriptor, line.data(), line.size()) >= 0)
            return true;
        if (errno == EINTR)
            continue;
        pollfd room{descriptor, POLLOUT, 0};
        if (errno != EAGAIN || !wait || poll(&room, 1, kPatienceMs) <= 0)
            return false;
    }
}

} // namespace

void InputAccount::leaveOut(const std::string &cause, uint64_t count)
{
    if (count == 0)
        return;
    causes_[cause].count += count;
    news_ += isLoss(cause) ? 1 : 0;
}

void InputAccount::leaveOut(const std::string &cause, const std::string &where, std::string_view text)
{
    leaveOut(cause);
    Cause &entry = causes_[cause];
    if (entry.count <= kExamples)
        entry.examples.push_back(fmt::format("{}: '{}'", where, printable(text, kExampleLength)));
}

void InputAccount::note(const std::string &text)
{
    if (notes_.size() >= kMostNotes)
        return;
    notes_.push_back(text);
    ++news_;
}

std::map<std::string, uint64_t> InputAccount::leftOut() const
{
    std::map<std::string, uint64_t> counts;
    for (const auto &[cause, entry] : causes_)
        counts[cause] = entry.count;
    return counts;
}

std::vector<std::string> InputAccount::lines() const
{
    std::vector<std::string> lines = notes_;
    for (const auto &[cause, words] : kWords) {
        const auto at = causes_.find(cause);
        if (at == causes_.end())
            continue;
        const Cause &entry = at->second;
        lines.push_back(fmt::format("{} left out: {}", words, entry.count));
        for (const std::string &example : entry.examples)
            lines.push_back("  " + example);
        if (!entry.examples.empty() && entry.count > entry.examples.size())
            lines.push_back(fmt::format("  and {} more", entry.count - entry.examples.size()));
    }
    return lines;
}

AccountReport::AccountReport(int descriptor) : descriptor_(descriptor)
{
    if (descriptor_ < 0)
        return;
    if (fcntl(descriptor_, F_GETFD) < 0)
        throw InputError(fmt::format("--account: expected an open descriptor, got {}", descriptor_));
    std::signal(SIGPIPE, SIG_IGN); // a recorder that is gone is noticed at its connection
}

void AccountReport::look(const InputAccount &account, uint64_t sent)
{
    if (descriptor_ < 0 || account.news() == told_)
        return;
    if (const auto now = Clock::now(); now >= next_) {
        next_ = now + kBetweenLines;
        write(account, sent, false);
    }
}

void AccountReport::write(const InputAccount &account, uint64_t sent, bool end)
{
    if (descriptor_ < 0)
        return;
    const std::vector<std::string> &notes = account.notes();
    const nlohmann::json line = {
        {"read", account.readSoFar()},
        {"sent", sent},
        {"left_out", account.leftOut()},
        {"notes", std::vector(notes.begin() + static_cast<std::ptrdiff_t>(notes_), notes.end())},
        {"end", end}};
    if (!writeLine(descriptor_, line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n',
                   end))
        return;
    notes_ = notes.size();
    told_ = account.news();
}

} // namespace vu
