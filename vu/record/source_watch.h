// How the sources fare: notices when one ends, is lost, falls silent or sends what is no channel.
#pragma once

#include <memory>
#include <vector>

#include "vu/record/children.h"
#include "vu/record/file/events.h"
#include "vu/record/live_channel.h"

namespace vu {

class SourceWatch {
public:
    SourceWatch(std::vector<std::unique_ptr<LiveChannel>> &channels, Children &children, Events &events);

    // What a source that ends now ends for: by itself, as it was told, or no more to be waited for.
    enum Phase { kRunning, kStopping, kOver };
    // Looks at all channels once.
    void look(Phase phase);
    bool allEnded() const;

private:
    struct Seen {
        LiveChannel *channel;
        const Children::Child *child; // null: somebody else runs the source
        bool ended = false;
        bool ended_alone = false; // before it was told to
        bool told = false;
        bool silent = false;
        uint64_t cut = 0;    // records with absurd times, as told
        int64_t samples = 0; // when it last brought any
        double since = 0.0;  // seconds
    };

    void noticeEnd(Seen &seen, Phase phase);
    void tellEnd(Seen &seen);
    void noticeSilence(Seen &seen);
    void noticeCuts(Seen &seen);

    std::vector<Seen> all_;
    Events &events_;
};

} // namespace vu
