#include "vu/record/source_watch.h"

#include <algorithm>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include "vu/support/account_json.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr double kSilentSeconds =
    5.0; // a periodic channel that brings nothing for so long has lost its source
constexpr double kSilentSamples = 5.0; // unless it is a slow one

// A peer that is gone answers within a round trip; one that is there does not answer at all.
constexpr std::chrono::milliseconds kPeerPatience{300};

bool isReset(int fd)
{
    pollfd event{fd, 0, 0};
    return poll(&event, 1, 0) > 0 && (event.revents & (POLLHUP | POLLERR)) != 0;
}

bool isUnixSocket(int fd)
{
    sockaddr_storage name{};
    socklen_t size = sizeof name;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size) == 0 && name.ss_family == AF_UNIX;
}

} // namespace

PeerEnd::Answer PeerEnd::ask(int fd)
{
    if (isReset(fd))
        return Answer::kGone;
    if (isUnixSocket(fd))
        return Answer::kAnnounced;
    const auto now = std::chrono::steady_clock::now();
    if (!told_) {
        told_ = true;
        asked_ = now;
        if (send(fd, "Stop", 4, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
            return Answer::kGone;
    }
    return now - asked_ < kPeerPatience ? Answer::kUnknown : Answer::kAnnounced;
}

PeerEnd::Answer PeerEnd::await(int fd)
{
    Answer answer = ask(fd);
    if (answer != Answer::kUnknown)
        return answer;
    using namespace std::chrono; // whoever was asked before has had part of its time
    const auto left = duration_cast<milliseconds>(asked_ + kPeerPatience - steady_clock::now()).count();
    pollfd event{fd, 0, 0};
    poll(&event, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    return isReset(fd) ? Answer::kGone : Answer::kAnnounced;
}

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
        noticeAccount(seen, phase);
        seen.receiver.look(*seen.channel, events_);
        if (phase == kOver)
            seen.receiver.finish(*seen.channel, events_);
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
    }
    if (!isEndKnown(seen, phase))
        return;
    seen.told = true;
    tellEnd(seen);
}

// Whether it is known by now how the source ended: by the end of its process, or of its connection.
bool SourceWatch::isEndKnown(Seen &seen, Phase phase)
{
    const ProxyNode &node = seen.channel->node();
    const bool asked = !seen.child && seen.ended_alone && node.fd >= 0 && node.state != PROXY_NODE_DISCARDS;
    if (asked) {
        const auto answer = phase == kRunning ? seen.peer.ask(node.fd) : seen.peer.await(node.fd);
        if (answer == PeerEnd::Answer::kUnknown)
            return false;
        seen.gone = answer == PeerEnd::Answer::kGone;
    }
    if (node.fd >= 0)
        shutdown(node.fd, SHUT_RDWR); // a source that has sent everything waits for this
    return !seen.child || !seen.child->running || phase == kOver;
}

void SourceWatch::tellEnd(Seen &seen)
{
    const std::string &name = seen.channel->description().name;
    const ProxyNode &node = seen.channel->node();
    const Children::Child *child = seen.child;
    // A source that is asked to stop before it began may end without its first two bytes.
    if (node.state == PROXY_NODE_DISCARDS && seen.ended_alone)
        events_.add("error", name, "what its source sends is no channel: nothing more of it is taken");
    else if (child && !child->running && !child->ended_here && child->status != 0)
        events_.add("source_lost", name, "its source ended with " + describeEnd(child->status));
    else if (seen.ended_alone && seen.channel->brokenBytes() > 0) // a source that is asked to stop may do so
        events_.add("source_lost", name,
                    fmt::format("its source ended inside a record: {} bytes of it are lost",
                                seen.channel->brokenBytes()));
    else if (seen.gone)
        events_.add("source_lost", name,
                    "its source is gone without having said that it was all: what more it had is missing");
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

// Each cause at once when it first takes something away, and all of them when the source is over.
void SourceWatch::noticeAccount(Seen &seen, Phase phase)
{
    if (!seen.child)
        return;
    const Account &account = seen.child->account;
    const std::string &name = seen.channel->description().name;
    for (; seen.notes < seen.child->notes.size(); seen.notes++)
        events_.add("note", name, printable(seen.child->notes[seen.notes]));
    const bool over = phase == kOver || account.final;
    if (account.lost() == 0 || account.left_out == seen.left_out)
        return;
    const bool news = std::ranges::any_of(
        account.left_out, [&](const auto &entry) { return !seen.left_out.contains(entry.first); });
    if (!news && !over)
        return;
    seen.left_out = account.left_out;
    events_.add("left_out", name,
                fmt::format("its source has left out{}: {}", over ? "" : " so far", leftOutText(account)),
                static_cast<double>(account.lost()));
}

} // namespace vu
