#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/sim/ntp_time.h"
#include "vu/source/sim/sim.h"

namespace vu {

namespace {

// What the producers of this file share: message n, the next to come, in the steps of time.
class MessageProducer : public SteppedProducer {
public:
    MessageProducer(const SimOptions &sim, const ServeOptions &serving)
        : SteppedProducer(serving.duration), times_(sim.rate, sim.jitter, serving.seed),
          waveform_(sim.waveform)
    {
    }

protected:
    bool before(int64_t end) const { return times_.nominal(next_) < end; }
    int64_t ticks() const { return times_.at(next_); }
    double value() const { return waveform_.at(next_, times_.rate()); }
    uint64_t next_ = 0;

private:
    MessageTimes times_;
    Waveform waveform_;
};

template <class T>
class FloatProducer : public MessageProducer {
public:
    using MessageProducer::MessageProducer;

private:
    void step(WireWriter &wire, int64_t, int64_t end) override
    {
        if (!before(end))
            return;
        wire.beginRecord();
        for (; before(end); ++next_) {
            wire.big(ticks());
            wire.sample(static_cast<T>(value()));
            account_.made();
        }
        wire.endRecord();
    }
};

template <class T>
class NtpProducer : public MessageProducer {
public:
    NtpProducer(const SimOptions &sim, const ServeOptions &serving)
        : MessageProducer(sim, serving), start_(sim.startTicks)
    {
    }

private:
    void step(WireWriter &wire, int64_t begin, int64_t end) override
    {
        if (!before(end))
            return;
        wire.beginRecord();
        wire.big(begin); // not read by a recorder
        for (; before(end); ++next_) {
            const NtpTime time = ntpTime(start_ + ticks());
            wire.big(time.seconds);
            wire.big(time.fraction);
            wire.big(static_cast<T>(value())); // big-endian whatever the marker says
            account_.made();
        }
        wire.endRecord();
    }

    int64_t start_;
};

class RawProducer : public MessageProducer {
public:
    RawProducer(const SimOptions &sim, const ServeOptions &serving)
        : MessageProducer(sim, serving), content_(sim.size, '\0')
    {
    }

private:
    void step(WireWriter &wire, int64_t, int64_t end) override
    {
        for (; before(end); ++next_) {
            for (size_t i = 0; i < content_.size(); ++i)
                content_[i] = static_cast<char>(next_ + i);
            wire.timed(ticks(), content_);
            account_.made();
        }
    }

    std::string content_;
};

} // namespace

std::unique_ptr<Producer> simulateFloats(const SimOptions &sim, const ServeOptions &serving)
{
    const std::string &type = serving.dataType;
    if (type == "message_float32")
        return std::make_unique<FloatProducer<float>>(sim, serving);
    if (type == "message_float64")
        return std::make_unique<FloatProducer<double>>(sim, serving);
    if (type == "message_float32_ntp")
        return std::make_unique<NtpProducer<float>>(sim, serving);
    if (type == "message_float64_ntp")
        return std::make_unique<NtpProducer<double>>(sim, serving);
    throw InputError(fmt::format("--data-type: '{}' can not be simulated", type));
}

std::unique_ptr<Producer> simulateRaw(const SimOptions &sim, const ServeOptions &serving)
{
    if (sim.size > 16 * 1024 * 1024)
        throw InputError(fmt::format("--size: expected at most 16 MiB, got {} bytes", sim.size));
    return std::make_unique<RawProducer>(sim, serving);
}

} // namespace vu
