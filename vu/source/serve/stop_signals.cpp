#include "vu/source/serve/stop_signals.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace vu {

namespace {

volatile std::sig_atomic_t stopAsked = 0;

void remember(int)
{
    stopAsked = 1;
}

} // namespace

StopSignals::StopSignals()
{
    stopAsked = 0;
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGTERM);
    sigaddset(&both, SIGINT);
    pthread_sigmask(SIG_BLOCK, &both, &outside_);
    struct sigaction action {};
    action.sa_handler = remember;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, &oldTerm_);
    sigaction(SIGINT, &action, &oldInt_);
}

StopSignals::~StopSignals()
{
    pthread_sigmask(SIG_SETMASK, &outside_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
    sigaction(SIGINT, &oldInt_, nullptr);
}

bool StopSignals::asked() const
{
    // A busy source never waits, so a signal may be pending all the while.
    sigset_t pending;
    sigpending(&pending);
    return stopAsked != 0 || sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
}

void StopSignals::wait(std::span<pollfd> events, std::optional<Instant> until) const
{
    timespec limit{};
    if (until) {
        using namespace std::chrono;
        const auto left = std::max(nanoseconds{0}, duration_cast<nanoseconds>(*until - steady_clock::now()));
        limit.tv_sec = duration_cast<seconds>(left).count();
        limit.tv_nsec = (left % seconds{1}).count();
    }
    if (ppoll(events.data(), events.size(), until ? &limit : nullptr, &outside_) >= 0)
        return;
    for (pollfd &event : events)
        event.revents = 0;
    if (errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "waiting for the reader");
}

} // namespace vu
