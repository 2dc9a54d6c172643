// A detector's own records. They are the library's; the host sees only the notices.
#pragma once

#include "libvu/core/owned_private.h"
#include "libvu/monitor/over_range.h"
#include "libvu/monitor/range_scan_private.h"

namespace libvu {

struct OverRngChannel {
    char *name;
    double period;        // seconds per sample, after up-sampling
    uint16_t upsample;    // samples made of one; 0: none
    bool badMode;         // reported with every frame: the channel has no excursions then
    uint8_t report;       // as configured
    uint16_t elementSize; // bytes of `type`
    SampleType type;
    Range range;
    Pipe *pipe;
    bool overReported; // each kind of notice is given once
    bool underReported;
    bool losesMarks; // since a frame of its whose marks lay beyond all that can wait
    // The ring had no room for all windows up to this time, in seconds: later runs pass the rest.
    bool isHeldBack;
    double deliveredTo;
};

// One window of the ring.
struct OverRngEntry {
    uint32_t seenCount; // channels that have passed the window
    uint8_t *seen;      // a byte for each channel
    double value;       // 1.0 once an excursion touched the window
};

constexpr uint32_t kRing = 4096;                    // windows
constexpr uint64_t kMarksAhead = uint64_t{1} << 20; // windows from `front` on whose marks are kept

// The entry at `back` covers the time from windowsPassed / rate on. Windows between `front` and `back` are
// complete and not yet put out.
struct OverRngModule {
    char *name;
    double rate;
    uint32_t channelCount;
    uint32_t nextStart; // of the next output frame
    uint64_t windowsPassed;
    OverRngChannel **channels;
    uint32_t front;
    uint32_t back;
    OverRngEntry entries[kRing];
    uint8_t *seen; // what the entries' `seen` point into
    // Marks of windows beyond the ring, a bit for each, at the window's number modulo kMarksAhead; `marksEnd`
    // is the number after the last window that ever had one.
    uint64_t waitingMarks[kMarksAhead / 64];
    uint64_t marksEnd;
    double window; // seconds
    PipeList *output;
    OverRngNotices notices;
    char *noticeText; // what the notices' `text` point into
    // A report's callback may stop the module that is running: it is released when its run comes to an end.
    bool running;
    bool stopped;
};

// Null after a report.
OverRngModule *makeModule(const OverRngModuleConfig &config, const OverRngChannelConfig *channels);
void releaseModule(OverRngModule *module);

} // namespace libvu
