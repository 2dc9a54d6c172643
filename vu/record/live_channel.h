// A channel while it is recorded: its socket, the library's node on it and the signals cut out of it.
#pragma once

#include <memory>
#include <vector>

#include "libvu/proxy/proxy_node.h"
#include "vu/description/description.h"
#include "vu/record/file/track.h"
#include "vu/record/host_callbacks.h"
#include "vu/record/intake.h"
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
    // The connection has ended and everything is handed on, or what came on it was no channel.
    bool ended() const
    {
        return (node_->disconnected && !intake_->isBusy()) || node_->state == PROXY_NODE_DISCARDS;
    }
    // Tells the source to stop, and goes on reading what it had sent.
    void stop();
    // Hands on what is left in memory and delivers the frames that are still being filled.
    void deliverUnfinished();
    // What is between the socket and the library's reader.
    Intake &intake() { return *intake_; }
    const Intake &intake() const { return *intake_; }
    const TimeGuard &guard() const { return intake_->guard(); }
    // Bytes of a record that never became complete.
    uint64_t brokenBytes() const { return intake_->brokenBytes(); }

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
    void freeNode();
    void freeSignalRecords();
    Track ownTrack();

    const Channel &channel_;
    Descriptor socket_;
    ProxyNode *node_ = nullptr;
    std::vector<Decoded> decoded_;
    std::unique_ptr<Intake> intake_;
};

// All channels of a test on their sockets, in order. Throws InputError with the lines of all of them.
std::vector<std::unique_ptr<LiveChannel>> makeChannels(const Description &test,
                                                       std::vector<Descriptor> sockets);

} // namespace vu
