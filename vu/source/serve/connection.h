// The one reader that a source serves: bytes wait in a queue and go out as the reader takes them; its "Stop"
// ends the source. Nothing that was queued is ever left out while the reader is there.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "vu/source/serve/stop_signals.h"
#include "vu/support/descriptor.h"

namespace vu {

class Connection {
public:
    enum class State {
        Open,
        Stopped, // the reader said "Stop"
        Left,    // the reader went away without a word
    };

    // `socket`: non-blocking.
    Connection(Descriptor socket, const StopSignals &signals);

    State state() const { return state_; }
    size_t queued() const { return queue_.size() - sent_; } // bytes
    uint64_t taken() const { return taken_; }               // bytes that the socket took so far

    void queue(std::span<const uint8_t> bytes) { queue_.insert(queue_.end(), bytes.begin(), bytes.end()); }
    // Sends what the reader takes now; never waits.
    void send();
    // Waits for one event of the reader or of `others`, or for the instant, and sends what is then taken.
    void wait(std::optional<Instant> until, std::span<pollfd> others = {});
    // Sends the rest, shows the reader that it was all, and waits until the reader is done with it. A signal
    // shortens this to a second.
    void finish();

    // Sends at most `bytes` at a time, with a pause after each piece.
    void setPieces(size_t bytes) { piece_ = bytes; }
    // Sends nothing before the instant.
    void stallUntil(Instant until) { stall_ = until; }

private:
    void receive();
    bool stalled() const { return std::chrono::steady_clock::now() < stall_; }

    Descriptor socket_;
    const StopSignals &signals_;
    State state_ = State::Open;
    bool reset_ = false; // the reader left bytes unread
    std::vector<uint8_t> queue_;
    size_t sent_ = 0; // bytes at the front of `queue_` that are gone
    uint64_t taken_ = 0;
    size_t piece_ = std::numeric_limits<size_t>::max();
    Instant stall_{};
    std::string heard_;
    std::vector<pollfd> events_;
};

} // namespace vu
