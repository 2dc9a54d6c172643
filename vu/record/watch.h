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

    // The monitors' own tracks.
    std::vector<Track> tracks();
    // Looks at what has come in; excursions become events.
    void run(Events &events);

private:
    struct Module {
        const Monitor *monitor;
        int32_t id;
        PipeList output{};
    };

    std::vector<std::unique_ptr<Module>> modules_; // the library keeps the address of `output`
};

} // namespace vu
