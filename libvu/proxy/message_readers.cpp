// Message channels: every record becomes a frame of its own, or goes to the signals of the channel, or both.
//
// The kinds look alike and are not: which timestamps a frame holds in host order, what is counted, and what
// ends the event are each kind's own.
#include <cmath>
#include <span>

#include "libvu/bus/can_record.h"
#include "libvu/bus/can_set.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/core/deliver_private.h"
#include "libvu/core/framing_private.h"
#include "libvu/core/ntp_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/proxy/byte_swap_private.h"
#include "libvu/proxy/proxy_node.h"

using libvu::Event;

namespace {

using Body = std::span<uint8_t>;

using libvu::kLengthBytes, libvu::kTimeBytes;
static_assert(sizeof(CanRecord) == VU_CAN_RECORD_BYTES);

bool anybodyListens(const ProxyNode *node)
{
    return node->pipes.first != nullptr;
}

// A byte message as consumers get it: its length, its timestamp in host order, its content.
Frame *byteMessage(Body body, int64_t time)
{
    const auto length = static_cast<uint32_t>(body.size());
    Frame *frame = frameCreate(1, length + kLengthBytes, nullptr);
    if (!frame)
        return nullptr;
    auto *element = static_cast<uint8_t *>(frame->data);
    libvu::storeHost(element, length);
    libvu::storeHost(element + kLengthBytes, time);
    std::memcpy(element + kLengthBytes + kTimeBytes, body.data() + kTimeBytes, length - kTimeBytes);
    libvu::stampStart(frame, time);
    frame->length = 1;
    return frame;
}

bool holdsTimestamp(const ProxyNode *node, Body body)
{
    if (body.size() >= kTimeBytes)
        return true;
    logWarning("Channel %s: a record of %u bytes has no room for its timestamp and is passed over",
               node->name, static_cast<uint32_t>(body.size()));
    return false;
}

Event takeRaw(ProxyNode *node, Body body)
{
    if (!holdsTimestamp(node, body))
        return Event::goesOn;
    if (!anybodyListens(node)) {
        node->sample_count += static_cast<int64_t>(body.size());
        return Event::goesOn;
    }
    Frame *frame = byteMessage(body, libvu::loadBig<int64_t>(body.data()));
    if (!frame)
        return Event::leavesEarly;
    libvu::toHost(node, frame);
    libvu::deliver(node->pipes, frame);
    return Event::goesOn;
}

// The consumers' copy is made first, since the signals rewrite the record. The signals get it even where no
// copy could be made.
Event takeNmea(ProxyNode *node, Body body)
{
    if (!holdsTimestamp(node, body))
        return Event::goesOn;
    const auto time = libvu::loadBig<int64_t>(body.data());
    if (!anybodyListens(node)) {
        node->sample_count += static_cast<int64_t>(body.size());
    } else if (Frame *frame = byteMessage(body, time)) {
        libvu::toHost(node, frame);
        libvu::deliver(node->pipes, frame);
    }
    gpsProcessSignals(node->gps_set, body.data() - kLengthBytes, time);
    return Event::goesOn;
}

Event takeXcp(ProxyNode *node, Body body)
{
    if (body.size() < kTimeBytes)
        return Event::leavesEarly;
    const Body message = body.subspan(kTimeBytes);
    xcp_ip_set_process(node->xcp_set, libvu::loadBig<int64_t>(body.data()), message.data(),
                       static_cast<uint32_t>(message.size()));
    return Event::goesOn;
}

// Copies the records that hold a message and are not from before the test. Timestamps are in host order by
// now.
uint32_t keepMessages(CanRecord *to, const CanRecord *records, uint32_t count)
{
    const CanRecord *const first = to;
    for (uint32_t i = 0; i < count; i++) {
        const CanRecord &record = records[i];
        if (libvu::loadHost<int64_t>(record.timestamp) >= 0 && !(record.flags & CAN_RECORD_TIME_ONLY))
            *to++ = record;
    }
    return static_cast<uint32_t>(to - first);
}

// The signals see every record, and before the channel's own consumers do.
Event takeCan(ProxyNode *node, Body body)
{
    const auto count = static_cast<uint32_t>(body.size() / sizeof(CanRecord));
    if (count == 0)
        return Event::leavesEarly;
    auto *records = reinterpret_cast<CanRecord *>(body.data());
    can_set_process(node->can_set, records, count);
    if (!anybodyListens(node))
        return Event::goesOn;
    Frame *frame = frameCreate(count, sizeof(CanRecord), nullptr);
    if (!frame) {
        libvuError("Unable to create frame for raw CAN messages");
        return Event::leavesEarly;
    }
    frame->length = keepMessages(static_cast<CanRecord *>(frame->data), records, count);
    if (frame->length == 0) {
        frameDelete(frame);
        return Event::leavesEarly;
    }
    libvu::deliver(node->pipes, frame);
    return Event::goesOn;
}

// A wire entry and an element of the frame alike: a timestamp, then a value.
template <typename Value>
constexpr uint32_t kEntry = kTimeBytes + sizeof(Value);

template <typename Value>
using Bits = std::conditional_t<sizeof(Value) == 4, uint32_t, uint64_t>;

bool isIdentity(const ProxyNode *node)
{
    return node->scale == 1.0 && node->offset == 0.0 && node->rezero_offset == 0.0;
}

// Single precision: scale and offset are narrowed first, and the result is rounded once.
struct SingleCalibration {
    float scale, offset;
    explicit SingleCalibration(const ProxyNode *node)
        : scale(static_cast<float>(node->scale)),
          offset(static_cast<float>(node->offset - node->rezero_offset))
    {
    }
    float operator()(float value) const { return std::fma(value, scale, offset); }
    double operator()(double value) const { return std::fma(static_cast<float>(value), scale, offset); }
};

struct DoubleCalibration {
    double scale, offset;
    explicit DoubleCalibration(const ProxyNode *node)
        : scale(node->scale), offset(node->offset - node->rezero_offset)
    {
    }
    double operator()(double value) const { return std::fma(value, scale, offset); }
};

// Elements of a frame, one after the other.
template <typename Value>
class Elements {
public:
    explicit Elements(Frame *frame) : frame_(frame), next_(static_cast<uint8_t *>(frame->data)) {}

    void append(int64_t time, Value value)
    {
        libvu::storeHost(next_, time);
        libvu::storeHost(next_ + kTimeBytes, value);
        next_ += kEntry<Value>;
    }
    // Delivers the frame, unless nothing is in it.
    void deliver(ProxyNode *node)
    {
        const auto bytes = static_cast<size_t>(next_ - static_cast<uint8_t *>(frame_->data));
        frame_->length = static_cast<uint32_t>(bytes / kEntry<Value>);
        if (bytes == 0)
            frameDelete(frame_);
        else
            libvu::deliver(node->pipes, frame_);
    }

private:
    Frame *frame_;
    uint8_t *next_;
};

// The frame's start is the first entry's time, even if that entry is dropped. Elements keep the timestamps as
// they came, in wire order.
template <typename Value, typename Calibration>
Event takeValues(ProxyNode *node, Body body)
{
    const auto count = static_cast<uint32_t>(body.size() / kEntry<Value>);
    if (count == 0 || !anybodyListens(node))
        return Event::goesOn;
    const auto time = libvu::loadBig<int64_t>(body.data());
    if (time < 0)
        return Event::goesOn;
    Frame *frame = frameCreate(count, kEntry<Value>, nullptr);
    if (!frame)
        return Event::leavesEarly;
    libvu::stampStart(frame, time);
    const bool identity = isIdentity(node);
    const Calibration calibrated(node);
    Elements<Value> elements(frame);
    for (uint32_t i = 0; i < count; i++) {
        uint8_t *entry = body.data() + size_t{i} * kEntry<Value>;
        libvu::toHost(node, entry);
        const auto value = libvu::loadHost<Value>(entry + kTimeBytes);
        if (!std::isnan(value))
            elements.append(libvu::loadHost<int64_t>(entry), identity ? value : calibrated(value));
    }
    elements.deliver(node);
    return Event::goesOn;
}

// Both widths are calibrated at single precision.
template <typename Value>
Event takeNtpValues(ProxyNode *node, Body body)
{
    if (body.size() < libvu::kUnreadBytes)
        return Event::goesOn;
    const Body entries = body.subspan(libvu::kUnreadBytes);
    const auto count = static_cast<uint32_t>(entries.size() / kEntry<Value>);
    if (count == 0 || !anybodyListens(node))
        return Event::goesOn;
    Frame *frame = frameCreate(count, kEntry<Value>, nullptr);
    if (!frame)
        return Event::leavesEarly;
    const bool identity = isIdentity(node);
    const SingleCalibration calibrated(node);
    Elements<Value> elements(frame);
    for (uint32_t i = 0; i < count; i++) {
        uint8_t *entry = entries.data() + size_t{i} * kEntry<Value>;
        const auto time = static_cast<int64_t>(libvu::ntpToHostInPlace(entry));
        libvu::toHostInPlace<Bits<Value>>(entry + kTimeBytes);
        const auto value = libvu::loadHost<Value>(entry + kTimeBytes);
        if (!std::isnan(value))
            elements.append(time, identity ? value : calibrated(value));
    }
    elements.deliver(node);
    return Event::goesOn;
}

template <Event (*take)(ProxyNode *, Body)>
void readEach(ProxyNode *node)
{
    libvu::readRecords(node, [node](Body body) { return take(node, body); });
}

} // namespace

void proxyNode_ProxyReaderMessageRaw(ProxyNode *node)
{
    readEach<takeRaw>(node);
}

void proxyNode_ProxyReaderMessageNMEA(ProxyNode *node)
{
    readEach<takeNmea>(node);
}

void proxyNode_ProxyReaderMessageXCPIP(ProxyNode *node)
{
    readEach<takeXcp>(node);
}

void proxyNode_ProxyReaderMessageCAN(ProxyNode *node)
{
    readEach<takeCan>(node);
}

void proxyNode_ProxyReaderMessageFloat(ProxyNode *node)
{
    readEach<takeValues<float, SingleCalibration>>(node);
}

void proxyNode_ProxyReaderMessageDouble(ProxyNode *node)
{
    readEach<takeValues<double, DoubleCalibration>>(node);
}

void proxyNode_ProxyReaderMessageNTPFloat(ProxyNode *node)
{
    readEach<takeNtpValues<float>>(node);
}

void proxyNode_ProxyReaderMessageNTPDouble(ProxyNode *node)
{
    readEach<takeNtpValues<double>>(node);
}

double ntp_to_ts(const void *entry)
{
    return libvu::ntpTicks(libvu::loadHost<uint32_t>(entry),
                           libvu::loadHost<uint32_t>(static_cast<const uint8_t *>(entry) + 4));
}
