#include "vu/description/channel_reader.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

#include "vu/description/object_reader.h"
#include "vu/description/signal_lists.h"
#include "vu/description/source_reader.h"
#include "vu/description/stanza_rules.h"
#include "vu/description/store_rules.h"
#include "vu/support/address.h"

namespace vu {

namespace {

// Where a source listens whose description does not say.
std::string defaultAddress(const std::string &name)
{
    std::string file = name;
    std::ranges::replace(file, '/', '_');
    return fmt::format("unix:run/{}.sock", file);
}

std::string givenAddress(ObjectReader &keys, const Channel &channel)
{
    if (keys.has("address") || !keys.has("source") || channel.name.empty())
        return keys.text("address");
    const std::string address = defaultAddress(channel.name);
    keys.findings().filledIn(keys.pathOf("address"), address);
    return address;
}

std::string readAddress(ObjectReader &keys, const Reading &reading, const Channel &channel)
{
    const std::string text = givenAddress(keys, channel);
    if (text.empty())
        return text;
    try {
        Address address = parseAddress(text);
        if (address.family == Address::Family::Tcp && address.port == 0)
            keys.findings().mistake(keys.pathOf("address"), "expected a port from 1 to 65535");
        if (address.family == Address::Family::Unix)
            address = parseAddress("unix:" + reading.resolved(address.path));
        return address.text();
    } catch (const InputError &error) {
        keys.findings().mistake(keys.pathOf("address"), error.what());
        return {};
    }
}

Store readChannelStore(ObjectReader &keys, const Channel &channel)
{
    const bool frames = channel.kind != ChannelKind::kXcp && channel.kind != ChannelKind::kStream;
    const bool numbers = channel.kind == ChannelKind::kSequential || channel.kind == ChannelKind::kFloats ||
                         channel.kind == ChannelKind::kHeldFloats;
    const Store store = readStore(keys, {numbers, channel.sample_rate > 0.0, channel.values}, frames);
    if (store.wanted && !frames)
        keys.findings().mistake(store.path,
                                "only the signals of such a channel can be stored: expected false");
    return store;
}

// A sequential channel has the rate that the file of its source knows.
void settleSampleRate(Json &stanza, const std::string &path, std::optional<double> known, Findings &findings)
{
    constexpr double kNear = 1e-3; // times in a table are rounded
    const auto type = stanza.find("data_type");
    if (!known || type == stanza.end() || !type->is_string() ||
        type->get_ref<const std::string &>().find("sequential_") == std::string::npos)
        return;
    const auto given = stanza.find("sample_rate");
    const std::string key = memberPath(path, "sample_rate");
    if (given == stanza.end()) {
        stanza["sample_rate"] = *known;
        findings.filledIn(key, fmt::format("{} Hz, as the file of the source has it", *known));
    } else if (given->is_number() && std::abs(given->get<double>() - *known) > kNear * *known) {
        findings.mistake(key, fmt::format("the file of the source has {} Hz", *known));
    }
}

std::string textIn(const Json &object, const char *key)
{
    const auto found = object.is_object() ? object.find(key) : object.end();
    return object.is_object() && found != object.end() && found->is_string() ? found->get<std::string>()
                                                                             : std::string();
}

// A float channel with a sample rate is a stream that holds its values.
void fillHeldChannel(Json &stanza, const std::string &path, const Json &channel, Findings &findings)
{
    const std::string type = textIn(stanza, "data_type");
    const auto values = floatTypeIn(type);
    if (!values || !stanza.contains("sample_rate") || !type.starts_with("message_float"))
        return;
    Store store; // of which nothing else matters here; its mistakes are found when it is read
    if (const auto given = channel.find("store"); given != channel.end())
        store.element = textIn(*given, "data_type");
    fillHeldStream(stanza, path, *values, store, findings);
}

// Returns the stanza as the library gets it.
Json readStanza(ObjectReader &keys, const Reading &reading, Channel &channel, const Json &whole)
{
    Findings &findings = reading.findings;
    const std::string path = keys.pathOf("stanza");
    const Json *given = keys.find("stanza");
    if (!given) {
        findings.mistake(path, "is missing: expected an object");
        return Json::object();
    }
    Json completed = *given;
    if (completed.is_object()) {
        settleSampleRate(completed, path, knownSampleRate(whole, reading), findings);
        fillHeldChannel(completed, path, whole, findings);
    }
    ObjectReader stanza(findings, completed, path);
    readChannelStanza(stanza, channel);
    if (!completed.is_object())
        return Json::object();
    if (const auto invalid = completed.find("invalid_data_output_value");
        channel.kind == ChannelKind::kHeldFloats && invalid != completed.end() && invalid->is_number())
        channel.invalid = invalid->get<double>();
    if (!completed.contains("start_time"))
        completed["start_time"] = reading.test.start_time;
    channel.stanza = completed.dump();
    return completed;
}

} // namespace

Channel readChannel(const Json &value, const std::string &path, const Reading &reading)
{
    ObjectReader keys(reading.findings, value, path);
    Channel channel;
    channel.path = path;
    channel.where = reading.findings.place(path);
    const Json stanza = readStanza(keys, reading, channel, keys.object());
    channel.address = readAddress(keys, reading, channel);
    channel.pipe_rate = keys.number("pipe_rate", kPipeRate, 10.0);
    channel.unit = keys.text("unit", "");
    channel.store = readChannelStore(keys, channel);
    if (const Json *source = keys.find("source")) {
        ObjectReader options(reading.findings, *source, keys.pathOf("source"));
        channel.source = readSource(options, reading, channel, stanza);
        if (reading.options.sources == Sources::kHere)
            checkSource(options, reading, channel);
    }
    readSignals(keys, reading.folder, channel);
    keys.close();
    return channel;
}

} // namespace vu
