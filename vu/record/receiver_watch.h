// Receivers whose sentences are tied to their pulse per second: losing the pulse and finding it again are
// events of the recording, since times are less exact in between.
#pragma once

#include <string>

#include "vu/record/file/events.h"
#include "vu/record/live_channel.h"

namespace vu {

class ReceiverWatch {
public:
    // Looks at one channel; whatever is no receiver has nothing to see.
    void look(LiveChannel &channel, Events &events);
    // How often the pulse was lost beyond the changes that became events of their own.
    void finish(const LiveChannel &channel, Events &events) const;

private:
    static constexpr unsigned kMostEvents = 20; // a receiver that stutters does not fill the list

    bool locked_ = false;
    unsigned losses_ = 0;
};

} // namespace vu
