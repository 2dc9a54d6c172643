#include "vu/record/file/events.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr double kCountEvery = 1.0;     // seconds
constexpr size_t kMostErrorKinds = 200; // beyond it they are counted together
constexpr size_t kAlikeText = 40;       // bytes that tell one kind of error from another

bool isLoss(std::string_view kind)
{
    constexpr std::array<std::string_view, 4> kLosses{"source_lost", "disk_full", "error", "gap"};
    return std::find(kLosses.begin(), kLosses.end(), kind) != kLosses.end();
}

} // namespace

void Events::begin()
{
    start_ = std::chrono::steady_clock::now();
}

double Events::seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Events::add(std::string_view kind, std::string_view channel, std::string_view text,
                 std::optional<double> value, std::optional<double> time)
{
    loss_ = loss_ || isLoss(kind);
    if (kind == "error" && isRepeated(kind, channel, text))
        return;
    keep({time.value_or(seconds()), std::string(kind), std::string(channel), value,
          printable(text, kLongestText)});
}

// The first of its kind for a second goes on as it is; the others are counted.
bool Events::isRepeated(std::string_view kind, std::string_view channel, std::string_view text)
{
    std::string key = fmt::format("{}\n{}\n{}", kind, channel, text.substr(0, kAlikeText));
    if (errors_.size() >= kMostErrorKinds && !errors_.contains(key))
        key = "other";
    const auto [at, isNew] = errors_.try_emplace(std::move(key));
    Repeated &repeated = at->second;
    const double now = seconds();
    if (!isNew && now - repeated.since < kCountEvery) {
        if (repeated.more++ == 0) {
            repeated.kind = kind;
            repeated.channel = channel;
            repeated.text = printable(text, kLongestText);
        }
        return true;
    }
    giveCount(repeated);
    repeated.since = now;
    return false;
}

void Events::giveCount(Repeated &repeated)
{
    if (repeated.more == 0)
        return;
    repeated.since = seconds();
    std::string text = repeated.more == 1
                           ? repeated.text
                           : fmt::format("{} more like this one: {}", repeated.more, repeated.text);
    repeated.more = 0;
    keep({repeated.since, repeated.kind, repeated.channel, {}, std::move(text)});
}

void Events::giveCounts(bool end)
{
    const double now = seconds();
    for (auto &[key, repeated] : errors_)
        if (end || now - repeated.since >= kCountEvery)
            giveCount(repeated);
    if (!end || not_kept_ == 0)
        return;
    list_.push_back({now, "error", "", {}, fmt::format("{} events more were not kept", not_kept_)});
    say("{:9.3f} s  error  {}\n", now, list_.back().text);
}

void Events::keep(Event event)
{
    if (list_.size() >= (event.kind == "error" ? kMostErrors : kMost)) {
        not_kept_++;
        return;
    }
    say("{:9.3f} s  {}{}{}  {}\n", event.time, event.kind, event.channel.empty() ? "" : " ",
        printable(event.channel), event.text);
    // Some are noticed after they happened.
    const auto place = std::upper_bound(list_.begin(), list_.end(), event.time,
                                        [](double time, const Event &other) { return time < other.time; });
    list_.insert(place, std::move(event));
}

} // namespace vu
