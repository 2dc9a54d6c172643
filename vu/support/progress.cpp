#include "vu/support/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr double kTerminalSeconds = 0.5; // between two lines
constexpr double kPlainSeconds = 10.0;

double secondsBetween(auto from, auto to)
{
    return std::chrono::duration<double>(to - from).count();
}

} // namespace

ProgressLine::ProgressLine() : terminal_(isatty(STDERR_FILENO) == 1) {}

ProgressLine::~ProgressLine()
{
    if (open_)
        say("\r\x1b[K");
}

double ProgressLine::seconds() const
{
    return secondsBetween(start_, Clock::now());
}

double ProgressLine::due() const
{
    const double passed = secondsBetween(last_, Clock::now());
    return passed < (terminal_ ? kTerminalSeconds : kPlainSeconds) ? 0.0 : passed;
}

void ProgressLine::show(const std::string &text)
{
    last_ = Clock::now();
    open_ = terminal_;
    say("{}{}{}", terminal_ ? "\r" : "", text, terminal_ ? "\x1b[K" : "\n");
}

void ProgressLine::keep()
{
    if (open_)
        say("\n");
    open_ = false;
}

void ReadProgress::look(uint64_t offset)
{
    looked_ = offset;
    if (line_.due() == 0.0)
        return;
    const double rate = static_cast<double>(offset) / line_.seconds();
    line_.show(fmt::format("{}: {} of {} read, {}/s, {} left", name_, sizeText(offset), sizeText(total_),
                           sizeText(static_cast<uint64_t>(rate)),
                           durationText(static_cast<double>(total_ - offset) / rate)));
}

} // namespace vu
