// A channel's stanza becomes a node: the table of channel kinds and the order of the checks.
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
struct Channel {
    const char *dataType;
    const char *connector;
    const char *purpose; // text or null
    bool prerun;         // the channel's zero is the mean of its first frame
    double sampleRate;   // samples per second, above 0.0 if given
    bool sequentialized; // messages become a periodic stream

    bool typeHas(const char *part) const { return std::strstr(dataType, part) != nullptr; }
    bool typeIs(const char *whole) const { return std::strcmp(dataType, whole) == 0; }
    bool on(const char *part) const { return std::strstr(connector, part) != nullptr; }
    bool onBridge() const { return on("brg_") || on("hls_"); }
    bool isStream() const { return on("pd806h") || on("pd806k"); }
};

struct SequentialKind {
    const char *part;
    uint32_t size;
    Swap swap;
    void (*apply)(ProxyNode *, Frame *);
    void (*applyPrerun)(ProxyNode *, Frame *);
};
const SequentialKind sequentialKinds[] = {
    {"sequential_float32", 4, proxyNode_swapFloatSamples, proxyNode_applyFloatScaleOffset,
     proxyNode_applyPrerunZeroFloatScaleOffset},
    {"sequential_float64", 8, proxyNode_swapDoubleSamples, proxyNode_applyDoubleScaleOffset,
     proxyNode_applyPrerunZeroDoubleScaleOffset},
};

struct MessageKind {
    const char *dataType;
    uint32_t recordSize;
    uint32_t elementSize;
    Swap swap;
    Reader reader;
    Reader periodicReader; // with a sample rate; null: the kind has no periodic form
};
const MessageKind messageKinds[] = {
    {"message_raw", 1, kVaries, proxyNode_swapNone, proxyNode_ProxyReaderMessageRaw, nullptr},
    {"message_nmea", 1, kVaries, proxyNode_swapNone, proxyNode_ProxyReaderMessageNMEA, nullptr},
    {"message_can", 21, 21, proxyNode_swapNone, proxyNode_ProxyReaderMessageCAN, nullptr},
    {"message_xcp_ip", 1, kVaries, proxyNode_swapNone, proxyNode_ProxyReaderMessageXCPIP, nullptr},
    {"message_float32", 12, 12, proxyNode_swapFloatValue, proxyNode_ProxyReaderMessageFloat,
     proxyNode_ProxyReaderSequentializedMessage},
    {"message_float64", 16, 16, proxyNode_swapDoubleValue, proxyNode_ProxyReaderMessageDouble,
     proxyNode_ProxyReaderSequentializedMessage},
    {"message_float32_ntp", 12, 12, proxyNode_swapNone, proxyNode_ProxyReaderMessageNTPFloat,
     proxyNode_ProxyReaderSequentializedNTPMessage},
    {"message_float64_ntp", 16, 16, proxyNode_swapNone, proxyNode_ProxyReaderMessageNTPDouble,
     proxyNode_ProxyReaderSequentializedNTPMessage},
};

bool isIdentity(const ProxyNode &node, const Channel &channel)
{
    return node.scale == 1.0 && node.offset == 0.0 && node.rezero_offset == 0.0 && !channel.purpose;
}

bool readNames(ProxyNode &node, const libvu::Stanza &stanza, Channel &channel)
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
void readZeroMode(const libvu::Stanza &stanza, Channel &channel)
{
    channel.purpose = stanza.text("purpose");
    if (channel.purpose)
        return;
    channel.prerun = stanza.isTrue("do_prerun_zero");
    if (channel.prerun && !channel.onBridge())
        channel.purpose = "prerun_zero";
}

void readCalibration(ProxyNode &node, const libvu::Stanza &stanza, Channel &channel)
{
    channel.sampleRate = stanza.number("sample_rate", -1.0);
    channel.sequentialized = channel.typeHas("message_float") && channel.sampleRate > 0.0;
    node.scale = stanza.number("scale", 1.0);
    node.offset = stanza.number("offset", 0.0);
    if (!channel.onBridge())
        node.rezero_offset = stanza.number("rezero_offset", 0.0);
}

bool becomeStream(ProxyNode &node, const Channel &channel)
{
    node.record_size = node.element_size = 4;
    node.main_reader = proxyNode_ProxyReaderZNTStream;
    auto *slots = static_cast<StreamSlot *>(std::calloc(STREAM_SLOTS, sizeof(StreamSlot)));
    if (!slots) {
        libvuError("Unable to allocate memory for the signal table of channel %s", node.name);
        return false;
    }
    node.channel_aux = slots;
    const bool little = channel.on("pd806k");
    auto handler = little ? streamProcessCANSignalScaleOffsetLE : streamProcessCANSignalScaleOffset;
    if (isIdentity(node, channel))
        handler = little ? streamProcessCANSignalNoScalingLE : streamProcessCANSignalNoScaling;
    for (int number = STREAM_FIRST_SLOT; number < STREAM_SLOTS; number++)
        slots[number].handler = handler;
    return true;
}

void becomeSequential(ProxyNode &node, const Channel &channel, const SequentialKind &kind)
{
    node.record_size = node.element_size = kind.size;
    node.byte_swap = kind.swap;
    node.main_reader = proxyNode_ProxyReaderSequentialNoScaling;
    if (isIdentity(node, channel))
        return;
    node.main_reader = proxyNode_ProxyReaderSequentialScaling;
    node.apply = channel.prerun ? kind.applyPrerun : kind.apply;
}

// Raw bytes on a GPS connector are sentences, whose times are moved onto the receiver's pulse.
bool becomeGps(ProxyNode &node)
{
    node.main_reader = proxyNode_ProxyReaderMessageNMEA;
    node.channel_aux = gpsInitializeTsAdjust();
    if (!node.channel_aux)
        libvuError("Unable to allocate memory for the timestamps of channel %s", node.name);
    return node.channel_aux != nullptr;
}

bool becomeMessage(ProxyNode &node, const Channel &channel, const MessageKind &kind)
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
    if (channel.typeIs("message_raw") && channel.on("gps"))
        return becomeGps(node);
    return true;
}

bool chooseKind(ProxyNode &node, const Channel &channel)
{
    if (channel.isStream())
        return becomeStream(node, channel);
    for (const SequentialKind &kind : sequentialKinds)
        if (channel.typeHas(kind.part))
            return becomeSequential(node, channel, kind), true;
    for (const MessageKind &kind : messageKinds)
        if (channel.typeIs(kind.dataType))
            return becomeMessage(node, channel, kind);
    libvuError("Unknown data_type: %s\n", channel.dataType);
    return false;
}

bool setUpStream(ProxyNode &node, const libvu::Stanza &stanza, const Channel &channel)
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
    // On a stream connector nothing has looked at the whole data type yet.
    if (channel.typeIs("message_float32") || channel.typeIs("message_float32_ntp")) {
        node.element_size = 4;
    } else if (channel.typeIs("message_float64") || channel.typeIs("message_float64_ntp")) {
        node.element_size = 8;
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

bool sizeBuffers(ProxyNode &node, const Channel &channel, double pipeRate)
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
    Channel channel{};
    if (!readNames(*node, stanza, channel))
        return nullptr;
    readZeroMode(stanza, channel);
    readCalibration(*node, stanza, channel);
    node->reader = proxyNode_ProxyReaderMarker;
    if (!chooseKind(*node, channel))
        return nullptr;
    if (channel.sequentialized && !setUpStream(*node, stanza, channel))
        return nullptr;
    if (!sizeBuffers(*node, channel, pipe_rate))
        return nullptr;
    node->is_logical = readIsLogical(stanza);
    if (!watch(*node, fd))
        return nullptr;
    return node.release();
}
