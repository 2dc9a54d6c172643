// The monitors of a test: each watches channels for samples out of range and makes a yes-or-no track of it.
#pragma once

#include <memory>
#include <vector>

#include "vu/description/description.h"
#include "vu/record/file/events.h"
#include "vu/record/file/track.h"

namespace vu {

class Watch {
public:
    // Attaches a pipe to every watched track. Throws std::runtime_error where the library refuses a monitor.
    Watch(const Description &test, const std::vector<Track> &tracks);
    ~Watch();
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    // The monitors' own tracks. They point into this object.
    std::vector<Track> tracks();
    // Looks at what has come in; excursions become events. Returns whether more windows are complete than one
    // call puts out: at the end it is called until none is.
    bool run(Events &events);
    // A window is complete when all channels are past it, so a monitor ends with the first of its channels.
    // To be called when the connection `channel` has ended and the recording goes on; the event comes once.
    void noteEnd(const std::string &channel, Events &events);

private:
    struct Module {
        const Monitor *monitor;
        int32_t id;
        std::vector<Track> watched;
        uint64_t complete = 0; // windows that all channels have passed
        uint64_t put_out = 0;
        bool ended = false;      // an event has said so
        Pipe *counter = nullptr; // frames are counted here, whether or not the track is stored
        PipeList output{};
    };

    static void count(Module &module);
    static bool runOnce(Module &module, Events &events);

    std::vector<std::unique_ptr<Module>> modules_; // the library keeps the address of `output`
};

} // namespace vu
