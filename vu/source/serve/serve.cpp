#include "vu/source/serve/serve.h"

#include <charconv>
#include <cmath>
#include <deque>
#include <exception>
#include <fmt/core.h>
#include <functional>
#include <optional>

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
        constexpr double kYear = 3e7; // longer waits than this count as this one
        return start_ + std::chrono::duration_cast<Instant::duration>(
                            std::chrono::duration<double>(std::min(seconds, kYear)));
    }

private:
    double speed_;
    Instant start_;
};

class Service {
public:
    Service(const ServeOptions &options, Connection &connection, const InputAccount &account,
            AccountReport &report)
        : options_(options), connection_(connection), account_(account), report_(report),
          pacer_(options.speed), wire_(options.endian), faults_(options.faults, options.seed)
    {
        if (options.faults.splitBytes != 0)
            connection_.setPieces(options.faults.splitBytes);
        wire_.marker();
        connection_.queue(wire_.bytes());
        connection_.send(); // whatever the reader says first, it finds a channel
        queued_ = wire_.bytes().size();
        wire_.clear();
        endTicks_ = options.duration > 0.0
                        ? static_cast<int64_t>(std::min(options.duration * kTicksPerSecond, kFarTicks))
                        : INT64_MAX;
    }

    void replay(Producer &producer, const StopSignals &signals);
    void relay(LiveProducer &producer, const StopSignals &signals);
    int finish();
    const FaultyRecords &faults() const { return faults_; }
    // How much of what the account calls written the reader's socket has taken.
    uint64_t sent();

private:
    // The account when so many bytes had been queued.
    struct Mark {
        uint64_t bytes;
        uint64_t wrote;
    };

    bool open() const { return connection_.state() == Connection::State::Open && !closed_; }
    void emit(int64_t dueTicks);

    const ServeOptions &options_;
    Connection &connection_;
    const InputAccount &account_;
    AccountReport &report_;
    Pacer pacer_;
    WireWriter wire_;
    FaultyRecords faults_;
    std::vector<uint8_t> passed_;
    std::deque<Mark> marks_; // that the socket has not yet reached
    uint64_t queued_ = 0;    // bytes in all
    uint64_t sent_ = 0;
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
    queued_ += passed_.size();
    marks_.push_back({queued_, account_.wroteSoFar()});
    if (options_.speed != 0.0 || connection_.queued() >= kSendChunk)
        connection_.send();
    report_.look(account_, sent());
}

uint64_t Service::sent()
{
    for (; !marks_.empty() && marks_.front().bytes <= connection_.taken(); marks_.pop_front())
        sent_ = marks_.front().wrote;
    return sent_;
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

// The number in "fd:N"; empty: it is an address.
std::optional<int> inheritedSocket(const std::string &listen)
{
    if (!listen.starts_with("fd:"))
        return std::nullopt;
    int number = -1;
    const char *begin = listen.data() + 3, *end = listen.data() + listen.size();
    if (const auto [stop, error] = std::from_chars(begin, end, number);
        error != std::errc{} || stop != end || number < 0)
        throw InputError(fmt::format("{}: expected fd:N, a descriptor", listen));
    return number;
}

// Waits for the one reader, on the socket or the address that the options name.
Descriptor acceptReader(const ServeOptions &options, const StopSignals &signals,
                        const std::function<void()> &listening)
{
    if (const auto inherited = inheritedSocket(options.listen)) {
        Listener listener(*inherited);
        listening();
        return listener.accept(signals);
    }
    Listener listener(parseAddress(options.listen));
    listening();
    if (const Address &address = listener.address(); address.text() != options.listen) {
        fmt::print("{}\n", address.text());
        std::fflush(stdout);
    }
    return listener.accept(signals);
}

// The text of an error that ended a source goes into the account: the recorder knows nothing else of it.
void noteFailure(InputAccount &account, const std::exception_ptr &failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception &error) {
        account.note(error.what());
    }
}

template <class P, class Run>
int serveWith(const ServeOptions &options, P &producer, Run run)
{
    if (options.tryOnly) {
        if (!inheritedSocket(options.listen))
            parseAddress(options.listen);
        return kDone;
    }
    const StopSignals signals;
    AccountReport report(options.account);
    Descriptor reader = acceptReader(options, signals, [&] { report.write(producer.account(), 0, false); });
    if (!reader)
        return kDone;
    Connection connection(std::move(reader), signals);
    Service service(options, connection, producer.account(), report);
    std::exception_ptr failure;
    try {
        run(service, signals);
    } catch (...) {
        failure = std::current_exception();
    }
    const int status = service.finish();
    for (const auto &lines : {producer.account().lines(), service.faults().notes()})
        for (const std::string &line : lines)
            fmt::print(stderr, "vu source: {}\n", line);
    InputAccount final = producer.account();
    if (failure)
        noteFailure(final, failure);
    report.write(final, service.sent(), true);
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
