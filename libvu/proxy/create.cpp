// A channel's stanza becomes a node: what each kind of channel is made of, and the order of the checks.
#include <cmath>
#include <cstring>
#include <ev.h>
#include <memory>

#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/stanza_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/ts_adjust.h"
#include "libvu/proxy/calibration.h"
#include "libvu/proxy/channel_kind.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/stream/stream_signal.h"
#include "libvu/time/sample_clock_private.h"

namespace {

using Reader = void (*)(ProxyNode *);
using Swap = void (*)(ProxyNode *, void *);

constexpr double kTicksPerSecond = libvu::kTicksPerSecond;
constexpr uint32_t kVaries = UINT32_MAX; // element size of a channel whose records vary in length
constexpr uint32_t kMessageBuffer = 8192;
constexpr uint32_t kLargestFirstBuffer = uint32_t{64} << 20;

struct FreeNode {
    void operator()(ProxyNode *node) const
    {
        std::free(node->name);
        std::free(node->inbuf.buf);
        std::free(node->channel_aux);
        std::free(node->watcher);
        std::free(node);
    }
};
using OwnedNode = std::unique_ptr<ProxyNode, FreeNode>;

// What a stanza says beyond the node's own fields.
struct ChannelStanza {
    const char *dataType;
    const char *connector;
    const char *purpose; // text or null
    bool prerun;         // the channel's zero is the mean of its first frame
    double sampleRate;   // samples per second, above 0.0 if given
    bool sequentialized; // messages become a periodic stream

    ProxyNodeKind kind() const { return proxyNodeKindOf(dataType, connector); }
    bool typeHas(const char *part) const { return std::strstr(dataType, part) != nullptr; }
    bool typeIs(const char *all) const { return std::strcmp(dataType, all) == 0; }
};

struct SequentialKind {
    uint32_t size;
    Swap swap;
    void (*apply)(ProxyNode *, Frame *);
    void (*applyPrerun)(ProxyNode *, Frame *);
};
constexpr SequentialKind kSequentialFloat32 = {sizeof(float), proxyNode_swapFloatSamples,
                                               proxyNode_applyFloatScaleOffset,
                                               proxyNode_applyPrerunZeroFloatScaleOffset};
constexpr SequentialKind kSequentialFloat64 = {sizeof(double), proxyNode_swapDoubleSamples,
                                               proxyNode_applyDoubleScaleOffset,
                                               proxyNode_applyPrerunZeroDoubleScaleOffset};

struct MessageKind {
    uint32_t recordSize;
    uint32_t elementSize;
    Swap swap;
    Reader reader;
    Reader periodicReader; // with a sample rate; null: the kind has no periodic form
};

// Records of bytes, one element each.
constexpr MessageKind bytesReadBy(Reader reader)
{
    return {1, kVaries, proxyNode_swapNone, reader, nullptr};
}

// Entries of a time and a value.
template <typename Value>
constexpr MessageKind valuesReadBy(Reader reader, Reader periodicReader, Swap swap)
{
    constexpr uint32_t kEntry = libvu::kTimeBytes + sizeof(Value);
    return {kEntry, kEntry, swap, reader, periodicReader};
}

constexpr MessageKind kCan = {VU_CAN_RECORD_BYTES, VU_CAN_RECORD_BYTES, proxyNode_swapNone,
                              proxyNode_ProxyReaderMessageCAN, nullptr};
constexpr MessageKind kFloat32 = valuesReadBy<float>(
    proxyNode_ProxyReaderMessageFloat, proxyNode_ProxyReaderSequentializedMessage, proxyNode_swapFloatValue);
constexpr MessageKind kFloat64 =
    valuesReadBy<double>(proxyNode_ProxyReaderMessageDouble, proxyNode_ProxyReaderSequentializedMessage,
                         proxyNode_swapDoubleValue);
constexpr MessageKind kFloat32Ntp = valuesReadBy<float>(
    proxyNode_ProxyReaderMessageNTPFloat, proxyNode_ProxyReaderSequentializedNTPMessage, proxyNode_swapNone);
constexpr MessageKind kFloat64Ntp = valuesReadBy<double>(
    proxyNode_ProxyReaderMessageNTPDouble, proxyNode_ProxyReaderSequentializedNTPMessage, proxyNode_swapNone);

bool isIdentity(const ProxyNode &node, const ChannelStanza &channel)
{
    return node.scale == 1.0 && node.offset == 0.0 && node.rezero_offset == 0.0 && !channel.purpose;
}

bool readNames(ProxyNode &node, const libvu::Stanza &stanza, ChannelStanza &channel)
{
    const char *name = stanza.text("name");
    if (!name) {
        libvuError("Can not find 'name' in proxy node stanza");
        return false;
    }
    node.name = strdup(name);
    if (!node.name) {
        libvuError("Unable to allocate memory for proxy node name %s", name);
        return false;
    }
    if (const char *start = stanza.text("start_time"))
        proxyNode_SetStartTime(&node, start);
    channel.dataType = stanza.text("data_type");
    if (!channel.dataType) {
        libvuError("Can not find 'data_type' in proxy node stanza");
        return false;
    }
    channel.connector = stanza.text("connector");
    if (!channel.connector) {
        libvuError("Can not find 'connector' in proxy node stanza");
        return false;
    }
    return true;
}

// On a bridge connector a pre-run zero is no purpose by itself, though it still picks the kernel.
void readZeroMode(const libvu::Stanza &stanza, ChannelStanza &channel)
{
    channel.purpose = stanza.text("purpose");
    if (channel.purpose)
        return;
    channel.prerun = stanza.isTrue("do_prerun_zero");
    if (channel.prerun && !proxyNodeIsBridge(channel.connector))
        channel.purpose = "prerun_zero";
}

void readCalibration(ProxyNode &node, const libvu::Stanza &stanza, ChannelStanza &channel)
{
    channel.sampleRate = stanza.number("sample_rate", -1.0);
    channel.sequentialized = proxyNodeIsSequentialized(channel.dataType, channel.sampleRate);
    node.scale = stanza.number("scale", 1.0);
    node.offset = stanza.number("offset", 0.0);
    if (!proxyNodeIsBridge(channel.connector))
        node.rezero_offset = stanza.number("rezero_offset", 0.0);
}

bool becomeStream(ProxyNode &node, const ChannelStanza &channel)
{
    node.record_size = node.element_size = sizeof(float);
    node.main_reader = proxyNode_ProxyReaderZNTStream;
    auto *slots = static_cast<StreamSlot *>(std::calloc(STREAM_SLOTS, sizeof(StreamSlot)));
    if (!slots) {
        libvuError("Unable to allocate memory for the signal table of channel %s", node.name);
        return false;
    }
    node.channel_aux = slots;
    const bool little = proxyNodeIsLittleStream(channel.connector);
    auto handler = little ? streamProcessCANSignalScaleOffsetLE : streamProcessCANSignalScaleOffset;
    if (isIdentity(node, channel))
        handler = little ? streamProcessCANSignalNoScalingLE : streamProcessCANSignalNoScaling;
    for (int number = STREAM_FIRST_SLOT; number < STREAM_SLOTS; number++)
        slots[number].handler = handler;
    return true;
}

bool becomeSequential(ProxyNode &node, const ChannelStanza &channel, const SequentialKind &kind)
{
    node.record_size = node.element_size = kind.size;
    node.byte_swap = kind.swap;
    node.main_reader = proxyNode_ProxyReaderSequentialNoScaling;
    if (!isIdentity(node, channel)) {
        node.main_reader = proxyNode_ProxyReaderSequentialScaling;
        node.apply = channel.prerun ? kind.applyPrerun : kind.apply;
    }
    return true;
}

bool becomeMessage(ProxyNode &node, const ChannelStanza &channel, const MessageKind &kind)
{
    node.message_channel = 1;
    node.record_size = kind.recordSize;
    node.element_size = kind.elementSize;
    node.byte_swap = kind.swap;
    node.main_reader = kind.reader;
    if (kind.periodicReader) {
        if (channel.sequentialized)
            node.main_reader = kind.periodicReader;
        node.half_period = libvu::saturated<int64_t>(std::floor(kTicksPerSecond / channel.sampleRate * 0.5));
    }
    return true;
}

// The times of its sentences are moved onto the receiver's pulses.
bool becomeGps(ProxyNode &node, const ChannelStanza &channel)
{
    becomeMessage(node, channel, bytesReadBy(proxyNode_ProxyReaderMessageNMEA));
    node.channel_aux = gpsInitializeTsAdjust();
    if (!node.channel_aux)
        libvuError("Unable to allocate memory for the timestamps of channel %s", node.name);
    return node.channel_aux != nullptr;
}

bool becomeItsKind(ProxyNode &node, const ChannelStanza &channel)
{
    switch (channel.kind()) {
    case PROXY_NODE_KIND_STREAM: return becomeStream(node, channel);
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT32: return becomeSequential(node, channel, kSequentialFloat32);
    case PROXY_NODE_KIND_SEQUENTIAL_FLOAT64: return becomeSequential(node, channel, kSequentialFloat64);
    case PROXY_NODE_KIND_RAW:
        return becomeMessage(node, channel, bytesReadBy(proxyNode_ProxyReaderMessageRaw));
    case PROXY_NODE_KIND_GPS: return becomeGps(node, channel);
    case PROXY_NODE_KIND_NMEA:
        return becomeMessage(node, channel, bytesReadBy(proxyNode_ProxyReaderMessageNMEA));
    case PROXY_NODE_KIND_CAN: return becomeMessage(node, channel, kCan);
    case PROXY_NODE_KIND_XCP_IP:
        return becomeMessage(node, channel, bytesReadBy(proxyNode_ProxyReaderMessageXCPIP));
    case PROXY_NODE_KIND_FLOAT32: return becomeMessage(node, channel, kFloat32);
    case PROXY_NODE_KIND_FLOAT64: return becomeMessage(node, channel, kFloat64);
    case PROXY_NODE_KIND_FLOAT32_NTP: return becomeMessage(node, channel, kFloat32Ntp);
    case PROXY_NODE_KIND_FLOAT64_NTP: return becomeMessage(node, channel, kFloat64Ntp);
    case PROXY_NODE_KIND_UNKNOWN: break;
    }
    libvuError("Unknown data_type: %s\n", channel.dataType);
    return false;
}

bool setUpSequentialized(ProxyNode &node, const libvu::Stanza &stanza, const ChannelStanza &channel)
{
    sampleClockInit(&node.clock, channel.sampleRate);
    if (!libvu::clockRuns(node.clock))
        return false;
    const auto life = stanza.number("stale_data_expiration_time");
    if (!life) {
        libvuError("Unable to get 'stale_data_expiration_time'");
        return false;
    }
    node.stale_ticks =
        libvu::subtractSaturated(libvu::saturated<int64_t>(std::floor(*life * kTicksPerSecond)), 1);
    const auto invalid = stanza.number("invalid_data_output_value");
    if (!invalid) {
        libvuError("Unable to get 'invalid_data_output_value'");
        return false;
    }
    node.invalid_value = node.held_value = *invalid;
    // On a module's connector nothing has looked at all of the data type yet.
    if (channel.typeIs("message_float32") || channel.typeIs("message_float32_ntp")) {
        node.element_size = sizeof(float);
    } else if (channel.typeIs("message_float64") || channel.typeIs("message_float64_ntp")) {
        node.element_size = sizeof(double);
    } else {
        libvuError("Expected 'message_floatXX' data type, got '%s'", channel.dataType);
        return false;
    }
    return true;
}

// About one second of a periodic channel.
uint32_t firstBuffer(const ProxyNode &node, double sampleRate)
{
    if (sampleRate < 1.0)
        return node.record_size;
    const auto bytes = libvu::saturated<uint32_t>(node.record_size * sampleRate);
    return bytes < kLargestFirstBuffer ? bytes : kLargestFirstBuffer;
}

bool sizeBuffers(ProxyNode &node, const ChannelStanza &channel, double pipeRate)
{
    const bool periodic = channel.sequentialized || channel.typeHas("sequential_float");
    node.frame_length = 1;
    if (periodic)
        node.frame_length = static_cast<uint32_t>(frameBufsize(channel.sampleRate, pipeRate));
    const uint32_t wanted = periodic ? firstBuffer(node, channel.sampleRate) : kMessageBuffer;
    membufInitialize(&node.inbuf, wanted, nullptr, 0);
    return node.inbuf.capacity >= wanted;
}

bool readIsLogical(const libvu::Stanza &stanza)
{
    const char *text = stanza.text("is_logical");
    return text ? std::strcmp(text, "TRUE") == 0 : stanza.isTrue("is_logical");
}

bool watch(ProxyNode &node, int32_t fd)
{
    node.fd = fd;
    node.watcher = libvu::makeZeroed<ev_io>().release();
    if (!node.watcher) {
        libvuError("Unable to allocate IO event watcher for proxy node");
        return false;
    }
    ev_io_init(node.watcher, proxyNode_IoEvent, fd, EV_READ);
    node.watcher->data = &node;
    ev_io_start(ev_default_loop(0), node.watcher);
    return true;
}

} // namespace

ProxyNode *proxyNode_Create(const char *json, int32_t fd, double pipe_rate)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza stanza(json, parserText);
    if (!stanza.parsed()) {
        libvuError("Unable to parse JSON for proxy node:  %s", parserText);
        return nullptr;
    }
    OwnedNode node(libvu::makeZeroed<ProxyNode>().release());
    if (!node) {
        libvuError("Unable to allocate memory for proxy node");
        return nullptr;
    }
    ChannelStanza channel{};
    if (!readNames(*node, stanza, channel))
        return nullptr;
    readZeroMode(stanza, channel);
    readCalibration(*node, stanza, channel);
    node->reader = proxyNode_ProxyReaderMarker;
    if (!becomeItsKind(*node, channel))
        return nullptr;
    if (channel.sequentialized && !setUpSequentialized(*node, stanza, channel))
        return nullptr;
    if (!sizeBuffers(*node, channel, pipe_rate))
        return nullptr;
    node->is_logical = readIsLogical(stanza);
    if (!watch(*node, fd))
        return nullptr;
    return node.release();
}
