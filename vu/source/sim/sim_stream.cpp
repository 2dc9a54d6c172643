#include <algorithm>
#include <bit>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "libvu/proxy/channel_kind.h"
#include "vu/command.h"
#include "vu/source/sim/ntp_time.h"
#include "vu/source/sim/sim.h"

namespace vu {

namespace {

using Json = nlohmann::json;

constexpr uint32_t kFirstNumber = 16;         // a recorder has no handler below
constexpr uint32_t kNumberLimit = 1u << 20;   // what a header can name
constexpr uint32_t kNoValueBits = 0x58E35FA9; // a sample that carries only its time
constexpr size_t kShortLimit = 255;
constexpr double kLongestGather = 60.0; // seconds
constexpr double kMostGathered = 1e6;   // samples

enum class Type : uint32_t { Data = 0, Metainfo = 2 };

// A module that sends many signals over one connection, and says what it sends.
class StreamProducer : public SteppedProducer {
public:
    StreamProducer(const SimOptions &sim, const ServeOptions &serving);

private:
    void step(WireWriter &wire, int64_t begin, int64_t end) override;
    void close(WireWriter &wire) override;
    void introduce(WireWriter &wire);
    void sendGathered(WireWriter &wire);
    void data(WireWriter &wire, size_t signal, uint64_t first, uint64_t last);
    void sample(uint64_t n, size_t signal);
    void metainfo(WireWriter &wire, uint32_t number, const char *method, const Json &params);
    void record(WireWriter &wire, Type type, uint32_t number);

    const SimOptions sim_;
    MessageTimes times_;
    Endian order_;
    std::vector<uint32_t> numbers_;
    WireWriter payload_;   // of the record in hand
    const int64_t gather_; // ticks
    int64_t reached_ = 0;  // what lies before has happened
    int64_t sent_ = 0;     // what lies before has gone out
    uint64_t next_ = 0;
    int64_t second_ = 0; // the next one in which "alive" is sent
};

int64_t gatherTicks(const SimOptions &sim)
{
    if (!(sim.gather >= 0.0 && sim.gather <= kLongestGather && sim.gather * sim.rate <= kMostGathered))
        throw InputError(
            fmt::format("--gather: expected 0 to {} seconds, {:.0f} samples at most, got {} at {} a second",
                        kLongestGather, kMostGathered, sim.gather, sim.rate));
    return static_cast<int64_t>(sim.gather * kTicksPerSecond);
}

StreamProducer::StreamProducer(const SimOptions &sim, const ServeOptions &serving)
    : SteppedProducer(serving.duration), sim_(sim), times_(sim.rate, 0.0, serving.seed),
      order_(proxyNodeIsLittleStream(serving.connector.c_str()) ? Endian::Little : Endian::Big),
      numbers_(sim.numbers), gather_(gatherTicks(sim))
{
    if (sim.fill.empty() || sim.names.empty())
        throw InputError("--names, --fill: expected one at least");
    if (numbers_.empty())
        for (size_t i = 0; i < sim.names.size(); ++i)
            numbers_.push_back(kFirstNumber + static_cast<uint32_t>(i));
    if (numbers_.size() != sim.names.size())
        throw InputError(fmt::format("--numbers: expected one for each of the {} names, got {}",
                                     sim.names.size(), numbers_.size()));
    if (*std::max_element(numbers_.begin(), numbers_.end()) >= kNumberLimit)
        throw InputError(fmt::format("--numbers: expected numbers below {}", kNumberLimit));
}

void StreamProducer::record(WireWriter &wire, Type type, uint32_t number)
{
    const size_t size = payload_.bytes().size();
    const uint32_t shortSize = size <= kShortLimit ? static_cast<uint32_t>(size) : 0;
    wire.big((static_cast<uint32_t>(type) << 28) | (shortSize << 20) | number);
    if (shortSize == 0)
        wire.big(static_cast<uint32_t>(size));
    wire.raw(payload_.bytes());
    wire.endUnframed();
    payload_.clear();
}

void StreamProducer::metainfo(WireWriter &wire, uint32_t number, const char *method, const Json &params)
{
    payload_.big(uint32_t{1}); // the form of what follows; not read by a recorder
    payload_.text(Json{{"method", method}, {"params", params}}.dump());
    record(wire, Type::Metainfo, number);
}

void StreamProducer::introduce(WireWriter &wire)
{
    metainfo(wire, 0, "connect", Json::array());
    metainfo(wire, 0, "firmwareNotice", {{"text", "a method that a recorder need not know"}});
    const Json layout = {{"pattern", "TV"},
                         {"endian", order_ == Endian::Big ? "big" : "little"},
                         {"valueType", "real32"},
                         {"time", {{"type", "ntp"}}}};
    for (size_t i = 0; i < numbers_.size(); ++i) {
        metainfo(wire, numbers_[i], "subscribe", Json::array({sim_.names[i]}));
        metainfo(wire, numbers_[i], "signalRate", {{"samples", sim_.rate}});
        metainfo(wire, numbers_[i], "data", layout);
    }
}

void StreamProducer::sample(uint64_t n, size_t signal)
{
    const NtpTime time = ntpTime(sim_.startTicks + times_.nominal(n));
    payload_.value(order_ == Endian::Big ? time.seconds : time.fraction, order_);
    payload_.value(order_ == Endian::Big ? time.fraction : time.seconds, order_);
    const bool empty = sim_.noValueEvery != 0 && (n + 1) % sim_.noValueEvery == 0;
    const auto value = static_cast<float>(sim_.waveform.at(n, sim_.rate) + static_cast<double>(signal));
    payload_.value(empty ? kNoValueBits : std::bit_cast<uint32_t>(value), order_);
}

void StreamProducer::data(WireWriter &wire, size_t signal, uint64_t first, uint64_t last)
{
    if (first == last)
        return;
    for (uint64_t n = first; n < last; ++n)
        sample(n, signal);
    record(wire, Type::Data, numbers_[signal]);
    account_.made(last - first);
}

void StreamProducer::step(WireWriter &wire, int64_t begin, int64_t end)
{
    if (begin == 0)
        introduce(wire);
    if (begin >= second_ * kTicksPerSecond) {
        metainfo(wire, 0, "alive", Json::array());
        metainfo(wire, 0, "fill", Json::array({sim_.fill[static_cast<size_t>(second_) % sim_.fill.size()]}));
        ++second_;
    }
    reached_ = end;
    if (reached_ - sent_ >= gather_)
        sendGathered(wire);
}

void StreamProducer::sendGathered(WireWriter &wire)
{
    uint64_t last = next_;
    while (times_.nominal(last) < reached_)
        ++last;
    for (size_t signal = 0; signal < numbers_.size(); ++signal)
        data(wire, signal, next_, last);
    next_ = last;
    sent_ = reached_;
}

void StreamProducer::close(WireWriter &wire)
{
    sendGathered(wire);
    for (size_t i = 0; i < numbers_.size(); ++i)
        metainfo(wire, numbers_[i], "unsubscribe", Json::array({sim_.names[i]}));
    metainfo(wire, 0, "disconnect", Json::array());
}

} // namespace

std::unique_ptr<Producer> simulateStream(const SimOptions &sim, const ServeOptions &serving)
{
    return std::make_unique<StreamProducer>(sim, serving);
}

} // namespace vu
