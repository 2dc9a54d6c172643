#include "libvu/gps/gps_signal.h"

#include <cstring>

#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/stanza_private.h"
#include "libvu/gps/extractors_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

struct Discard {
    void operator()(GpsSignal *signal) const
    {
        std::free(signal->json);
        std::free(signal->name);
        std::free(signal->source_database);
        std::free(signal->extractor); // `scratch` is still the table's
        std::free(signal);
    }
};
using Draft = std::unique_ptr<GpsSignal, Discard>;

// 0: none of the three kinds.
int32_t widthOf(const char *dataType)
{
    if (std::strstr(dataType, "_float32"))
        return sizeof(float);
    if (std::strstr(dataType, "_float64"))
        return sizeof(double);
    return std::strstr(dataType, "message_raw") ? -1 : 0;
}

const char *nameOf(const GpsSignal &signal)
{
    return signal.name ? signal.name : "Channel name not known";
}

void reportMissing(const GpsSignal &signal, const char *key)
{
    libvuError("%s:  Can not find parameter '%s' or is not expected type.\n%s\n", nameOf(signal), key,
               signal.json);
}

const char *neededText(const GpsSignal &signal, const libvu::Stanza &stanza, const char *key)
{
    const char *text = stanza.text(key);
    if (!text)
        reportMissing(signal, key);
    return text;
}

bool readNeeded(const GpsSignal &signal, const libvu::Stanza &stanza, const char *key, double &number)
{
    const auto found = stanza.number(key);
    if (!found)
        reportMissing(signal, key);
    number = found.value_or(0.0);
    return found.has_value();
}

bool copy(const char *text, char *&into)
{
    into = strdup(text);
    if (!into)
        libvuError("Unable to allocate gps signal node");
    return into;
}

bool readIdentity(GpsSignal &signal, const libvu::Stanza &stanza)
{
    const char *dataType = neededText(signal, stanza, "data_type");
    if (!dataType)
        return false;
    signal.width = widthOf(dataType);
    if (signal.width == 0) {
        libvuError("Unknown data type:  '%s'", dataType);
        return false;
    }
    const char *name = neededText(signal, stanza, "name");
    if (!name || !copy(name, signal.name))
        return false;
    const char *receiver = stanza.text("source_database");
    return copy(receiver ? receiver : "Garmin GPS", signal.source_database);
}

bool takeRow(GpsSignal &signal, const GpsExtractor &row)
{
    signal.extractor = libvu::makeZeroed<GpsExtractor>().release();
    if (!signal.extractor) {
        libvuError("%s:  Unable to allocate extractor", signal.name);
        return false;
    }
    *signal.extractor = row;
    if (signal.parent)
        signal.extractor->ts_state = static_cast<GpsTsAdjust *>(signal.parent->channel_aux);
    return true;
}

// A connector that no row matches is no failure here: it comes up at each record.
bool selectRow(GpsSignal &signal, const libvu::Stanza &stanza)
{
    const char *connector = neededText(signal, stanza, "connector");
    if (!connector) {
        libvuError("%s:  Connector is required", signal.name);
        return false;
    }
    const auto rows = libvu::receiverRows(signal.source_database);
    if (rows.empty()) {
        libvuError("%s:  Unrecognized GPS type '%s'", signal.name, signal.source_database);
        return false;
    }
    for (const GpsExtractor &row : rows)
        if (std::strncmp(row.name, connector, std::strlen(row.name)) == 0)
            return takeRow(signal, row);
    return true;
}

// The value of a row is a number or a text, and a signal reads it as the one that its width says.
bool fits(const GpsSignal &signal, const libvu::Stanza &stanza)
{
    const bool wantsText = signal.width < 0;
    if (!signal.extractor || (signal.extractor->extract == libvu::utcDateTime) == wantsText)
        return true;
    libvuError("%s:  Connector '%s' does not fit data type '%s'", signal.name, stanza.text("connector"),
               stanza.text("data_type"));
    return false;
}

bool makeStream(GpsSignal &signal, const libvu::Stanza &stanza, double pipeRate)
{
    double sampleRate, invalidValue, staleSeconds;
    if (!readNeeded(signal, stanza, "scale", signal.scale) ||
        !readNeeded(signal, stanza, "offset", signal.offset))
        return false;
    signal.rezero_offset = stanza.number("rezero_offset", 0.0);
    if (!readNeeded(signal, stanza, "sample_rate", sampleRate) ||
        !readNeeded(signal, stanza, "invalid_data_output_value", invalidValue) ||
        !readNeeded(signal, stanza, "stale_data_expiration_time", staleSeconds) || !fits(signal, stanza))
        return false;
    signal.sequentializer = createSequentializer(static_cast<uint32_t>(signal.width), pipeRate, sampleRate,
                                                 staleSeconds, invalidValue);
    if (!signal.sequentializer) {
        libvuError("%s:  Unable to create sequentializer", signal.name);
        return false;
    }
    signal.sequentializer->pipes = &signal.pipes;
    return true;
}

bool configure(GpsSignal &signal, const libvu::Stanza &stanza)
{
    double pipeRate;
    if (!readIdentity(signal, stanza) || !selectRow(signal, stanza) ||
        !readNeeded(signal, stanza, "pipe_rate", pipeRate))
        return false;
    return signal.width < 0 ? fits(signal, stanza) : makeStream(signal, stanza, pipeRate);
}

} // namespace

GpsSignal *gpsSignalInit(ProxyNode *channel, const char *stanza)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza parsed(stanza, parserText);
    if (!parsed.parsed()) {
        libvuError("Unable to parse JSON:  %s", parserText);
        return nullptr;
    }
    Draft signal(libvu::makeZeroed<GpsSignal>().release());
    if (!signal) {
        libvuError("Unable to allocate gps signal node");
        return nullptr;
    }
    signal->parent = channel;
    if (!copy(stanza, signal->json) || !configure(*signal, parsed))
        return nullptr;
    return signal.release();
}
