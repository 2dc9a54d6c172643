// A track: one series of values or messages that can be stored and watched. A channel is one, and so is each
// of its signals and the output of a monitor.
#pragma once

#include <cstdint>
#include <string>

#include "libvu/core/pipe.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sequentializer.h"
#include "vu/description/description.h"

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
    // Where samples are counted before they are delivered; both null: frames are all that is known.
    const ProxyNode *node = nullptr;
    const Sequentializer *stream = nullptr;
    int32_t *rezero_pending = nullptr; // null: it cannot be zeroed
    ProxyNode *sequential = nullptr;   // zeroed through its kernel instead

    bool periodic() const { return sample_rate > 0.0; }
};

} // namespace vu
