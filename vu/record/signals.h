// What signals ask of a recorder: a proper end, its status, a new file. None that can be caught kills it
// without its closing block, but for those that a fault of its own raises.
#pragma once

#include <ev.h>
#include <functional>
#include <list>

namespace vu {

// SIGINT, SIGTERM and SIGHUP, whoever sends them, ask for a proper end, and so does every other signal that
// would end the process and is no sign of a fault in it: SIGQUIT, SIGPWR, SIGXCPU, a timer of somebody else.
class EndSignals {
public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals &) = delete;
    EndSignals &operator=(const EndSignals &) = delete;
    bool arrived() const { return arrived_; }

private:
    static void onSignal(struct ev_loop *loop, ev_signal *watcher, int events);

    std::list<ev_signal> watchers_; // the loop keeps their addresses
    bool arrived_ = false;
};

// SIGUSR1 shows the status on standard error; SIGUSR2 says that a new file cannot be begun yet.
class AskingSignals {
public:
    // Until setStatus() is called there is no recording to tell of.
    AskingSignals();
    ~AskingSignals();
    AskingSignals(const AskingSignals &) = delete;
    AskingSignals &operator=(const AskingSignals &) = delete;
    void setStatus(std::function<void()> show) { show_ = std::move(show); }

private:
    ev_signal status_;
    ev_signal file_;
    std::function<void()> show_;
};

} // namespace vu
