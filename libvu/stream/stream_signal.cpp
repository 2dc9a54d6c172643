#include "libvu/stream/stream_signal.h"

#include <bit>
#include <cmath>

#include "libvu/bus/can_signal_private.h"
#include "libvu/bus/time_only_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/isa_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/ntp_private.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sequentializer_private.h"

namespace {

constexpr uint32_t kSample = 12;          // bytes
constexpr double kLongestPeriod = 0x1p50; // ticks that whole numbers and doubles step alike
constexpr uint32_t kValueOffset = 8;      // bytes into a sample

// The words of a sample as the peer wrote them.
struct WireSample {
    uint32_t seconds, fraction, value;
};

struct BigEndian {
    static WireSample load(const uint8_t *sample)
    {
        return {vu::loadBig<uint32_t>(sample), vu::loadBig<uint32_t>(sample + 4),
                vu::loadBig<uint32_t>(sample + kValueOffset)};
    }
};

// Not only the bytes are turned round: the fraction comes first.
struct LittleEndian {
    static WireSample load(const uint8_t *sample)
    {
        return {vu::loadHost<uint32_t>(sample + 4), vu::loadHost<uint32_t>(sample),
                vu::loadHost<uint32_t>(sample + kValueOffset)};
    }
};

// A signal's stream for a run of samples: its clock and place in the frame stay in registers while a sample
// brings about one step at most. Whatever else there is to do goes through the record.
class Run {
public:
    explicit Run(Sequentializer &seq) : seq_(seq), clock_(*seq.clock) { load(); }
    ~Run() { store(); }
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    void advance(double ticks)
    {
        if (!(std::fabs(ticks) < static_cast<double>(vu::kWholeNumbers))) {
            outside([&] { vu::advance(seq_, vu::Moment(vu::saturated<int64_t>(ticks))); });
            return;
        }
        const int64_t target = static_cast<int64_t>(ticks) - half_;
        if (clock_.current_tick < target) {
            if (target <= next_ && steps_ < room_)
                step();
            else
                outside([&] { vu::advanceTo(seq_, target); });
        }
        seq_.last_target = target;
    }
    void hold(double value)
    {
        seq_.value = value;
        seq_.expiry_tick = vu::addSaturated(next_, stale_);
    }
    template <typename Work>
    void outside(Work work)
    {
        store();
        work();
        load();
    }

private:
    // The sample that makes a frame full is left to the stream, and so are periods that are not stepped in
    // whole numbers.
    void load()
    {
        next_ = clock_.next_tick;
        accumulator_ = clock_.remainder_accumulator;
        room_ = steps_ = 0;
        const Frame *frame = seq_.current_frame;
        if (!frame || clock_.whole_ticks > kLongestPeriod)
            return;
        out_ = static_cast<uint8_t *>(frame->data) + size_t{frame->length} * size_;
        room_ = frame->capacity - frame->length - 1;
    }
    void store()
    {
        clock_.remainder_accumulator = accumulator_;
        if (steps_ == 0)
            return;
        seq_.current_frame->length += steps_;
        seq_.sample_count += steps_;
    }
    void step()
    {
        const int64_t current = next_;
        next_ += period_;
        accumulator_ += clock_.remainder_per_sample;
        if (accumulator_ > clock_.half_numerator) {
            next_ += 1;
            accumulator_ -= clock_.rate_numerator;
        }
        clock_.current_tick = current;
        clock_.next_tick = next_;
        if (seq_.expiry_tick < current)
            seq_.value = seq_.invalid_value;
        if (isDouble_)
            vu::storeHost(out_, seq_.value);
        else
            vu::storeHost(out_, static_cast<float>(seq_.value));
        out_ += size_;
        steps_++;
    }

    Sequentializer &seq_;
    SampleClock &clock_;
    const int64_t half_ = seq_.half_period_ticks, stale_ = seq_.stale_ticks;
    const int64_t period_ = vu::saturated<int64_t>(clock_.whole_ticks);
    const bool isDouble_ = seq_.element_size == sizeof(double);
    const uint32_t size_ = seq_.element_size;
    int64_t next_;
    double accumulator_;
    uint8_t *out_ = nullptr;
    uint32_t room_, steps_;
};

struct NoScaling {
    NoScaling(float, float) {}
    static bool isZeroPending(const CanSignalNode *) { return false; }
    static void zero(CanSignalNode *, float) {}
    float operator()(const CanSignalNode *, float value) const { return value; }
};

// A pending zero takes the value as it came, unscaled: only a scale of 1 and an offset of 0 then read 0.0.
struct ScaleOffset {
    float scale, offset;

    static bool isZeroPending(const CanSignalNode *signal)
    {
        return signal->rezero_pending && libvuRezeroCallback;
    }
    static void zero(CanSignalNode *signal, float value)
    {
        signal->rezero_offset = double{value};
        libvuRezeroCallback(signal->name, signal->rezero_offset);
        signal->rezero_pending = 0;
    }
    float operator()(const CanSignalNode *signal, float value) const
    {
        return std::fma(value, scale, static_cast<float>(double{offset} - signal->rezero_offset));
    }
};

template <typename Order, typename Scaling>
VU_INLINE_KERNEL void takeSamples(CanSignalNode *signal, uint8_t *sample, uint32_t count,
                                  const Scaling &scaled)
{
    Run run(*signal->sequentializer);
    for (; count > 0; count--, sample += kSample) {
        const WireSample wire = Order::load(sample);
        vu::storeHost(sample, wire.seconds);
        vu::storeHost(sample + 4, wire.fraction);
        // Since the start of the test; the stream takes whole ticks, toward zero.
        const double ticks =
            vu::ntpTicks(wire.seconds, wire.fraction) - static_cast<double>(signal->proxy->start_time);
        const bool isValue = wire.value != vu::kNoValueBits;
        const auto value = std::bit_cast<float>(wire.value);
        if (Scaling::isZeroPending(signal) && !isValue) {
            run.outside([&] { vu::advanceSilent(*signal, vu::Moment(vu::saturated<int64_t>(ticks))); });
            continue;
        }
        if (Scaling::isZeroPending(signal))
            run.outside([&] { Scaling::zero(signal, value); });
        run.advance(ticks);
        if (isValue)
            run.hold(scaled(signal, value));
    }
}

template <typename Order, typename Scaling>
void takePlain(CanSignalNode *signal, uint8_t *sample, uint32_t count, const Scaling &scaled)
{
    takeSamples<Order>(signal, sample, count, scaled);
}

template <typename Order, typename Scaling>
VU_AVX2 void takeAvx2(CanSignalNode *signal, uint8_t *sample, uint32_t count, const Scaling &scaled)
{
    takeSamples<Order>(signal, sample, count, scaled);
}

template <typename Order, typename Scaling>
void take(CanSignalNode *signal, void *payload, uint32_t size, const Scaling &scaled)
{
    static const auto kernel = vu::hasAvx2() ? takeAvx2<Order, Scaling> : takePlain<Order, Scaling>;
    if (signal->proxy) // else the host has not said where the test starts
        kernel(signal, static_cast<uint8_t *>(payload), size / kSample, scaled);
}

bool nothingMore(const vu::Stanza &, vu::RequiredKeys &, CanSignalNode &)
{
    return true;
}

} // namespace

CanSignalNode *streamCANSignalInit(const char *stanza)
{
    return vu::makeSignal(stanza, nothingMore);
}

void streamProcessCANSignalNoScaling(CanSignalNode *signal, void *payload, uint32_t payload_size, float scale,
                                     float offset)
{
    take<BigEndian>(signal, payload, payload_size, NoScaling{scale, offset});
}

void streamProcessCANSignalNoScalingLE(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                       float scale, float offset)
{
    take<LittleEndian>(signal, payload, payload_size, NoScaling{scale, offset});
}

void streamProcessCANSignalScaleOffset(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                       float scale, float offset)
{
    take<BigEndian>(signal, payload, payload_size, ScaleOffset{scale, offset});
}

void streamProcessCANSignalScaleOffsetLE(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                         float scale, float offset)
{
    take<LittleEndian>(signal, payload, payload_size, ScaleOffset{scale, offset});
}
