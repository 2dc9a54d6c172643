#include "libvu/stream/metainfo.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ev.h>

#include "libvu/bus/can_signal.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/stanza_private.h"
#include "libvu/stream/stream_signal.h"

using libvu::Json;
using Text = libvu::Owned<char>;

namespace {

constexpr double kFilling = 75.0; // percent
constexpr double kFull = 97.0;
constexpr double kHeartbeat = 3.0; // seconds
constexpr uint64_t kFirstBuffer = 2048;

// A failure's text, in memory of its own: the callback that gets it may bring the next metainfo.
char *failure(const char *format, ...) VU_PRINTF(1, 2);
char *failure(const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0)
        return text;
    libvuError("Unable to allocate memory for the text of a metainfo failure");
    return nullptr;
}

const char *ignore(ProxyNode *, uint32_t, yajl_val_s *)
{
    return nullptr;
}

// The whole stanza is searched, so a short name may be found in the stanza of an earlier signal than the one
// meant.
CanSignalNode *findSignal(const ProxyNode *node, const char *name)
{
    CanSignalNode *signal = node->cs_list;
    while (signal && !std::strstr(signal->config, name))
        signal = signal->next;
    return signal;
}

char *bind(ProxyNode *node, uint32_t signalNumber, CanSignalNode *signal)
{
    auto *table = static_cast<StreamSlot *>(node->channel_aux);
    if (!table || signalNumber >= STREAM_SLOTS || !table[signalNumber].handler)
        return failure("handle_subscribe():  Signal number %u has no slot", signalNumber);
    table[signalNumber].context = signal;
    return nullptr;
}

const char *handleSubscribe(ProxyNode *node, uint32_t signalNumber, yajl_val_s *tree)
{
    const Json names = Json(tree).member("params");
    if (!names.isArray())
        return failure("handle_subscribe():  Key 'params' not found in JSON");
    Text notFound;
    for (size_t i = 0; i < names.size(); i++) {
        const char *name = names.at(i).text();
        if (!name)
            return failure("handle_subscribe():  Parameter %d is not a string", static_cast<int>(i));
        if (CanSignalNode *signal = findSignal(node, name)) {
            char *unbound = bind(node, signalNumber, signal);
            return unbound ? unbound : notFound.release();
        }
        if (node->cs_list)
            notFound.reset(failure("handle_subscribe():  %s not found in cs_list\n", name));
    }
    return notFound.release();
}

const char *handleSignalRate(ProxyNode *, uint32_t, yajl_val_s *tree)
{
    const Json samples = Json(tree).member("params").member("samples");
    if (!samples.exists())
        return failure("handle_signal_rate():  Can not find key '%s' in JSON", "samples");
    if (!samples.floatingForm())
        return failure("handle_signal_rate():  Key '%s' is not a JSON object", "samples");
    return nullptr;
}

bool equal(const char *a, const char *b)
{
    return std::strcmp(a, b) == 0;
}

char *missing(const char *key)
{
    return failure("handle_data():  Key '%s' does not exist", key);
}

char *unexpected(const char *key, const char *value, const char *expected)
{
    return failure("handle_data():  Key '%s' value is not expected value %s -> %s", key, value, expected);
}

// The samples have one form, whatever is said here: a peer that announces another one is only reported.
const char *handleData(ProxyNode *, uint32_t, yajl_val_s *tree)
{
    const Json params = Json(tree).member("params");
    const char *pattern = params.member("pattern").text();
    if (!pattern)
        return missing("pattern");
    if (equal(pattern, "V"))
        return failure("handle_data():  Data type 'V' NYI");
    if (!equal(pattern, "TV"))
        return failure("handle_data():  Key '%s' value is unknown value '%s'", "pattern", pattern);

    const char *endian = params.member("endian").text();
    if (!endian)
        return missing("endian");
    if (!equal(endian, "big") && !equal(endian, "little"))
        return unexpected("endian", endian, "big|little");

    const char *valueType = params.member("valueType").text();
    if (!valueType)
        return missing("valueType");
    if (!equal(valueType, "real32"))
        return unexpected("valueType", valueType, "real32");

    const char *timeType = params.member("time").member("type").text();
    if (!timeType)
        return missing("type");
    return equal(timeType, "ntp") ? nullptr : unexpected("time", timeType, "ntp");
}

const char *handleFill(ProxyNode *, uint32_t, yajl_val_s *tree)
{
    const Json params = Json(tree).member("params");
    if (!params.isArray())
        return "handle_fill():  Key 'params' not found in JSON";
    if (params.size() != 1)
        return "handle_fill():  Unexpected array length";
    const auto percent = params.at(0).floatingForm();
    if (!percent)
        return "handle_fill():  Parameter is not double";
    if (*percent > kFull)
        return "PD Stream buffers are full";
    if (*percent > kFilling)
        logWarning("PD Stream buffers are filling (%.0f%%)", *percent);
    return nullptr;
}

void heartbeatMissed(struct ev_loop *, ev_timer *, int) {}

// Every "alive" restarts the timer. It stays on the loop, and keeps the loop running, until the host stops
// it.
const char *handleAlive(ProxyNode *node, uint32_t, yajl_val_s *)
{
    if (!node->heartbeat) {
        node->heartbeat = libvu::makeZeroed<ev_timer>().release();
        if (!node->heartbeat)
            return "Unable to allocate HB watcher for proxy node";
        ev_timer_init(node->heartbeat, heartbeatMissed, kHeartbeat, kHeartbeat);
        node->heartbeat->data = node;
    }
    ev_timer_again(ev_default_loop(0), node->heartbeat);
    return nullptr;
}

} // namespace

const StreamMethod methods[STREAM_METHODS] = {
    {"unsubscribe", ignore}, {"subscribe", handleSubscribe}, {"signalRate", handleSignalRate},
    {"time", ignore},        {"data", handleData},           {"alive", handleAlive},
    {"fill", handleFill},    {"unavailable", ignore},        {"connect", ignore},
    {"disconnect", ignore},
};

namespace {

// A terminated copy of the text, valid until the next metainfo; null after a report.
const char *terminated(const void *text, uint32_t length)
{
    static char *buffer = nullptr;
    static uint64_t capacity = 0;
    const uint64_t needed = uint64_t{length} + 1;
    if (capacity < needed) {
        const uint64_t wanted = std::max(needed, kFirstBuffer);
        std::free(buffer);
        buffer = static_cast<char *>(std::malloc(wanted));
        capacity = buffer ? wanted : 0;
        if (!buffer) {
            libvuError("Failed to allocate (grow) JSON buffer to %u byte(s)",
                       static_cast<uint32_t>(std::min<uint64_t>(wanted, UINT32_MAX)));
            return nullptr;
        }
    }
    if (length > 0)
        std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return buffer;
}

struct Failure {
    const char *text; // null: none
    bool isOwned;
};

bool hasFixedTexts(const StreamMethod &method)
{
    return method.handler == handleFill || method.handler == handleAlive;
}

Failure handle(ProxyNode *node, uint32_t signalNumber, const char *json)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza stanza(json, parserText);
    if (!stanza.parsed())
        return {failure("process_channel_metainfo():  Parse Error - %s",
                        parserText[0] ? parserText : "Unknown error"),
                true};
    const char *name = stanza.text("method");
    if (!name)
        return {failure("process_channel_metainfo():  key '%s' not found in JSON '%s'", "method", json),
                true};
    for (const StreamMethod &method : methods)
        if (equal(name, method.name))
            return {method.handler(node, signalNumber, stanza.tree()), !hasFixedTexts(method)};
    return {nullptr, false};
}

} // namespace

void process_metainfo(ProxyNode *node, uint32_t signal_number, const void *text, uint32_t length)
{
    const char *json = terminated(text, length);
    if (!json)
        return;
    // The tree is gone before the report, whose callback may feed another node.
    const Failure failed = handle(node, signal_number, json);
    if (!failed.text)
        return;
    libvuError("%s", failed.text);
    if (failed.isOwned)
        std::free(const_cast<char *>(failed.text));
}
