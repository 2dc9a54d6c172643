#include "vu/krdfile/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include "vu/krdfile/text.h"

namespace vu::krd {

namespace {

constexpr double kTerminalSeconds = 0.5; // between two lines
constexpr double kPlainSeconds = 10.0;

double secondsBetween(auto from, auto to)
{
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

ReadProgress::ReadProgress(std::string name, uint64_t total)
    : name_(std::move(name)), total_(total), terminal_(isatty(STDERR_FILENO) == 1)
{
}

ReadProgress::~ReadProgress()
{
    if (shown_ && terminal_)
        fmt::print(stderr, "\r\x1b[K");
}

void ReadProgress::show(uint64_t offset)
{
    looked_ = offset;
    const auto now = Clock::now();
    if (secondsBetween(told_, now) < (terminal_ ? kTerminalSeconds : kPlainSeconds))
        return;
    told_ = now;
    shown_ = true;
    const double rate = static_cast<double>(offset) / secondsBetween(start_, now);
    const double left = static_cast<double>(total_ - offset) / rate;
    fmt::print(stderr, "{}{}: {} of {} read, {}/s, {:.0f} s left{}", terminal_ ? "\r" : "", name_,
               sizeText(offset), sizeText(total_), sizeText(static_cast<uint64_t>(rate)), left,
               terminal_ ? "\x1b[K" : "\n");
}

} // namespace vu::krd
