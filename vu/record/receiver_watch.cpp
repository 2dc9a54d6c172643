#include "vu/record/receiver_watch.h"

#include <fmt/format.h>

#include "libvu/gps/ts_adjust.h"

namespace vu {

void ReceiverWatch::look(LiveChannel &channel, Events &events)
{
    const Channel &description = channel.description();
    const auto *adjust = static_cast<const GpsTsAdjust *>(channel.node().channel_aux);
    if (description.kind != ChannelKind::kNmea || !adjust)
        return;
    const bool locked = adjust->pps.unsynced == 0;
    if (locked == locked_)
        return;
    locked_ = locked;
    losses_ += locked ? 0 : 1;
    if (losses_ > kMostEvents)
        return;
    if (locked)
        events.add("pps_found", description.name,
                   "its sentences are tied to the pulse per second from here on");
    else
        events.add("pps_lost", description.name,
                   "its sentences do not fit the pulse per second: they keep the time of their arrival");
}

void ReceiverWatch::finish(const LiveChannel &channel, Events &events) const
{
    if (losses_ > kMostEvents)
        events.add("pps_lost", channel.description().name,
                   fmt::format("{} times in all; only the first {} are listed", losses_, kMostEvents));
}

} // namespace vu
