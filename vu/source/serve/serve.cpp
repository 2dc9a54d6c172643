#include "vu/source/serve/serve.h"

#include <cmath>
#include <exception>
#include <fmt/core.h>

#include "vu/command.h"
#include "vu/source/serve/connection.h"
#include "vu/source/serve/listener.h"

namespace vu {

namespace {

// More than this is not made ahead of a slow reader; the source then falls behind, it does not drop.
constexpr size_t kQueueLimit = 256 * 1024;
constexpr size_t kSendChunk = 64 * 1024; // what unpaced data gathers to before it is sent
constexpr double kFarTicks = 9e18;

// When a time of the source comes, on this machine's clock.
class Pacer {
public:
    explicit Pacer(double speed) : speed_(speed), start_(std::chrono::steady_clock::now()) {}

    Instant instantOf(int64_t ticks) const
    {
        if (speed_ == 0.0)
            return start_;
        const double seconds = static_cast<double>(ticks) / (speed_ * kTicksPerSecond);
        constexpr double kYear = 3e7; // longer waits than this are no longer told apart
        return start_ + std::chrono::duration_cast<Instant::duration>(
                            std::chrono::duration<double>(std::min(seconds, kYear)));
    }

private:
    double speed_;
    Instant start_;
};

class Service {
public:
    Service(const ServeOptions &options, Connection &connection)
        : options_(options), connection_(connection), pacer_(options.speed), wire_(options.endian),
          faults_(options.faults, options.seed)
    {
        if (options.faults.splitBytes != 0)
            connection_.setPieces(options.faults.splitBytes);
        wire_.marker();
        connection_.queue(wire_.bytes());
        wire_.clear();
        endTicks_ = options.duration > 0.0
                        ? static_cast<int64_t>(std::min(options.duration * kTicksPerSecond, kFarTicks))
                        : INT64_MAX;
    }

    void replay(Producer &producer, const StopSignals &signals);
    void relay(LiveProducer &producer, const StopSignals &signals);
    int finish();
    const FaultyRecords &faults() const { return faults_; }

private:
    bool open() const { return connection_.state() == Connection::State::Open && !closed_; }
    void emit(int64_t dueTicks);

    const ServeOptions &options_;
    Connection &connection_;
    Pacer pacer_;
    WireWriter wire_;
    FaultyRecords faults_;
    std::vector<uint8_t> passed_;
    int64_t endTicks_;
    bool stallPending_ = true;
    bool closed_ = false; // by a fault
};

void Service::emit(int64_t dueTicks)
{
    const FaultSpec &spec = options_.faults;
    if (stallPending_ && spec.stallSeconds > 0.0 &&
        static_cast<double>(dueTicks) >= spec.stallAtSeconds * kTicksPerSecond) {
        stallPending_ = false;
        connection_.stallUntil(std::chrono::steady_clock::now() +
                               std::chrono::duration_cast<Instant::duration>(
                                   std::chrono::duration<double>(std::min(spec.stallSeconds, 1e6))));
    }
    passed_.clear();
    closed_ = !faults_.pass(wire_, passed_);
    connection_.queue(passed_);
    wire_.clear();
    if (options_.speed != 0.0 || connection_.queued() >= kSendChunk)
        connection_.send();
}

void Service::replay(Producer &producer, const StopSignals &signals)
{
    bool more = true;
    while (more && open() && !signals.asked()) {
        int64_t due = 0;
        more = producer.next(wire_, due);
        if (due > endTicks_)
            return;
        const Instant instant = pacer_.instantOf(due);
        while (open() && !signals.asked() &&
               (std::chrono::steady_clock::now() < instant || connection_.queued() > kQueueLimit))
            connection_.wait(connection_.queued() > kQueueLimit ? std::nullopt : std::optional(instant));
        emit(due);
    }
}

void Service::relay(LiveProducer &producer, const StopSignals &signals)
{
    producer.start();
    const Pacer clock(1.0); // live data comes at its own speed
    bool more = true;
    while (more && open() && !signals.asked()) {
        int64_t wake = 0;
        more = producer.take(wire_, wake);
        emit(wake);
        if (more && wake >= endTicks_ && std::chrono::steady_clock::now() >= clock.instantOf(endTicks_))
            return;
        pollfd event{producer.descriptor(), POLLIN, 0};
        if (more && open())
            connection_.wait(clock.instantOf(std::min(wake, endTicks_)), {&event, 1});
    }
}

int Service::finish()
{
    if (closed_) {
        while (connection_.state() == Connection::State::Open && connection_.queued() > 0)
            connection_.wait(std::nullopt);
        fmt::print(stderr, "vu source: closed by --faults after {} records\n", faults_.records() - 1);
        return kFailed;
    }
    connection_.finish();
    const Connection::State state = connection_.state();
    if (state == Connection::State::Stopped ||
        (state == Connection::State::Open && connection_.queued() == 0))
        return kDone;
    fmt::print(stderr, "vu source: the reader left before the data ended, after {} bytes\n",
               connection_.taken());
    return kFailed;
}

template <class P, class Run>
int serveWith(const ServeOptions &options, P &producer, Run run)
{
    const Address wanted = parseAddress(options.listen);
    if (options.tryOnly)
        return kDone;
    const StopSignals signals;
    Listener listener(wanted);
    if (const Address &address = listener.address(); address.text() != options.listen) {
        fmt::print("{}\n", address.text());
        std::fflush(stdout);
    }
    Descriptor reader = listener.accept(signals);
    if (!reader)
        return kDone;
    Connection connection(std::move(reader), signals);
    Service service(options, connection);
    std::exception_ptr failure;
    try {
        run(service, signals);
    } catch (...) {
        failure = std::current_exception();
    }
    const int status = service.finish();
    for (const auto &lines : {producer.notes(), service.faults().notes()})
        for (const std::string &line : lines)
            fmt::print(stderr, "vu source: {}\n", line);
    if (failure)
        std::rethrow_exception(failure);
    return status;
}

} // namespace

int serve(const ServeOptions &options, Producer &producer)
{
    return serveWith(options, producer, [&](Service &service, const StopSignals &signals) {
        service.replay(producer, signals);
    });
}

int serve(const ServeOptions &options, LiveProducer &producer)
{
    return serveWith(options, producer,
                     [&](Service &service, const StopSignals &signals) { service.relay(producer, signals); });
}

} // namespace vu
