#include "vu/source/serve/connection.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/socket.h>

namespace vu {

namespace {

constexpr std::chrono::microseconds kPieceSpacing{100};
constexpr std::chrono::seconds kPatience{1};

} // namespace

Connection::Connection(Descriptor socket, const StopSignals &signals)
    : socket_(std::move(socket)), signals_(signals)
{
}

void Connection::send()
{
    while (state_ == State::Open && queued() > 0 && !stalled()) {
        const ssize_t count =
            ::send(socket_.get(), queue_.data() + sent_, std::min(queued(), piece_), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            if (errno != EAGAIN)
                receive(); // a "Stop" that came before the reader left still counts
            if (errno != EAGAIN && state_ == State::Open)
                state_ = State::Left;
            return;
        }
        sent_ += static_cast<size_t>(count);
        taken_ += static_cast<uint64_t>(count);
        if (sent_ > queue_.size() / 2) {
            queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(sent_));
            sent_ = 0;
        }
        if (piece_ != std::numeric_limits<size_t>::max())
            stall_ = std::chrono::steady_clock::now() + kPieceSpacing;
    }
}

void Connection::receive()
{
    char bytes[64];
    const ssize_t count = recv(socket_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        state_ = State::Left;
        reset_ = count < 0;
    }
    if (count <= 0)
        return;
    heard_.append(bytes, static_cast<size_t>(count));
    if (heard_.find("Stop") != std::string::npos)
        state_ = State::Stopped;
    // The word may come in two pieces; more than its beginning need not be kept.
    if (heard_.size() > 3)
        heard_.erase(0, heard_.size() - 3);
}

void Connection::wait(std::optional<Instant> until, std::span<pollfd> others)
{
    const bool pause = stalled();
    if (pause && queued() > 0 && (!until || stall_ < *until))
        until = stall_;
    events_.assign(others.begin(), others.end());
    const bool writing = queued() > 0 && !pause;
    events_.push_back({socket_.get(), static_cast<short>(writing ? POLLIN | POLLOUT : POLLIN), 0});
    signals_.wait(events_, until);
    std::copy(events_.begin(), events_.end() - 1, others.begin());
    if ((events_.back().revents & ~POLLOUT) != 0)
        receive();
    send();
}

void Connection::finish()
{
    std::optional<Instant> limit;
    bool told = false;
    while (state_ == State::Open) {
        const Instant now = std::chrono::steady_clock::now();
        if (signals_.asked() && !limit)
            limit = now + kPatience;
        if (limit && now >= *limit)
            return;
        send();
        if (queued() == 0 && !told) {
            shutdown(socket_.get(), SHUT_WR);
            told = true;
        }
        if (state_ == State::Open)
            wait(limit);
    }
    // A reader that closes with bytes unread resets the connection; one that read to the end does not.
    if (told && state_ == State::Left && !reset_)
        state_ = State::Stopped;
}

} // namespace vu
