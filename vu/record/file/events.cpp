#include "vu/record/file/events.h"
#include "vu/support/say.h"

#include <algorithm>
#include <fmt/format.h>

namespace vu {

void Events::begin()
{
    start_ = std::chrono::steady_clock::now();
}

double Events::seconds() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void Events::add(const char *kind, const std::string &channel, const std::string &text,
                 std::optional<double> value, std::optional<double> time)
{
    if (list_.size() > kMost)
        return;
    Event event{time.value_or(seconds()), kind, channel, value, text};
    if (list_.size() == kMost)
        event = {seconds(), "error", "", {}, "too many events: no more are kept"};
    say("{:9.3f} s  {}{}{}  {}\n", event.time, event.kind, event.channel.empty() ? "" : " ", event.channel,
        event.text);
    list_.push_back(std::move(event));
}

bool Events::anyLoss() const
{
    return std::any_of(list_.begin(), list_.end(), [](const Event &event) {
        return event.kind == "source_lost" || event.kind == "disk_full" || event.kind == "error";
    });
}

} // namespace vu
