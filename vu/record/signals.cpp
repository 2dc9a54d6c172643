#include "vu/record/signals.h"

#include <algorithm>
#include <csignal>
#include <initializer_list>

#include "vu/support/say.h"

namespace vu {

namespace {

// A recorder without its loop cannot end properly: these are left to end it at once.
constexpr int kFaults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS, SIGTRAP, SIGKILL};
// What does not end a process, or is used otherwise.
constexpr int kOthers[] = {SIGCHLD, SIGCONT,  SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU,
                           SIGURG,  SIGWINCH, SIGPIPE, SIGXFSZ, SIGUSR1, SIGUSR2};

bool isIn(int number, std::initializer_list<std::pair<const int *, const int *>> lists)
{
    return std::any_of(lists.begin(), lists.end(), [number](const auto &list) {
        return std::find(list.first, list.second, number) != list.second;
    });
}

bool asksForTheEnd(int number)
{
    const bool system = number > SIGSYS && number < SIGRTMIN; // the C library's own
    return !system && !isIn(number, {{std::begin(kFaults), std::end(kFaults)},
                                     {std::begin(kOthers), std::end(kOthers)}});
}

} // namespace

EndSignals::EndSignals()
{
    for (int number = 1; number <= SIGRTMAX; number++) {
        if (!asksForTheEnd(number))
            continue;
        ev_signal &watcher = watchers_.emplace_back();
        ev_signal_init(&watcher, onSignal, number);
        watcher.data = this;
        ev_signal_start(ev_default_loop(0), &watcher);
    }
}

EndSignals::~EndSignals()
{
    for (ev_signal &watcher : watchers_)
        ev_signal_stop(ev_default_loop(0), &watcher);
}

void EndSignals::onSignal(struct ev_loop *loop, ev_signal *watcher, int)
{
    static_cast<EndSignals *>(watcher->data)->arrived_ = true;
    ev_break(loop, EVBREAK_ALL);
}

AskingSignals::AskingSignals()
{
    ev_signal_init(
        &status_,
        [](struct ev_loop *, ev_signal *watcher, int) {
            if (auto *self = static_cast<AskingSignals *>(watcher->data); self->show_)
                self->show_();
            else
                say("status: waiting for the sources\n");
        },
        SIGUSR1);
    ev_signal_init(
        &file_,
        [](struct ev_loop *, ev_signal *, int) {
            say("SIGUSR2: a new file cannot be begun while a test runs; the recording goes on\n");
        },
        SIGUSR2);
    status_.data = file_.data = this;
    ev_signal_start(ev_default_loop(0), &status_);
    ev_signal_start(ev_default_loop(0), &file_);
}

AskingSignals::~AskingSignals()
{
    ev_signal_stop(ev_default_loop(0), &status_);
    ev_signal_stop(ev_default_loop(0), &file_);
}

} // namespace vu
