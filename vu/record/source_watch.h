// How the sources fare: notices when one ends, is lost, falls silent, leaves something out or sends what is
// no channel.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vu/record/children.h"
#include "vu/record/file/events.h"
#include "vu/record/live_channel.h"
#include "vu/record/receiver_watch.h"

namespace vu {

// How a source from elsewhere ended. One that ends properly shuts down its sending side and stays until the
// recorder is done; one that was killed is gone as a whole. A unix socket shows the difference at once, a TCP
// connection only when something is sent to it: "Stop", which a source at its end may be sent.
class PeerEnd {
public:
    // Looks at the connection `fd`, whose peer has sent all it will. Empty until the answer is known.
    enum class Answer { kUnknown, kAnnounced, kGone };
    Answer ask(int fd);
    // The same, and waits for the answer.
    Answer await(int fd);

private:
    std::chrono::steady_clock::time_point asked_{};
    bool told_ = false;
};

class SourceWatch {
public:
    SourceWatch(std::vector<std::unique_ptr<LiveChannel>> &channels, Children &children, Events &events);

    // What a source that ends now ends for: by itself, as it was asked to, or no more to be waited for.
    enum Phase { kRunning, kStopping, kOver };
    // Looks at all channels once.
    void look(Phase phase);
    bool allEnded() const;

private:
    struct Seen {
        LiveChannel *channel;
        const Children::Child *child; // null: somebody else runs the source
        bool ended = false;
        bool ended_alone = false; // before it was asked to
        bool told = false;
        bool silent = false;
        uint64_t cut = 0;    // records with absurd times, as reported
        int64_t samples = 0; // when it last brought any
        double since = 0.0;  // seconds
        PeerEnd peer;
        bool gone = false; // it did not announce its end
        ReceiverWatch receiver;
        size_t notes = 0;                         // of the account, reported
        std::map<std::string, uint64_t> left_out; // as reported
    };

    void noticeEnd(Seen &seen, Phase phase);
    bool isEndKnown(Seen &seen, Phase phase);
    void tellEnd(Seen &seen);
    void noticeSilence(Seen &seen);
    void noticeCuts(Seen &seen);
    void noticeAccount(Seen &seen, Phase phase);

    std::vector<Seen> all_;
    Events &events_;
};

} // namespace vu
