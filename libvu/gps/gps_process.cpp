#include <algorithm>
#include <cstring>
#include <limits>

#include "libvu/core/callbacks.h"
#include "libvu/core/deliver_private.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/gps/ts_adjust_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr char kHere[] = "gpsProcessSignals";
using libvu::kLengthBytes, libvu::kTimeBytes;
constexpr uint32_t kHeadBytes = kLengthBytes + kTimeBytes;
constexpr uint32_t kHeartbeatLength = kTimeBytes + 5; // as long as a record of "#hb" and two characters
constexpr uint32_t kLongestRecord = std::numeric_limits<int32_t>::max();

struct Tokens {
    const char *text[GPS_TOKEN_SLOTS];
    int32_t count;
};

// Cuts a text that ends in a NUL at its commas; false if it has more fields than there are slots.
bool tokenize(char *text, size_t size, Tokens &tokens)
{
    constexpr int32_t kMostTokens = GPS_TOKEN_SLOTS - 1;
    std::fill_n(tokens.text, GPS_TOKEN_SLOTS, "");
    tokens.text[0] = text;
    tokens.count = 1;
    const char *const end = text + size;
    for (char *at = text; at < end; at++) {
        if (*at != ',')
            continue;
        if (tokens.count == kMostTokens)
            return false;
        *at = '\0';
        tokens.text[tokens.count++] = at + 1;
    }
    return true;
}

void deliverNumber(GpsSignal &signal, double value, int64_t time)
{
    if (signal.rezero_pending && libvuRezeroCallback) {
        signal.rezero_offset = value * signal.scale - signal.offset;
        libvuRezeroCallback(signal.name, signal.rezero_offset);
        signal.rezero_pending = 0;
    }
    const double result = (signal.offset + value * signal.scale) - signal.rezero_offset;
    sequentialize_value(signal.sequentializer, static_cast<double>(time), result);
}

void deliverText(GpsSignal &signal, const char *text, int64_t time)
{
    if (!signal.pipes.first)
        return;
    const auto size = static_cast<uint32_t>(std::strlen(text));
    Frame *frame = frameCreate(1, size + kHeadBytes, nullptr);
    if (!frame)
        return;
    auto *element = static_cast<char *>(frame->data);
    libvu::storeHost(element, size + kTimeBytes);
    libvu::storeHost(element + kLengthBytes, time);
    std::memcpy(element + kHeadBytes, text, size);
    frame->length = 1;
    libvu::stampStart(frame, time);
    libvu::deliver(signal.pipes, frame);
}

void deliverValue(GpsSignal &signal, const GpsExtractor &extractor, int64_t time)
{
    if (signal.sequentializer)
        deliverNumber(signal, extractor.value.number, time);
    else
        deliverText(signal, extractor.value.text, time);
}

// Shows the sentence to the signal's extractor if it listens to it; false ends the walk through the list.
bool feed(GpsSignal &signal, const Tokens &tokens, int64_t time)
{
    GpsExtractor *extractor = signal.extractor;
    if (!extractor) {
        libvuError("%s: channel extractor doesn't exist, possibly due to bad connector name\n", kHere);
        return false;
    }
    const int32_t last = extractor->sentence_count - 1;
    for (int32_t i = 0; i <= last; i++) {
        const char *id = extractor->sentence_id[i];
        if (!id) {
            libvuError("%s: extractor->sentence_id[%i] (%s) doesn't exist\n", kHere, i, tokens.text[0]);
            return false;
        }
        if (std::strcmp(id, tokens.text[0]) != 0)
            continue;
        // An extractor collects something from every sentence it names, and delivers with the last of them.
        extractor->extract(extractor, tokens.text, tokens.count);
        if (i == last && extractor->valid == 1)
            deliverValue(signal, *extractor, time);
    }
    return true;
}

void dispatch(GpsSignal *signals, char *text, size_t size, int64_t time)
{
    Tokens tokens;
    if (!tokenize(text, size, tokens)) {
        libvuError("%s: Out of tokenizing space", kHere);
        return;
    }
    for (GpsSignal *signal = signals; signal; signal = signal->next)
        if (!feed(*signal, tokens, time))
            return;
}

void moveOn(GpsSignal *signals, int64_t timestamp)
{
    for (GpsSignal *signal = signals; signal; signal = signal->next)
        if (signal->sequentializer)
            sequentialize(signal->sequentializer, static_cast<double>(timestamp));
}

GpsTsAdjust *adjustmentOf(const GpsSignal *signals)
{
    if (!signals || !signals->parent)
        return nullptr;
    return static_cast<GpsTsAdjust *>(signals->parent->channel_aux);
}

} // namespace

void gpsProcessSignals(GpsSignal *signals, void *record, int64_t timestamp)
{
    auto *bytes = static_cast<char *>(record);
    const auto length = libvu::toHostInPlace<uint32_t>(bytes);
    if (length < kTimeBytes || length > kLongestRecord)
        return;
    libvu::storeHost(bytes + kLengthBytes, timestamp);
    GpsTsAdjust *adjust = adjustmentOf(signals);
    if (!adjust)
        return;

    char *text = bytes + kHeadBytes;
    size_t size = length - kTimeBytes;
    if (length == kHeartbeatLength && std::string_view(text, size).starts_with("#hb"))
        return moveOn(signals, timestamp);
    auto *lineEnd = static_cast<char *>(std::memchr(text, '\r', size));
    if (lineEnd) {
        *lineEnd = '\0';
        size = static_cast<size_t>(lineEnd - text);
    }
    const auto time = libvu::adjustTimestamp(*adjust, std::string_view(text, size), timestamp);
    if (!time)
        return;
    if (lineEnd)
        return dispatch(signals, text, size, *time);

    // The last field needs a NUL after it, and the byte after the record is not ours. A text without a line
    // end is therefore moved down by one, over the timestamp, and back again afterwards.
    std::memmove(text - 1, text, size);
    text[size - 1] = '\0';
    dispatch(signals, text - 1, size, *time);
    std::memmove(text, text - 1, size);
    libvu::storeHost(bytes + kLengthBytes, timestamp);
}
