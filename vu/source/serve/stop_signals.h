// SIGTERM and SIGINT as a wish to end: blocked but for the moments in which a source waits, so that none is
// missed between a look at the wish and the wait.
#pragma once

#include <chrono>
#include <csignal>
#include <optional>
#include <poll.h>
#include <span>

namespace vu {

using Instant = std::chrono::steady_clock::time_point;

class StopSignals {
public:
    StopSignals(); // installs the handlers; the old ones come back with the destructor
    ~StopSignals();
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    bool asked() const;
    // Waits for an event, the instant or a signal. Throws std::runtime_error if the system refuses to wait.
    void wait(std::span<pollfd> events, std::optional<Instant> until) const;

private:
    sigset_t outside_{};
    struct sigaction oldTerm_ {};
    struct sigaction oldInt_ {};
};

} // namespace vu
