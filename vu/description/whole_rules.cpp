#include "vu/description/whole_rules.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <set>

#include "vu/description/forecast.h"
#include "vu/description/store_rules.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

// Everything stored lies side by side in one file under its name, and every source needs an address of its
// own.
void checkUnique(const Description &test, Findings &findings)
{
    std::set<std::string> names, addresses;
    const auto check = [&](const std::string &name, const std::string &path) {
        if (!name.empty() && !names.insert(name).second)
            findings.mistake(path, fmt::format("the name {} is taken already", name));
    };
    for (const Channel &channel : test.channels) {
        check(channel.name, channel.path + ".stanza.name");
        if (!channel.address.empty() && !addresses.insert(channel.address).second)
            findings.mistake(channel.path + ".address", "is taken already by another channel");
        for (const Signal &signal : channel.signals)
            check(signal.name, signal.path);
    }
    for (const Monitor &monitor : test.monitors)
        check(monitor.name, monitor.path + ".name");
}

// What a monitor has to know of a periodic channel or signal.
struct Watchable {
    const Store *store;
    double frame_seconds; // what one frame spans
    std::optional<double> invalid;
};

double frameSeconds(double sampleRate, double pipeRate)
{
    return std::max(1.0 / pipeRate, 1.0 / sampleRate);
}

// The periodic channel or signal of that name.
std::optional<Watchable> watchable(const Description &test, const std::string &name)
{
    for (const Channel &channel : test.channels) {
        if (channel.name == name && channel.sample_rate > 0.0)
            return Watchable{&channel.store, frameSeconds(channel.sample_rate, channel.pipe_rate),
                             channel.invalid};
        for (const Signal &signal : channel.signals)
            if (signal.name == name && !signal.text)
                return Watchable{&signal.store, frameSeconds(signal.sample_rate, signal.pipe_rate),
                                 signal.invalid};
    }
    return std::nullopt;
}

// A range detector looks at no more windows at once; the marks beyond them may come too late.
void warnOfWindows(const Monitor &monitor, const WatchedChannel &watched, const Watchable &channel,
                   Findings &findings)
{
    constexpr double kMostWindows = 4095;
    const double windows = monitor.rate * channel.frame_seconds;
    if (windows > kMostWindows)
        findings.warning(
            watched.path + ".channel",
            fmt::format("a frame of {} spans {:.0f} windows of this monitor, more than the {} that "
                        "are watched at once: raise its pipe_rate or lower the monitor's rate",
                        watched.channel, windows, kMostWindows));
}

void checkWatched(const Monitor &monitor, const WatchedChannel &watched, const Description &test,
                  Findings &findings)
{
    const auto channel = watchable(test, watched.channel);
    if (!channel) {
        if (!watched.channel.empty())
            findings.mistake(watched.path + ".channel",
                             fmt::format("there is no periodic channel {}", watched.channel));
        return;
    }
    const double lowest = watched.mode == 2 ? watched.upper : watched.lower;
    const double highest = watched.mode == 3 ? watched.lower : watched.upper;
    if (const std::string warning = rangeWarning(*channel->store, lowest, highest); !warning.empty())
        findings.warning(watched.path, watched.channel + ": " + warning);
    warnOfWindows(monitor, watched, *channel, findings);
    if (channel->invalid && ((watched.mode != 2 && *channel->invalid < watched.lower) ||
                             (watched.mode != 3 && *channel->invalid > watched.upper)))
        findings.warning(watched.path,
                         fmt::format("{} reads {} where it has no value, which is out of this range",
                                     watched.channel, *channel->invalid));
}

} // namespace

void checkWhole(const Description &test, Findings &findings)
{
    checkUnique(test, findings);
    for (const Monitor &monitor : test.monitors)
        for (const WatchedChannel &watched : monitor.channels)
            checkWatched(monitor, watched, test, findings);
}

void warnOfFullDisk(const Description &test, Findings &findings)
{
    const double full = forecast(test).secondsToFull();
    if (test.duration > full)
        findings.warning("duration", fmt::format("the disk of {} is full after {}, before the test is over",
                                                 test.file.string(), durationText(full)));
}

} // namespace vu
