#include "libvu/bus/can_signal.h"

#include <bit>
#include <cmath>
#include <cstring>

#include "libvu/bus/bit_field_private.h"
#include "libvu/bus/can_signal_private.h"
#include "libvu/bus/signal_stanza_private.h"
#include "libvu/bus/time_only_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/stanza_private.h"
#include "libvu/time/sequentializer_private.h"

using libvu::ByteOrder;

namespace {

double physical(const CanSignalNode &node, double raw)
{
    return raw * node.scale + node.offset - node.rezero_offset;
}

uint32_t left(const CanSignalNode &node)
{
    return static_cast<uint32_t>(node.left_shift);
}

uint32_t right(const CanSignalNode &node)
{
    return static_cast<uint32_t>(node.right_shift);
}

template <ByteOrder order>
double handleUnsigned(CanSignalNode *node, const uint8_t *payload)
{
    const uint64_t word = libvu::payloadWord<order>(payload);
    return physical(*node, static_cast<double>(libvu::unsignedField(word, left(*node), right(*node))));
}

template <ByteOrder order>
double handleSigned(CanSignalNode *node, const uint8_t *payload)
{
    const uint64_t word = libvu::payloadWord<order>(payload);
    return physical(*node, static_cast<double>(libvu::signedField(word, left(*node), right(*node))));
}

double handleFloatIntel(CanSignalNode *node, const uint8_t *payload)
{
    const uint64_t word = libvu::payloadWord<ByteOrder::intel>(payload);
    const auto bits = static_cast<uint32_t>(libvu::unsignedField(word, left(*node), right(*node)));
    return physical(*node, std::bit_cast<float>(bits));
}

// Always bytes 0 to 3 or 4 to 7: the length does not count.
double handleFloatMotorola(CanSignalNode *node, const uint8_t *payload)
{
    const auto bits = libvu::loadBig<uint32_t>(payload + (node->left_shift > 0 ? 4 : 0));
    return physical(*node, std::bit_cast<float>(bits));
}

template <ByteOrder order>
double handleDouble(CanSignalNode *node, const uint8_t *payload)
{
    return physical(*node, std::bit_cast<double>(libvu::payloadWord<order>(payload)));
}

} // namespace

const CanDataHandler data_handlers[CAN_DATA_HANDLERS] = {
    {"ULSB", handleUnsigned<ByteOrder::intel>},
    {"UMSB", handleUnsigned<ByteOrder::motorola>},
    {"SLSB", handleSigned<ByteOrder::intel>},
    {"SMSB", handleSigned<ByteOrder::motorola>},
    {"FLSB", handleFloatIntel},
    {"FMSB", handleFloatMotorola},
    {"DLSB", handleDouble<ByteOrder::intel>},
    {"DMSB", handleDouble<ByteOrder::motorola>},
};

namespace {

struct NodeFree {
    void operator()(CanSignalNode *node) const
    {
        std::free(node->name);
        std::free(node->config);
        std::free(node);
    }
};
using OwnedNode = std::unique_ptr<CanSignalNode, NodeFree>;

// Only the first four characters count, and a float of more than 32 bits is a double.
bool chooseHandler(CanSignalNode &node, const char *text, char (&format)[5])
{
    std::strncpy(format, text, 4);
    format[4] = '\0';
    if (format[0] == 'F' && node.bit_length > 32.0)
        format[0] = 'D';
    for (const CanDataHandler &row : data_handlers) {
        if (std::strcmp(row.name, format) != 0)
            continue;
        node.handler = row.handler;
        return true;
    }
    libvuError("%s:  Unable to find data handler for data format '%s'", node.name, format);
    return false;
}

// A shift that no integer holds becomes one that lies outside the 64-bit word, so that the field reads 0.
int32_t shift(double bits)
{
    return std::isnan(bits) ? -1 : libvu::saturated<int32_t>(bits);
}

void placeField(CanSignalNode &node, const char *format)
{
    const double start = node.bit_start;
    const double byte = std::floor(start / 8.0) * 8.0;
    // floor() and not trunc(): a negative start then gives a negative shift, which reads 0, and not the bits
    // of some other field.
    node.left_shift = std::strstr(format, "MSB") ? shift(byte + 7.0 - (start - byte))
                                                 : shift(64.0 - std::trunc(start + node.bit_length));
    node.right_shift = shift(64.0 - std::trunc(node.bit_length));
}

bool readDecoding(const libvu::Stanza &stanza, libvu::RequiredKeys &required, CanSignalNode &node)
{
    const char *formatText, *id;
    char format[5];
    if (!required.read("db_data_format", formatText) || !required.read("db_bit_length", node.bit_length) ||
        !chooseHandler(node, formatText, format) || !required.read("db_bit_start", node.bit_start) ||
        !required.read("db_msg_id", id))
        return false;
    placeField(node, format);
    node.rezero_offset = stanza.number("rezero_offset", 0.0);
    node.id = libvu::wireIdentifier(id);
    const char *mask = stanza.text("db_msg_mask");
    node.mask = mask ? libvu::wireIdentifier(mask) : 0xFFFFFFFF;
    return true;
}

bool makeSequentializer(libvu::RequiredKeys &required, CanSignalNode &node)
{
    double pipeRate, sampleRate, invalid, stale;
    if (!required.read("pipe_rate", pipeRate) || !required.read("sample_rate", sampleRate) ||
        !required.read("invalid_data_output_value", invalid) ||
        !required.read("stale_data_expiration_time", stale))
        return false;
    node.sequentializer = createSequentializer(node.element_size, pipeRate, sampleRate, stale, invalid);
    if (!node.sequentializer) {
        libvuError("%s:  Unable to create sequentializer", node.name);
        return false;
    }
    node.sequentializer->pipes = &node.pipes;
    return true;
}

void reportShortMemory()
{
    libvuError("Unable to allocate can signal node");
}

// A CAN signal that cannot be named ends the process.
bool copyOrDie(const char *text, char *&copy)
{
    asprintf_or_die(&copy, "%s", text);
    return true;
}

bool configure(const libvu::Stanza &stanza, libvu::RequiredKeys &required, CanSignalNode &node,
               libvu::ReadOwnKeys readOwnKeys, libvu::CopyText copyText)
{
    const char *dataType, *name;
    if (!required.read("data_type", dataType))
        return false;
    node.element_size = libvu::elementSizeOf(dataType);
    if (node.element_size == 0) {
        libvuError("Unknown data type:  '%s'", dataType);
        return false;
    }
    if (!required.read("name", name))
        return false;
    if (!copyText(name, node.name)) {
        reportShortMemory();
        return false;
    }
    return required.read("scale", node.scale) && required.read("offset", node.offset) &&
           readOwnKeys(stanza, required, node) && makeSequentializer(required, node);
}

void decode(CanSignalNode &node, const CanRecord &record)
{
    const libvu::Moment time(libvu::loadHost<int64_t>(record.timestamp));
    if (record.flags & CAN_RECORD_TIME_ONLY) {
        libvu::advanceSilent(node, time);
        return;
    }
    if ((libvu::loadHost<uint32_t>(record.id) & node.mask) != node.id)
        return;
    double value = node.handler(&node, record.payload);
    if (node.rezero_pending && libvuRezeroCallback) {
        node.rezero_offset = value;
        value = 0.0;
        libvuRezeroCallback(node.name, node.rezero_offset);
        node.rezero_pending = 0;
    }
    libvu::takeValue(*node.sequentializer, time, value);
}

} // namespace

CanSignalNode *libvu::makeSignal(const char *json, ReadOwnKeys readOwnKeys, CopyText copyText)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza stanza(json, parserText);
    if (!stanza.parsed()) {
        libvuError("Unable to parse JSON:  %s", parserText);
        return nullptr;
    }
    OwnedNode node(libvu::makeZeroed<CanSignalNode>().release());
    if (!node || !copyText(json, node->config)) {
        reportShortMemory();
        return nullptr;
    }
    libvu::RequiredKeys required(stanza);
    if (configure(stanza, required, *node, readOwnKeys, copyText))
        return node.release();
    if (const char *key = required.missing())
        libvuError("%s:  Can not find parameter '%s' or is not expected type.\n%s\n",
                   node->name ? node->name : "Channel name not known", key, node->config);
    return nullptr;
}

CanSignalNode *canSignalInit(const char *json)
{
    return libvu::makeSignal(json, readDecoding, copyOrDie);
}

void canProcessSignals(CanSignalNode *list, void *records, int32_t count)
{
    auto *batch = static_cast<CanRecord *>(records);
    for (int32_t i = 0; i < count; i++)
        libvu::toHostInPlace<int64_t>(batch[i].timestamp);
    for (CanSignalNode *node = list; node; node = node->next)
        for (int32_t i = 0; i < count; i++)
            decode(*node, batch[i]);
}
