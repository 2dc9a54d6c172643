#include "libvu/stream/stream_signal.h"

#include <bit>
#include <cmath>

#include "libvu/bus/can_signal_private.h"
#include "libvu/bus/time_only_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/ntp_private.h"
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

struct NoScaling {
    NoScaling(float, float) {}
    void advance(CanSignalNode *signal, vu::Moment time) const { vu::advance(*signal->sequentializer, time); }
    float operator()(CanSignalNode *, float value) const { return value; }
};

// A pending zero takes the value as it came, unscaled: only a scale of 1 and an offset of 0 then read 0.0.
struct ScaleOffset {
    float scale, offset;

    void advance(CanSignalNode *signal, vu::Moment time) const { vu::advanceSilent(*signal, time); }
    float operator()(CanSignalNode *signal, float value) const
    {
        if (signal->rezero_pending && libvuRezeroCallback) {
            signal->rezero_offset = double{value};
            libvuRezeroCallback(signal->name, signal->rezero_offset);
            signal->rezero_pending = 0;
        }
        return std::fma(value, scale, static_cast<float>(double{offset} - signal->rezero_offset));
    }
};

template <typename Order, typename Scaling>
void takeSamples(CanSignalNode *signal, void *payload, uint32_t size, const Scaling &scaled)
{
    if (!signal->proxy)
        return; // the host has not said where the test starts
    auto *sample = static_cast<uint8_t *>(payload);
    for (uint32_t left = size / kSample; left > 0; left--, sample += kSample) {
        const WireSample wire = Order::load(sample);
        vu::storeHost(sample, wire.seconds);
        vu::storeHost(sample + 4, wire.fraction);
        // Whole ticks since the start of the test, toward zero.
        const double ticks =
            vu::ntpTicks(wire.seconds, wire.fraction) - static_cast<double>(signal->proxy->start_time);
        const vu::Moment time(vu::saturated<int64_t>(ticks));
        if (wire.value == vu::kNoValueBits)
            scaled.advance(signal, time);
        else
            vu::takeValue(*signal->sequentializer, time, scaled(signal, std::bit_cast<float>(wire.value)));
    }
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
    takeSamples<BigEndian>(signal, payload, payload_size, NoScaling{scale, offset});
}

void streamProcessCANSignalNoScalingLE(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                       float scale, float offset)
{
    takeSamples<LittleEndian>(signal, payload, payload_size, NoScaling{scale, offset});
}

void streamProcessCANSignalScaleOffset(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                       float scale, float offset)
{
    takeSamples<BigEndian>(signal, payload, payload_size, ScaleOffset{scale, offset});
}

void streamProcessCANSignalScaleOffsetLE(CanSignalNode *signal, void *payload, uint32_t payload_size,
                                         float scale, float offset)
{
    takeSamples<LittleEndian>(signal, payload, payload_size, ScaleOffset{scale, offset});
}
