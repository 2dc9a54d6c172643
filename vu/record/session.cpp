#include "vu/record/session.h"

#include <fmt/format.h>
#include <string_view>

#include "vu/record/host_callbacks.h"

namespace vu {

namespace {

constexpr uint64_t kWaitingBytes = 64 << 20; // more than this is written at once
constexpr double kDrainSeconds = 2.0;        // for a source to send its rest after "Stop"
constexpr double kEndSeconds = 2.0;          // and to end

} // namespace

Session::Session(Recording recording)
    : recording_(recording), progress_(recording.test, recording.file),
      sources_(recording.channels, recording.children, recording.events), loop_(ev_default_loop(0))
{
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
                      {}}); // the end of a connection is noticed by its node
}

void Session::onTick(struct ev_loop *, ev_timer *timer, int)
{
    auto *self = static_cast<Session *>(timer->data);
    self->takeIn();
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
    if (self->recording_.file.waitingBytes() > kWaitingBytes)
        self->takeIn();
    self->sources_.look(self->stopping_ ? SourceWatch::kStopping : SourceWatch::kRunning);
    if (self->sources_.allEnded() && !(self->stopping_ && self->recording_.children.anyRunning()))
        ev_break(loop, EVBREAK_ALL);
}

void Session::onDeadline(struct ev_loop *loop, ev_timer *timer, int)
{
    static_cast<Session *>(timer->data)->deadline_over_ = true;
    ev_break(loop, EVBREAK_ALL);
}

void Session::takeIn()
{
    recording_.watch.run(recording_.events);
    recording_.file.flush(false, recording_.events);
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
    while (recording_.watch.run(recording_.events))
        recording_.file.flush(false, recording_.events);
    return KRDWriter_is_disk_full() ? "disk_full" : end;
}

} // namespace vu
