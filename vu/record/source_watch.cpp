#include "vu/record/source_watch.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/socket.h>

namespace vu {

namespace {

constexpr double kSilentSeconds =
    5.0; // a periodic channel that brings nothing for so long has lost its source
constexpr double kSilentSamples = 5.0; // unless it is a slow one

} // namespace

SourceWatch::SourceWatch(std::vector<std::unique_ptr<LiveChannel>> &channels, Children &children,
                         Events &events)
    : events_(events)
{
    for (const auto &channel : channels) {
        Seen seen{};
        seen.channel = channel.get();
        seen.child = children.find(channel->description().name);
        all_.push_back(seen);
    }
}

bool SourceWatch::allEnded() const
{
    return std::all_of(all_.begin(), all_.end(), [](const Seen &seen) { return seen.channel->ended(); });
}

void SourceWatch::look(Phase phase)
{
    for (Seen &seen : all_) {
        noticeCuts(seen);
        if (seen.channel->ended() && !seen.told)
            noticeEnd(seen, phase);
        else if (!seen.channel->ended() && phase == kRunning)
            noticeSilence(seen);
    }
}

void SourceWatch::noticeEnd(Seen &seen, Phase phase)
{
    ProxyNode &node = seen.channel->node();
    if (!seen.ended) {
        seen.ended = true;
        seen.ended_alone = phase == kRunning;
        if (node.state == PROXY_NODE_DISCARDS)
            proxyNode_Stop(&node);
        if (node.fd >= 0)
            shutdown(node.fd, SHUT_RDWR); // a source that has sent everything waits for this
    }
    // How its process ends says whether everything has come.
    if (seen.child && seen.child->running && phase != kOver)
        return;
    seen.told = true;
    tellEnd(seen);
}

void SourceWatch::tellEnd(Seen &seen)
{
    const std::string &name = seen.channel->description().name;
    const ProxyNode &node = seen.channel->node();
    const Children::Child *child = seen.child;
    if (node.state == PROXY_NODE_DISCARDS)
        events_.add("error", name, "what its source sends is no channel: nothing more of it is taken");
    else if (child && !child->running && !child->ended_here && child->status != 0)
        events_.add("source_lost", name, "its source ended with " + describeEnd(child->status));
    else if (seen.channel->brokenBytes() > 0)
        events_.add("source_lost", name,
                    fmt::format("its source ended inside a record: {} bytes of it are lost",
                                seen.channel->brokenBytes()));
    else if (seen.ended_alone && node.last_read == 0)
        events_.add("source_ended", name, "its source has sent everything");
}

void SourceWatch::noticeSilence(Seen &seen)
{
    if (seen.channel->description().kind != ChannelKind::kSequential)
        return;
    const double now = events_.seconds();
    const std::string &name = seen.channel->description().name;
    const int64_t samples = seen.channel->node().sample_count;
    if (samples != seen.samples) {
        if (seen.silent)
            events_.add("source_found", name, "sends again");
        seen.silent = false;
        seen.samples = samples;
        seen.since = now;
        return;
    }
    const double patience =
        std::max(kSilentSeconds, kSilentSamples / seen.channel->description().sample_rate);
    if (seen.silent || now - seen.since < patience)
        return;
    seen.silent = true;
    events_.add("source_lost", name, fmt::format("has sent nothing for {:.0f} s", patience));
}

// The first of them, and how many there were in all when the channel is over.
void SourceWatch::noticeCuts(Seen &seen)
{
    const TimeGuard &guard = seen.channel->guard();
    if (guard.cut() == seen.cut || (seen.cut > 0 && !seen.channel->ended()))
        return;
    seen.cut = guard.cut();
    events_.add(
        "error", seen.channel->description().name,
        fmt::format("{} of its records were left out: the first lies {:.6g} s ahead of the one before, which "
                    "its streams could not fill (is start_time right?)",
                    guard.cut(), guard.aheadSeconds()));
}

} // namespace vu
