// A track: one series of values or messages that can be stored and watched. A channel is one, and so is each
// of its signals and the output of a monitor.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "libvu/core/pipe.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sequentializer.h"
#include "vu/description/description.h"
#include "vu/krdfile/catalogue.h"

namespace vu {

struct Track {
    std::string name;
    std::string kind;          // "sequential", "message_raw" and so on, as the catalogue says it
    std::string element;       // "float32", "can", "bytes"
    uint32_t element_size = 0; // bytes in a frame; 0: each has its own
    double sample_rate = 0.0;  // Hz; 0: irregular
    std::string unit;
    std::string parent; // the channel that it was decoded from
    Store store;
    PipeList *pipes = nullptr; // where its frames come out
    // Where samples are counted before they are delivered; all null: frames are all that is known.
    const ProxyNode *node = nullptr;
    const Sequentializer *stream = nullptr;
    const uint64_t *counted = nullptr; // of a monitor: the windows that are complete
    const Signal *signal = nullptr;    // of a decoded one: comment, texts of values
    int32_t *rezero_pending = nullptr; // null: it cannot be zeroed
    ProxyNode *sequential = nullptr;   // zeroed through its kernel instead

    std::optional<double> invalid; // what its samples read where there is no value
    std::optional<krd::Calibration> calibration;
    Json values; // texts by value, or null
    std::string comment;

    bool periodic() const { return sample_rate > 0.0; }
};

// A decoded signal that has not had a value yet; `delivered` is what has come out of its pipe. A stream that
// gets a value sets the end of its life, which is 0 only before. Of texts that are not stored nothing is
// known.
inline bool neverHadValue(const Track &track, uint64_t delivered)
{
    if (track.stream)
        return track.stream->expiry_tick == 0;
    return track.signal && track.store.wanted && delivered == 0;
}

// What the stanza of a channel or signal says of its values: the one that means "no value", and the
// calibration.
void describeValues(Track &track, const std::string &stanza);

} // namespace vu
