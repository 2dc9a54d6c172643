// The part of a recording in which the loop runs: flushes, monitors, progress, sources that come to an end.
#pragma once

#include <ev.h>
#include <memory>
#include <vector>

#include "vu/record/children.h"
#include "vu/record/file/data_file.h"
#include "vu/record/live_channel.h"
#include "vu/record/recording_progress.h"
#include "vu/record/signals.h"
#include "vu/record/source_watch.h"
#include "vu/record/watch.h"

namespace vu {

struct Recording {
    const Description &test;
    Events &events;
    DataFile &file;
    Watch &watch;
    Children &children;
    EndSignals &signals;
    std::vector<std::unique_ptr<LiveChannel>> &channels;
};

class Session {
public:
    explicit Session(Recording recording);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Runs the loop until something ends the recording, then stops the sources and takes in what they had
    // sent. Returns why it ended: "duration", "sources", "stopped" or "disk_full".
    const char *run();

private:
    static void onTick(struct ev_loop *loop, ev_timer *timer, int events);
    static void onIteration(struct ev_loop *loop, ev_prepare *watcher, int events);
    static void onDeadline(struct ev_loop *loop, ev_timer *timer, int events);

    static void onIdle(struct ev_loop *loop, ev_idle *watcher, int events);

    void setCallbacks();
    bool workOff();
    bool write();
    void watchWindows(bool anyway);
    void noteChannel(size_t number);
    void noteChannels();
    void stopSources();
    void runUntil(double seconds);

    Recording recording_;
    RecordingProgress progress_;
    SourceWatch sources_;
    struct ev_loop *loop_;
    ev_timer tick_;
    ev_timer deadline_;
    ev_prepare iteration_;
    ev_idle idle_;                 // runs while something is left to do: the loop then waits for nothing
    uint64_t unlooked_ = 0;        // bytes that came since the tracks were last looked at
    double active_ = 1.0;          // channels that share a round
    double fastest_monitor_ = 0.0; // windows per second
    // What has been said of each channel.
    struct Noted {
        double watched = 0.0; // seconds of its time that the monitors have seen
        uint64_t gaps = 0, overlaps = 0, too_long = 0;
        bool off_rate = false;
    };
    std::vector<Noted> noted_;
    bool deadline_over_ = false;
    bool stopping_ = false;
};

} // namespace vu
