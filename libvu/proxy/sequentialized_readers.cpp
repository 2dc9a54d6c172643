// Float message channels as periodic streams: the node holds the last value and writes it once a sample
// period, as far as the times of the entries reach.
//
// Four variants share the mechanism and differ by design where their structs differ: what is an invalid
// entry, where the zero is subtracted, and what rounds at single precision.
#include <bit>
#include <cmath>
#include <span>

#include "libvu/core/callbacks.h"
#include "libvu/core/deliver_private.h"
#include "libvu/core/framing_private.h"
#include "libvu/core/ntp_private.h"
#include "libvu/core/report.h"
#include "libvu/core/sample_type_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/byte_swap_private.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sample_clock_private.h"

using libvu::Event;

namespace {

using Body = std::span<uint8_t>;

using libvu::kTimeBytes;

// Times count from the start of the test; the zero is subtracted from every sample.
struct MessageTimes {
    static constexpr uint32_t kHead = 0; // bytes ahead of the entries
    static constexpr bool kZeroAtFullFrame = true;

    static void toHost(ProxyNode *node, uint8_t *entry)
    {
        libvu::toHostInPlace<int64_t>(entry);
        libvu::toHost(node, entry);
    }
    // The time less half a period: a value counts from the sample nearest to its time.
    static int64_t target(ProxyNode *node, const uint8_t *entry)
    {
        return libvu::subtractSaturated(libvu::loadHost<int64_t>(entry), node->half_period);
    }
    static double sample(const ProxyNode *node) { return node->held_value - node->rezero_offset; }
};

struct MessageFloat : MessageTimes {
    using Value = float;
    static bool isInvalid(float value) { return std::isnan(value); }
    static bool takesValues() { return true; }
    static double held(const ProxyNode *node, float value)
    {
        return std::fma(value, static_cast<float>(node->scale), static_cast<float>(node->offset));
    }
};

struct MessageDouble : MessageTimes {
    using Value = double;
    static bool isInvalid(double value) { return std::isnan(value); }
    static bool takesValues() { return true; }
    static double held(const ProxyNode *node, double value)
    {
        return std::fma(value, node->scale, node->offset);
    }
};

// Times are absolute, in f64; an entry's value is the zero, and what is written is the held value as it is.
template <typename Bits>
struct NtpTimes {
    static constexpr uint32_t kHead = libvu::kUnreadBytes;
    static constexpr bool kZeroAtFullFrame = false;

    static void toHost(ProxyNode *, uint8_t *entry)
    {
        libvu::ntpToHostInPlace(entry);
        libvu::toHostInPlace<Bits>(entry + kTimeBytes);
    }
    static int64_t target(ProxyNode *node, const uint8_t *entry)
    {
        const double ticks = ntp_to_ts(entry);
        // Where nobody has said when the test began, it begins now, and not in 1970.
        if (node->start_time == 0)
            node->start_time = static_cast<int64_t>(ticks);
        return libvu::saturated<int64_t>(ticks - static_cast<double>(node->start_time) -
                                         static_cast<double>(node->half_period));
    }
    static double sample(const ProxyNode *node) { return node->held_value; }
};

struct NtpFloat : NtpTimes<uint32_t> {
    using Value = float;
    static bool isInvalid(float value)
    {
        return std::isnan(value) || std::bit_cast<uint32_t>(value) == libvu::kNoValueBits;
    }
    // This kind alone takes no value while the host does not listen for zeros.
    static bool takesValues() { return libvuRezeroCallback != nullptr; }
    static double held(const ProxyNode *node, float value)
    {
        return std::fma(double{value}, node->scale, node->offset - node->rezero_offset);
    }
};

struct NtpDouble : NtpTimes<uint64_t> {
    using Value = double;
    static bool isInvalid(double value) { return std::isnan(value); }
    static bool takesValues() { return true; }
    static double held(const ProxyNode *node, double value)
    {
        return std::fma(value, node->scale, node->offset);
    }
};

void stepClock(ProxyNode *node)
{
    libvu::tick(node->clock);
    if (node->stale_deadline < node->clock.current_tick)
        node->held_value = node->invalid_value;
}

bool beginFrame(ProxyNode *node, uint32_t elementSize)
{
    node->frame = frameCreate(node->frame_length, elementSize, nullptr);
    if (node->frame) {
        libvu::stampStart(node->frame, node->sample_count);
        return true;
    }
    libvuError("Unable to create frame for channel %s", node->name);
    return false;
}

// The mean of the frame becomes the zero. The zero before has been subtracted from its samples, and the sum
// starts from it.
template <typename Sample>
void zeroAtFullFrame(ProxyNode *node)
{
    if (!node->rezero_pending || !libvuRezeroCallback)
        return;
    const std::span samples(static_cast<Sample *>(node->frame->data), node->frame->length);
    for (const Sample sample : samples)
        node->rezero_offset += sample;
    node->rezero_offset /= static_cast<int32_t>(node->frame->length);
    for (Sample &sample : samples)
        sample = static_cast<Sample>(sample - node->rezero_offset);
    libvuRezeroCallback(node->name, node->rezero_offset);
    node->rezero_pending = 0;
}

template <typename Variant>
void finishFrame(ProxyNode *node)
{
    if (Variant::kZeroAtFullFrame)
        zeroAtFullFrame<typename Variant::Value>(node);
    Frame *frame = node->frame;
    node->frame = nullptr;
    libvu::deliver(node->pipes, frame);
}

// Steps a clock years ahead, or at periods of years, where a step is rounded to a double.
struct RoundedClock {
    explicit RoundedClock(SampleClock &clock) : current(clock.current_tick), clock_(clock) {}
    void tick()
    {
        libvu::tick(clock_);
        current = clock_.current_tick;
    }

    int64_t current;
    SampleClock &clock_;
};

// Writes samples while the clock is before `target` and the frame has room.
template <typename Variant, typename Clock>
void fillFrame(ProxyNode *node, int64_t target)
{
    using Sample = typename Variant::Value;
    Frame *frame = node->frame;
    auto *out = static_cast<Sample *>(frame->data) + frame->length;
    auto *const end = static_cast<Sample *>(frame->data) + frame->capacity;
    Clock clock(node->clock);
    const int64_t deadline = node->stale_deadline;
    auto sample = static_cast<Sample>(Variant::sample(node));
    while (clock.current < target && out != end) {
        clock.tick();
        if (deadline < clock.current) {
            node->held_value = node->invalid_value;
            sample = static_cast<Sample>(Variant::sample(node));
        }
        *out++ = sample;
    }
    frame->length = static_cast<uint32_t>(out - static_cast<Sample *>(frame->data));
}

// False if a frame could not be had: that tick's sample is lost.
template <typename Variant>
bool catchUp(ProxyNode *node, int64_t target)
{
    using Sample = typename Variant::Value;
    if (!libvu::clockRuns(node->clock))
        return true;
    while (node->clock.current_tick < target) {
        const uint32_t before = node->frame ? node->frame->length : 0;
        if (!node->frame) {
            stepClock(node);
            if (!beginFrame(node, sizeof(Sample)))
                return false;
            *static_cast<Sample *>(node->frame->data) = static_cast<Sample>(Variant::sample(node));
            node->frame->length = 1;
        }
        if (target < libvu::kWholeNumbers && libvu::stepsInWholeNumbers(node->clock))
            fillFrame<Variant, libvu::RegisterClock>(node, target);
        else
            fillFrame<Variant, RoundedClock>(node, target);
        // The last sample of a full frame is counted after the frame is delivered: that is what callbacks
        // see.
        node->sample_count += node->frame->length - before - 1;
        if (frameAvailable(node->frame) == 0)
            finishFrame<Variant>(node);
        node->sample_count++;
    }
    return true;
}

// A zero asked for while the peer has no value: the invalid value becomes the zero, and 0.0 the invalid
// value.
void zeroFromInvalid(ProxyNode *node)
{
    if (!node->rezero_pending || !libvuRezeroCallback)
        return;
    node->rezero_offset = node->invalid_value;
    node->invalid_value = 0.0;
    libvuRezeroCallback(node->name, node->rezero_offset);
    node->rezero_pending = 0;
}

void zeroFromValue(ProxyNode *node, double value)
{
    if (!node->rezero_pending)
        return;
    node->rezero_offset = value;
    if (libvuRezeroCallback)
        libvuRezeroCallback(node->name, value);
    node->rezero_pending = 0;
}

template <typename Variant>
Event takeEntry(ProxyNode *node, uint8_t *entry)
{
    using Value = typename Variant::Value;
    Variant::toHost(node, entry);
    const auto value = libvu::loadHost<Value>(entry + kTimeBytes);
    const bool invalid = Variant::isInvalid(value);
    // First of all, so that samples up to this entry already have the new zero. The callback may set
    // `start_time`.
    if (invalid)
        zeroFromInvalid(node);
    const int64_t target = Variant::target(node, entry);
    if (!catchUp<Variant>(node, target))
        return Event::leavesEarly;
    node->last_message_time = target;
    if (invalid || !Variant::takesValues())
        return Event::goesOn;
    if (!Variant::kZeroAtFullFrame)
        zeroFromValue(node, value);
    node->stale_deadline = libvu::addSaturated(node->clock.next_tick, node->stale_ticks);
    node->held_value = Variant::held(node, value);
    return Event::goesOn;
}

template <typename Variant>
void readEntries(ProxyNode *node)
{
    constexpr size_t kEntry = kTimeBytes + sizeof(typename Variant::Value);
    libvu::readRecords(node, [node](Body body) {
        for (size_t at = Variant::kHead; at + kEntry <= body.size(); at += kEntry)
            if (takeEntry<Variant>(node, body.data() + at) == Event::leavesEarly)
                return Event::leavesEarly;
        return Event::goesOn;
    });
}

template <typename Float, typename Double>
void readEntriesOf(ProxyNode *node)
{
    switch (libvu::sampleTypeOf(node->element_size, libvu::SampleType::float64)) {
    case libvu::SampleType::float32: return readEntries<Float>(node);
    case libvu::SampleType::float64: return readEntries<Double>(node);
    }
}

} // namespace

void proxyNode_ProxyReaderSequentializedMessage(ProxyNode *node)
{
    readEntriesOf<MessageFloat, MessageDouble>(node);
}

void proxyNode_ProxyReaderSequentializedNTPMessage(ProxyNode *node)
{
    readEntriesOf<NtpFloat, NtpDouble>(node);
}
