// A channel while it is recorded: its socket, the library's node on it and the signals cut out of it.
#pragma once

#include <memory>
#include <vector>

#include "libvu/proxy/proxy_node.h"
#include "vu/description/description.h"
#include "vu/record/file/track.h"
#include "vu/record/host_callbacks.h"
#include "vu/record/time_guard.h"
#include "vu/support/descriptor.h"

namespace vu {

class LiveChannel {
public:
    // Makes node and signals; the node's watcher runs from then on. Throws InputError with a line for each
    // stanza that the library refused, named by its path in the description.
    LiveChannel(const Channel &channel, Descriptor socket, GatheredErrors &errors);
    ~LiveChannel();
    LiveChannel(const LiveChannel &) = delete;
    LiveChannel &operator=(const LiveChannel &) = delete;

    const Channel &description() const { return channel_; }
    ProxyNode &node() { return *node_; }
    const ProxyNode &node() const { return *node_; }
    // What can be stored of it: the channel itself, if it has frames, and its signals.
    std::vector<Track> tracks();
    // The connection has ended, or what came on it was no channel.
    bool ended() const { return node_->disconnected || node_->state == PROXY_NODE_DISCARDS; }
    // Tells the source to stop, and goes on reading what it had sent.
    void stop();
    // Delivers the frames that are still being filled.
    void deliverUnfinished();
    // What stands between the socket and absurd times.
    const TimeGuard &guard() const { return *guard_; }
    // Bytes of a record that never became whole.
    uint32_t brokenBytes() const { return node_->inbuf.size; }

private:
    // What the record of a signal shares whatever its kind. Name and stream are the host's to free.
    struct Decoded {
        const Signal *signal;
        PipeList *pipes;
        Sequentializer *stream; // null: texts
        int32_t *rezero_pending;
        char *name;
    };

    void makeNode(GatheredErrors &errors);
    void addSignals(GatheredErrors &errors);
    bool addSignal(const Signal &signal);
    bool addGpsSignal(const Signal &signal);
    bool addStreamSignal(const Signal &signal);
    void freeSignals();
    Track ownTrack();

    const Channel &channel_;
    Descriptor socket_;
    ProxyNode *node_ = nullptr;
    std::vector<Decoded> decoded_;
    std::unique_ptr<TimeGuard> guard_;
};

// All channels of a test on their sockets, in order. Throws InputError with the lines of all of them.
std::vector<std::unique_ptr<LiveChannel>> makeChannels(const Description &test,
                                                       std::vector<Descriptor> sockets);

} // namespace vu
