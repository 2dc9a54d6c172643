#include "libvu/stream/stream_signal.h"

#include <bit>
#include <cmath>
#include <cstring>

#include "libvu/bus/can_signal_private.h"
#include "libvu/bus/time_only_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/isa_private.h"
#include "libvu/core/ntp_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sequentializer_private.h"

namespace {

constexpr uint32_t kSample = 12;     // bytes
constexpr uint32_t kValueOffset = 8; // bytes into a sample

// The words of a sample as the peer wrote them.
struct WireSample {
    uint32_t seconds, fraction, value;
};

struct BigEndian {
    static WireSample load(const uint8_t *sample)
    {
        return {libvu::loadBig<uint32_t>(sample), libvu::loadBig<uint32_t>(sample + 4),
                libvu::loadBig<uint32_t>(sample + kValueOffset)};
    }
};

// The words are in the other order, too: the fraction comes first.
struct LittleEndian {
    static WireSample load(const uint8_t *sample)
    {
        return {libvu::loadHost<uint32_t>(sample + 4), libvu::loadHost<uint32_t>(sample),
                libvu::loadHost<uint32_t>(sample + kValueOffset)};
    }
};

const bool kHasAvx2 = libvu::hasAvx2();

struct NoScaling {
    NoScaling(float, float) {}
    static bool isZeroPending(const CanSignalNode *) { return false; }
    static void zero(CanSignalNode *, float) {}
    NoScaling of(const CanSignalNode *) const { return *this; }
    float operator()(float value) const { return value; }
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
    // As the signal's zero leaves it.
    ScaleOffset of(const CanSignalNode *signal) const
    {
        return {scale, static_cast<float>(double{offset} - signal->rezero_offset)};
    }
    float operator()(float value) const { return std::fma(value, scale, offset); }
};

template <typename Sample>
void storeAt(Frame &frame, uint32_t place, double value)
{
    reinterpret_cast<Sample *>(&frame + 1)[place] = static_cast<Sample>(value);
}

// Since the start of the test.
double ticksOf(const WireSample &wire, const ProxyNode &node)
{
    return libvu::ntpTicks(wire.seconds, wire.fraction) - static_cast<double>(node.start_time);
}

void timeToHost(uint8_t *sample, const WireSample &wire)
{
    libvu::storeHost(sample, wire.seconds);
    libvu::storeHost(sample + 4, wire.fraction);
}

// Nearly all samples complete one output sample at most and fill no frame. They are taken with the
// Sequentializer's state in registers; the result is the first sample that needs takeSample().
template <typename Order, typename Scaling>
VU_INLINE_KERNEL uint8_t *runAhead(const CanSignalNode &signal, uint8_t *sample, const uint8_t *end,
                                   Scaling scaling)
{
    Sequentializer &seq = *signal.sequentializer;
    Frame *const frame = seq.current_frame;
    if (!frame || !libvu::stepsInWholeNumbers(*seq.clock) || Scaling::isZeroPending(&signal))
        return sample;
    libvu::RegisterClock clock(*seq.clock);
    const Scaling scaled = scaling.of(&signal);
    const bool isDouble = seq.element_size == sizeof(double);
    const uint32_t before = frame->length, last = frame->capacity - 1;
    uint32_t length = before;
    int64_t target = seq.last_target, expiry = seq.expiry_tick;
    double held = seq.value;
    for (; sample != end; sample += kSample) {
        const WireSample wire = Order::load(sample);
        const double ticks = ticksOf(wire, *signal.proxy);
        if (!(std::fabs(ticks) < static_cast<double>(libvu::kWholeNumbers)))
            break;
        const int64_t next = static_cast<int64_t>(ticks) - seq.half_period_ticks;
        if (clock.current < next) {
            if (next > clock.next || length >= last)
                break;
            clock.tick();
            if (expiry < clock.current)
                held = seq.invalid_value;
            if (isDouble)
                storeAt<double>(*frame, length, held);
            else
                storeAt<float>(*frame, length, held);
            length++;
        }
        target = next;
        timeToHost(sample, wire);
        if (wire.value == libvu::kNoValueBits)
            continue;
        held = scaled(std::bit_cast<float>(wire.value));
        expiry = libvu::addSaturated(clock.next, seq.stale_ticks);
    }
    frame->length = length;
    seq.sample_count += length - before;
    seq.last_target = target;
    seq.value = held;
    seq.expiry_tick = expiry;
    return sample;
}

// Takes any sample, one call of the Sequentializer each.
template <typename Order, typename Scaling>
[[gnu::noinline]] void takeSample(CanSignalNode *signal, uint8_t *sample, Scaling scaling)
{
    const WireSample wire = Order::load(sample);
    timeToHost(sample, wire);
    // Cut toward zero, since a Sequentializer takes ticks without a fraction.
    const libvu::Moment time(libvu::saturated<int64_t>(ticksOf(wire, *signal->proxy)));
    if (wire.value == libvu::kNoValueBits) {
        if (Scaling::isZeroPending(signal))
            libvu::advanceSilent(*signal, time);
        else
            libvu::advance(*signal->sequentializer, time);
        return;
    }
    const auto value = std::bit_cast<float>(wire.value);
    if (Scaling::isZeroPending(signal))
        Scaling::zero(signal, value);
    libvu::takeValue(*signal->sequentializer, time, scaling.of(signal)(value));
}

template <typename Order, typename Scaling>
VU_INLINE_KERNEL void takeSamples(CanSignalNode *signal, uint8_t *sample, uint32_t size, Scaling scaling)
{
    const uint8_t *const end = sample + size / kSample * kSample;
    for (;;) {
        sample = runAhead<Order>(*signal, sample, end, scaling);
        if (sample == end)
            return;
        takeSample<Order>(signal, sample, scaling);
        sample += kSample;
    }
}

template <typename Order, typename Scaling>
void takePlain(CanSignalNode *signal, uint8_t *sample, uint32_t size, Scaling scaling)
{
    takeSamples<Order>(signal, sample, size, scaling);
}

template <typename Order, typename Scaling>
VU_AVX2 void takeAvx2(CanSignalNode *signal, uint8_t *sample, uint32_t size, Scaling scaling)
{
    takeSamples<Order>(signal, sample, size, scaling);
}

template <typename Order, typename Scaling>
void take(CanSignalNode *signal, void *payload, uint32_t size, Scaling scaling)
{
    if (!signal->proxy) // the host has not said where the test starts
        return;
    if (kHasAvx2)
        takeAvx2<Order, Scaling>(signal, static_cast<uint8_t *>(payload), size, scaling);
    else
        takePlain<Order, Scaling>(signal, static_cast<uint8_t *>(payload), size, scaling);
}

bool copyText(const char *text, char *&copy)
{
    copy = strdup(text);
    return copy;
}

bool nothingMore(const libvu::Stanza &, libvu::RequiredKeys &, CanSignalNode &)
{
    return true;
}

} // namespace

CanSignalNode *streamCANSignalInit(const char *stanza)
{
    return libvu::makeSignal(stanza, nothingMore, copyText);
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
