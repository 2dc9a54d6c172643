#include "vu/record/progress.h"
#include "vu/record/say.h"

#include <cmath>
#include <fmt/format.h>
#include <unistd.h>

namespace vu {

namespace {

constexpr double kTerminalSeconds = 0.5;
constexpr double kPlainSeconds = 10.0;

} // namespace

std::string byteText(double bytes)
{
    constexpr const char *units[] = {"B", "kB", "MB", "GB", "TB", "PB"};
    size_t unit = 0;
    while (bytes >= 1000.0 && unit + 1 < std::size(units)) {
        bytes /= 1000.0;
        unit++;
    }
    return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, units[unit]);
}

std::string durationText(double seconds)
{
    if (!(seconds < 1e10))
        return "for ever";
    const auto whole = static_cast<int64_t>(std::llround(seconds));
    if (whole < 120)
        return fmt::format("{} s", whole);
    if (whole < 7200)
        return fmt::format("{} min {} s", whole / 60, whole % 60);
    if (whole < 172800)
        return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
    return fmt::format("{} days {} h", whole / 86400, whole % 86400 / 3600);
}

Progress::Progress(const Description &test, const DataFile &file)
    : test_(test), file_(file), terminal_(isatty(STDERR_FILENO) == 1)
{
}

void Progress::show()
{
    const auto now = Clock::now();
    const double passed = std::chrono::duration<double>(now - last_).count();
    if (passed < (terminal_ ? kTerminalSeconds : kPlainSeconds))
        return;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const uint64_t bytes = file_.writtenBytes();
    std::string line = fmt::format("{:7.1f} s  {}  {}/s", seconds, byteText(static_cast<double>(bytes)),
                                   byteText(static_cast<double>(bytes - last_bytes_) / passed));
    if (test_.duration > 0.0)
        line += fmt::format("  {} left", durationText(std::max(0.0, test_.duration - seconds)));
    say("{}{}{}", terminal_ ? "\r" : "", line, terminal_ ? "\x1b[K" : "\n");
    last_ = now;
    last_bytes_ = bytes;
    shown_ = true;
}

void Progress::end()
{
    if (terminal_ && shown_)
        say("\n");
}

} // namespace vu
