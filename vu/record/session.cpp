#include "vu/record/session.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

#include "vu/record/host_callbacks.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr uint64_t kLookEvery = 64 << 10; // bytes that come between two looks at what waits
// A round of the loop, so that no channel waits long for its turn: for records that are at hand and for
// writing what they became, which can take several times as long.
constexpr double kRoundSeconds = 1.2e-3;
constexpr double kWriteSeconds = 7e-4;
constexpr double kLeastWork = 1e-4;
constexpr double kMostShare = 1e-3; // of it, for one
constexpr double kLeastShare = 2e-5;
constexpr uint64_t kActiveBytes = 1024;   // in a round: a channel that needs a share of it
constexpr double kWindowsAtOnce = 1000.0; // a monitor's output is made before more pile up
constexpr int kMostMonitorRuns = 64;
constexpr double kDrainSeconds = 2.0; // for a source to send its rest after "Stop"
constexpr double kEndSeconds = 2.0;   // and to end

// Its source sends as time passes: who replays a log faster or slower says so.
bool isLive(const Channel &channel)
{
    const auto changesSpeed = [](const std::string &argument) {
        return argument.starts_with("--speed=") && argument != "--speed=1";
    };
    return !channel.source ||
           std::none_of(channel.source->arguments.begin(), channel.source->arguments.end(), changesSpeed);
}

} // namespace

Session::Session(Recording recording)
    : recording_(recording), progress_(recording.test, recording.file),
      sources_(recording.channels, recording.children, recording.events), loop_(ev_default_loop(0)),
      noted_(recording.channels.size())
{
    for (const Monitor &monitor : recording_.test.monitors)
        fastest_monitor_ = std::max(fastest_monitor_, monitor.rate);
    ev_idle_init(&idle_, onIdle);
    ev_timer_init(&tick_, onTick, recording_.test.flush_interval, recording_.test.flush_interval);
    ev_timer_init(&deadline_, onDeadline, 0.0, 0.0);
    ev_prepare_init(&iteration_, onIteration);
    tick_.data = deadline_.data = iteration_.data = this;
}

Session::~Session()
{
    ev_timer_stop(loop_, &tick_);
    ev_timer_stop(loop_, &deadline_);
    ev_prepare_stop(loop_, &iteration_);
    ev_idle_stop(loop_, &idle_);
    setHostCallbacks({});
}

void Session::setCallbacks()
{
    Events &events = recording_.events;
    setHostCallbacks({[&events](const char *text) {
                          const bool lost = std::string_view(text).starts_with("Error on connection");
                          events.add(lost ? "source_lost" : "error", "", text);
                      },
                      [&events](const char *name, double zero) {
                          events.add("zero", name, fmt::format("is zeroed at {:g}", zero), zero);
                      },
                      {}, // the end of a connection is noticed by its node
                      [&events] { events.addLoss(); }});
}

void Session::onIdle(struct ev_loop *, ev_idle *, int) {}

void Session::onTick(struct ev_loop *, ev_timer *timer, int)
{
    auto *self = static_cast<Session *>(timer->data);
    self->watchWindows(true);
    self->recording_.file.beginFlush(self->recording_.events);
    self->noteChannels();
    self->recording_.events.giveCounts();
    if (!self->sources_.allEnded() && !self->stopping_)
        for (const auto &channel : self->recording_.channels)
            if (channel->ended())
                self->recording_.watch.noteEnd(channel->description().name, self->recording_.events);
    self->progress_.show();
}

// Runs in every round of the loop, when the readers are through.
void Session::onIteration(struct ev_loop *loop, ev_prepare *watcher, int)
{
    auto *self = static_cast<Session *>(watcher->data);
    const bool left = self->workOff();
    if (self->write() || left)
        ev_idle_start(loop, &self->idle_);
    else
        ev_idle_stop(loop, &self->idle_);
    self->sources_.look(self->stopping_ ? SourceWatch::kStopping : SourceWatch::kRunning);
    if (self->sources_.allEnded() && !(self->stopping_ && self->recording_.children.anyRunning()))
        ev_break(loop, EVBREAK_ALL);
}

// The channels that bring much share the time of a round. True while one has work left.
bool Session::workOff()
{
    // What cannot be written as fast as it comes stays in the sockets.
    const double work = recording_.file.isBehind() ? kLeastWork : kRoundSeconds;
    Intake::beginRound(std::clamp(work / std::max(active_, 1.0), kLeastShare, kMostShare));
    bool left = false;
    int active = 0;
    for (const auto &channel : recording_.channels) {
        Intake &intake = channel->intake();
        if (intake.isBusy())
            intake.work();
        left = left || intake.isBusy();
        const uint64_t produced = intake.takeProduced();
        active += produced > kActiveBytes;
        unlooked_ += produced;
    }
    // A flood seldom comes from all in the same round: who was there lately counts.
    active_ = std::max<double>(active, active_ * 0.98);
    return left;
}

// True while something is left that is due.
bool Session::write()
{
    watchWindows(false);
    if (unlooked_ >= kLookEvery) {
        unlooked_ = 0;
        recording_.file.lookAtWaiting(recording_.events);
    }
    return recording_.file.flushPortion(kWriteSeconds, recording_.events);
}

// A monitor makes a limited number of windows a run, so the runs follow the time of the channels, which a
// replay brings faster than it passes.
void Session::watchWindows(bool anyway)
{
    if (fastest_monitor_ <= 0.0)
        return;
    double windows = 0.0;
    for (size_t i = 0; i < noted_.size(); i++)
        windows = std::max(windows, (recording_.channels[i]->intake().seconds() - noted_[i].watched) *
                                        fastest_monitor_);
    if (windows < kWindowsAtOnce && !anyway)
        return;
    for (int runs = 0; runs == 0 || (windows > 0.0 && runs < kMostMonitorRuns); runs++) {
        recording_.watch.run(recording_.events);
        windows -= kWindowsAtOnce;
    }
    for (size_t i = 0; i < noted_.size(); i++)
        noted_[i].watched = recording_.channels[i]->intake().seconds();
}

void Session::noteChannels()
{
    for (size_t i = 0; i < noted_.size(); i++)
        noteChannel(i);
}

// What the intake of a channel has found since the last look.
void Session::noteChannel(size_t number)
{
    const LiveChannel &channel = *recording_.channels[number];
    const std::string &name = channel.description().name;
    Noted &noted = noted_[number];
    const SequenceCheck &sequence = channel.intake().sequence();
    if (sequence.gaps() > noted.gaps)
        recording_.events.add(
            "gap", name,
            fmt::format("{} samples are missing in {} gaps so far: the times in its records say so",
                        sequence.missing(), sequence.gaps()),
            static_cast<double>(sequence.missing()));
    if (sequence.overlaps() > noted.overlaps)
        recording_.events.add("error", name,
                              fmt::format("{} of its records lie, by their times, before the end of the one "
                                          "in front of them",
                                          sequence.overlaps()));
    if (sequence.isOffRate() && !noted.off_rate && isLive(channel.description()))
        recording_.events.add("rate", name,
                              fmt::format("brings {:.6g} samples a second instead of {:.6g}: is its "
                                          "sample_rate right?",
                                          sequence.measuredRate(), channel.description().sample_rate),
                              sequence.measuredRate());
    const uint64_t tooLong = channel.intake().tooLong();
    if (tooLong > noted.too_long)
        recording_.events.add("error", name,
                              fmt::format("{} messages beyond {} were left out so far", tooLong,
                                          sizeText(uint64_t{Intake::kLongestMessage})));
    noted = {noted.watched, sequence.gaps(), sequence.overlaps(), tooLong, sequence.isOffRate()};
}

void Session::onDeadline(struct ev_loop *loop, ev_timer *timer, int)
{
    static_cast<Session *>(timer->data)->deadline_over_ = true;
    ev_break(loop, EVBREAK_ALL);
}

void Session::runUntil(double seconds)
{
    ev_now_update(loop_);
    deadline_over_ = false;
    ev_timer_stop(loop_, &deadline_);
    if (seconds > 0.0) {
        ev_timer_set(&deadline_, seconds, 0.0);
        ev_timer_start(loop_, &deadline_);
    }
    ev_run(loop_, 0);
}

void Session::stopSources()
{
    stopping_ = true;
    for (const auto &channel : recording_.channels)
        channel->stop();
    const auto waitFor = [&](double seconds) {
        while (!deadline_over_ && (!sources_.allEnded() || recording_.children.anyRunning()))
            runUntil(seconds); // a second signal only hurries the loop through once more
    };
    deadline_over_ = false;
    waitFor(kDrainSeconds);
    for (const bool hard : {false, true}) {
        if (!recording_.children.anyRunning())
            break;
        recording_.children.terminate(hard);
        deadline_over_ = false;
        waitFor(kEndSeconds);
    }
}

const char *Session::run()
{
    setCallbacks();
    recording_.events.begin();
    ev_timer_start(loop_, &tick_);
    ev_prepare_start(loop_, &iteration_);
    ev_now_update(loop_);
    ev_timer_again(loop_, &tick_);
    if (!recording_.signals.arrived())
        runUntil(recording_.test.duration);
    const char *end = recording_.signals.arrived() ? "stopped" : deadline_over_ ? "duration" : "sources";
    stopSources();
    recording_.children.accounts(recording_.test); // the last lines of the sources become events too
    sources_.look(SourceWatch::kOver);
    progress_.end();
    for (const auto &channel : recording_.channels)
        channel->deliverUnfinished();
    watchWindows(true);
    while (recording_.watch.run(recording_.events))
        recording_.file.flush(false, recording_.events);
    noteChannels();
    recording_.events.giveCounts(true);
    return KRDWriter_is_disk_full() ? "disk_full" : end;
}

} // namespace vu
