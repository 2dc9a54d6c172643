#include "libvu/bus/xcp_set.h"

#include <bit>
#include <cstring>

#include "libvu/bus/growing_array_private.h"
#include "libvu/bus/signal_stanza_private.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/stanza_private.h"
#include "libvu/time/sequentializer_private.h"

namespace {

constexpr uint32_t kIndexSize = 2;
constexpr uint8_t kTimeOnly = 0xFF;
constexpr int32_t kRecordsFlow = 2;

template <typename Value, typename Bits>
double readLittle(const uint8_t *value)
{
    return static_cast<double>(std::bit_cast<Value>(libvu::loadHost<Bits>(value)));
}

template <typename Value, typename Bits>
double readBig(const uint8_t *value)
{
    return static_cast<double>(std::bit_cast<Value>(libvu::loadBig<Bits>(value)));
}

struct ValueType {
    const char *name;
    uint32_t size;
    XcpReadValue little;
    XcpReadValue big;
};

template <typename Value, typename Bits>
constexpr ValueType row(const char *name)
{
    static_assert(sizeof(Value) == sizeof(Bits));
    constexpr XcpReadValue little = readLittle<Value, Bits>;
    return {name, sizeof(Value), little, sizeof(Value) == 1 ? little : readBig<Value, Bits>};
}

const ValueType valueTypes[] = {
    row<uint8_t, uint8_t>("UBYTE"),       row<int8_t, uint8_t>("SBYTE"),
    row<uint16_t, uint16_t>("UWORD"),     row<int16_t, uint16_t>("SWORD"),
    row<uint32_t, uint32_t>("ULONG"),     row<int32_t, uint32_t>("SLONG"),
    row<uint64_t, uint64_t>("A_UINT64"),  row<int64_t, uint64_t>("A_INT64"),
    row<float, uint32_t>("FLOAT32_IEEE"), row<double, uint64_t>("FLOAT64_IEEE"),
};

// To the letter: any other word, a mistyped one too, is big-endian.
const char *const littleEndianWords[] = {"MSB_LAST",  "LSB_FIRST", "INTEL", "msb_last",
                                         "lsb_first", "intel",     "little"};

bool isLittleEndian(const char *word)
{
    for (const char *known : littleEndianWords)
        if (std::strcmp(word, known) == 0)
            return true;
    return false;
}

bool refuse(const char *reason)
{
    libvuError("Invalid XCP-over-IP configuration: %s", reason);
    return false;
}

bool readValueType(libvu::RequiredKeys &required, XcpMeasurement &measurement)
{
    const char *byteOrder, *name;
    if (!required.read("xcp_byte_order", byteOrder) || !required.read("xcp_data_type", name))
        return false;
    for (const ValueType &type : valueTypes) {
        if (std::strcmp(type.name, name) != 0)
            continue;
        measurement.read_value = isLittleEndian(byteOrder) ? type.little : type.big;
        measurement.value_size = type.size;
        return true;
    }
    return refuse("invalid 'xcp_data_type'");
}

bool configure(const libvu::Stanza &stanza, libvu::RequiredKeys &required, XcpMeasurement &measurement)
{
    const char *name, *dataType;
    double invalid, stale, sampleRate, pipeRate;
    if (!required.read("name", name))
        return false;
    asprintf_or_die(&measurement.name, "%s", name);
    if (!required.read("scale", measurement.scale) || !required.read("offset", measurement.offset))
        return false;
    measurement.rezero_offset = stanza.number("rezero_offset", 0.0);
    if (!required.read("invalid_data_output_value", invalid) ||
        !required.read("stale_data_expiration_time", stale) || !required.read("sample_rate", sampleRate) ||
        !required.read("pipe_rate", pipeRate) || !required.read("data_type", dataType))
        return false;
    measurement.element_size = libvu::elementSizeOf(dataType);
    if (measurement.element_size == 0)
        return refuse("invalid 'data_type'");
    if (!readValueType(required, measurement))
        return false;
    measurement.sequentializer =
        createSequentializer(measurement.element_size, pipeRate, sampleRate, stale, invalid);
    if (!measurement.sequentializer)
        return refuse("failed to create sequentializer");
    measurement.sequentializer->pipes = &measurement.pipes;
    measurement.state = kRecordsFlow;
    return true;
}

struct MeasurementFree {
    void operator()(XcpMeasurement *measurement) const
    {
        std::free(measurement->name);
        std::free(measurement);
    }
};
using OwnedMeasurement = std::unique_ptr<XcpMeasurement, MeasurementFree>;

void advanceAll(const XcpIpSet &set, libvu::Moment time)
{
    for (uint32_t i = 0; i < set.count; i++)
        libvu::advance(*set.measurements[i]->sequentializer, time);
}

} // namespace

XcpIpSet *xcp_ip_set_create(void)
{
    return libvu::makeZeroed<XcpIpSet>().release();
}

XcpMeasurement *xcp_ip_set_add_measurement(XcpIpSet *set, const char *json)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza stanza(json, parserText);
    if (!stanza.parsed()) {
        libvuError("Invalid XCP-over-IP measurement JSON: %s", parserText);
        return nullptr;
    }
    OwnedMeasurement measurement(libvu::makeZeroedAtLine<XcpMeasurement>().release());
    if (!measurement || !libvu::makeRoom(set->measurements, set->capacity, set->count)) {
        libvuError("Unable to allocate memory for XCP-over-IP measurement");
        return nullptr;
    }
    // The peer counts the same measurements: a refused one must not take an index.
    libvu::RequiredKeys required(stanza);
    if (!configure(stanza, required, *measurement)) {
        if (const char *key = required.missing())
            libvuError("Invalid XCP-over-IP configuration: missing '%s'", key);
        return nullptr;
    }
    return set->measurements[set->count++] = measurement.release();
}

void xcp_ip_set_process(XcpIpSet *set, int64_t timestamp, const void *data, uint32_t length)
{
    libvu::WireReader message(data, length);
    const libvu::Moment time(timestamp);
    if (length == 1 && message.u8() == kTimeOnly)
        advanceAll(*set, time);
    while (message.remaining() >= kIndexSize) {
        const uint16_t index = message.u16be();
        if (index >= set->count)
            return;
        const XcpMeasurement &measurement = *set->measurements[index];
        const auto value = message.bytes(measurement.value_size);
        if (!message.ok())
            return;
        const double raw = measurement.read_value(value.data());
        libvu::takeValue(*measurement.sequentializer, time, raw * measurement.scale + measurement.offset);
    }
}

void xcp_ip_set_destroy(XcpIpSet *set)
{
    if (!set)
        return;
    for (uint32_t i = 0; i < set->count; i++)
        std::free(set->measurements[i]);
    std::free(set->measurements);
    std::free(set);
}
