#include "vu/description/signal_lists.h"

#include <cmath>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/dbc/dbc.h"
#include "vu/description/stanza_rules.h"
#include "vu/description/store_rules.h"

namespace vu {

namespace {

constexpr double kStaleSeconds = 1.0;  // where the description does not say
constexpr double kLeastPipeRate = 1.0; // a stream's pool never grows below it

// A signal as its stanza describes it; keys of the recorder's own have been taken out of that.
Signal makeSignal(const Json &stanza, std::string path, const Findings &findings)
{
    Signal signal;
    signal.where = findings.place(path);
    signal.path = std::move(path);
    const auto text = [&](const char *key) {
        const auto found = stanza.find(key);
        return found != stanza.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    const auto number = [&](const char *key, double fallback) {
        const auto found = stanza.find(key);
        return found != stanza.end() && found->is_number() ? found->get<double>() : fallback;
    };
    signal.name = text("name");
    const auto type = floatTypeIn(text("data_type"));
    signal.text = !type;
    signal.values = type.value_or(ValueType::kFloat64);
    signal.pipe_rate = number("pipe_rate", signal.pipe_rate);
    if (!signal.text) {
        signal.sample_rate = number("sample_rate", 0.0);
        if (stanza.contains("invalid_data_output_value"))
            signal.invalid = number("invalid_data_output_value", 0.0);
    }
    signal.stanza = stanza.dump(-1, ' ', false, Json::error_handler_t::replace);
    return signal;
}

// The frames of a signal come at least once a second: below that it would run out of frames and lose samples.
double signalPipeRate(double asked, const std::string &path, Findings &findings)
{
    if (asked >= kLeastPipeRate || asked <= 0.0)
        return asked;
    findings.warning(
        path, fmt::format("signals deliver at least once a second: {} instead of {}", kLeastPipeRate, asked));
    return kLeastPipeRate;
}

// The values of a field of bits reach as far as its length says.
void warnOfBits(const Json &stanza, const Signal &signal, Findings &findings)
{
    const std::string format = stanza.value("db_data_format", std::string());
    if (signal.store.element.empty() ||
        (format != "ULSB" && format != "UMSB" && format != "SLSB" && format != "SMSB"))
        return;
    const double bits = stanza.value("db_bit_length", 0.0);
    const bool isSigned = format.front() == 'S';
    const double scale = stanza.value("scale", 1.0), offset = stanza.value("offset", 0.0);
    const double least = isSigned ? -std::exp2(bits - 1.0) : 0.0;
    const double most = std::exp2(isSigned ? bits - 1.0 : bits) - 1.0;
    const std::string warning = rangeWarning(signal.store, least * scale + offset, most * scale + offset);
    if (!warning.empty())
        findings.warning(signal.path, signal.name + ": " + warning);
}

// A pipe rate of its own, or the channel's.
void setPipeRate(Json &stanza, const ObjectReader &entry, const Channel &channel, Findings &findings)
{
    if (!stanza.contains("pipe_rate"))
        stanza["pipe_rate"] = channel.signal_pipe_rate;
    else if (stanza["pipe_rate"].is_number())
        stanza["pipe_rate"] =
            signalPipeRate(stanza["pipe_rate"].get<double>(), entry.pathOf("pipe_rate"), findings);
}

void readStanza(const Json &given, std::string path, Channel &channel, Findings &findings)
{
    const size_t before = findings.mistakes();
    ObjectReader entry(findings, given, std::move(path));
    Json stanza = entry.object();
    const std::string unit = entry.text("unit", "");
    stanza.erase("unit");
    stanza.erase("store");
    setPipeRate(stanza, entry, channel, findings);
    const auto type = stanza.find("data_type");
    const auto values = type != stanza.end() && type->is_string()
                            ? floatTypeIn(type->get_ref<const std::string &>())
                            : std::nullopt;
    const Store store = readStore(
        entry, {values.has_value(), values.has_value(), values.value_or(ValueType::kFloat64)}, true);
    if (values)
        fillHeldStream(stanza, entry.path(), *values, store, findings);
    ObjectReader completed(findings, stanza, entry.path());
    checkSignalStanza(completed, channel.kind);
    Signal signal = makeSignal(stanza, entry.path(), findings);
    signal.unit = unit;
    signal.store = store;
    if (findings.mistakes() == before)
        warnOfBits(stanza, signal, findings);
    channel.signals.push_back(std::move(signal));
}

void readStanzas(ObjectReader &keys, Channel &channel)
{
    const Json &given = keys.array("signals");
    for (size_t i = 0; i < given.size(); i++)
        readStanza(given[i], elementPath(keys.pathOf("signals"), i), channel, keys.findings());
}

// What the signals of a list have in common.
struct ListOptions {
    std::string prefix;
    ValueType values;
    Store store;
    double sample_rate;
    double stale;
    double invalid;
};

ListOptions readListOptions(ObjectReader &list)
{
    ListOptions options;
    options.prefix = list.text("prefix", "");
    options.values = *valueTypeNamed(list.word("data_type", {"float32", "float64"}, "float64"));
    options.store = readStore(list, {true, true, options.values}, true);
    options.sample_rate = list.number("sample_rate", kSampleRate);
    Findings &findings = list.findings();
    if (!list.has("stale"))
        findings.filledIn(list.pathOf("stale"), fmt::format("{} s", kStaleSeconds));
    options.stale = list.number("stale", kSeconds, kStaleSeconds);
    const auto lowest = lowestStored(options.values, options.store);
    if (list.has("invalid") || !lowest) {
        options.invalid = list.number("invalid", kAnyNumber);
    } else {
        options.invalid = *lowest;
        list.know({"invalid"});
        findings.filledIn(list.pathOf("invalid"), fmt::format("{}", *lowest));
    }
    return options;
}

std::vector<std::string> readNames(ObjectReader &list, const char *key)
{
    std::vector<std::string> names;
    const Json &given = list.array(key);
    for (size_t i = 0; i < given.size(); i++) {
        if (given[i].is_string() && !given[i].get_ref<const std::string &>().empty())
            names.push_back(given[i].get<std::string>());
        else
            list.findings().mistake(elementPath(list.pathOf(key), i), "expected a text that is not empty");
    }
    return names;
}

void readDbc(ObjectReader &keys, const Json &value, const std::filesystem::path &folder, Channel &channel)
{
    ObjectReader list(keys.findings(), value, keys.pathOf("dbc"));
    const std::string file = list.text("file");
    const ListOptions common = readListOptions(list);
    dbc::StanzaOptions options;
    options.dataType = nameOf(common.values);
    options.sampleRate = common.sample_rate;
    options.pipeRate = channel.signal_pipe_rate;
    options.stale = common.stale;
    options.invalid = common.invalid;
    options.match = *dbc::matchFromName(list.word("match", {"exact", "pgn"}, "exact"));
    options.select = readNames(list, "select");
    list.close();
    if (file.empty())
        return;
    dbc::Stanzas stanzas;
    try {
        stanzas = dbc::toStanzas(dbc::read(folder / file), options);
    } catch (const InputError &error) {
        keys.findings().mistake(list.pathOf("file"), error.what());
        return;
    }
    for (const std::string &warning : dbc::summarised(stanzas.warnings))
        keys.findings().warning(list.path(), warning);
    for (const dbc::Warning &warning : stanzas.warnings)
        keys.findings().detail(list.path(), warning.text);
    for (const dbc::SignalStanza &made : stanzas.signals) {
        Json stanza = Json::parse(made.json);
        stanza["name"] = common.prefix + made.name;
        Signal signal = makeSignal(stanza, list.path(), keys.findings());
        signal.unit = made.unit;
        signal.comment = made.comment;
        for (const dbc::ValueText &one : made.values)
            signal.value_texts.push_back({one.value, one.text});
        signal.store = common.store;
        checkName(keys.findings(), list.path(), signal.name);
        warnOfBits(stanza, signal, keys.findings());
        channel.signals.push_back(std::move(signal));
    }
}

void readGps(ObjectReader &keys, const Json &value, Channel &channel)
{
    ObjectReader list(keys.findings(), value, keys.pathOf("gps"));
    const std::string receiver = list.text("receiver", "Garmin GPS");
    const ListOptions options = readListOptions(list);
    const std::vector<std::string> names = readNames(list, "signals");
    if (names.empty())
        keys.findings().mistake(list.pathOf("signals"), "expected an array with at least one name");
    for (size_t i = 0; i < names.size(); i++) {
        const bool text = names[i] == "utc_date_time"; // the one channel of a receiver that is no number
        const Json stanza = {
            {"name", options.prefix + names[i]},
            {"data_type", text ? "message_raw" : std::string("sequential_") + nameOf(options.values)},
            {"source_database", receiver},
            {"connector", names[i]},
            {"pipe_rate", channel.signal_pipe_rate},
            {"sample_rate", options.sample_rate},
            {"scale", 1.0},
            {"offset", 0.0},
            {"invalid_data_output_value", options.invalid},
            {"stale_data_expiration_time", options.stale}};
        Signal signal = makeSignal(stanza, elementPath(list.pathOf("signals"), i), keys.findings());
        checkName(keys.findings(), signal.path, signal.name);
        if (text)
            signal.store.wanted = options.store.wanted;
        else
            signal.store = options.store;
        channel.signals.push_back(std::move(signal));
    }
    list.close();
}

} // namespace

void fillHeldStream(Json &stanza, const std::string &path, ValueType values, const Store &store,
                    Findings &findings)
{
    const char *invalid = "invalid_data_output_value", *stale = "stale_data_expiration_time";
    if (!stanza.contains(stale)) {
        stanza[stale] = kStaleSeconds;
        findings.filledIn(memberPath(path, stale), fmt::format("{} s", kStaleSeconds));
    }
    if (const auto lowest = lowestStored(values, store); lowest && !stanza.contains(invalid)) {
        stanza[invalid] = *lowest;
        findings.filledIn(memberPath(path, invalid), fmt::format("{}", *lowest));
    }
}

void readSignals(ObjectReader &keys, const std::filesystem::path &folder, Channel &channel)
{
    const auto refuseUnless = [&](const char *key, bool fits, const char *what) {
        if (keys.has(key) && !fits)
            keys.findings().mistake(keys.pathOf(key), what);
        return fits;
    };
    channel.signal_pipe_rate = channel.pipe_rate;
    if (keys.has("signals") || keys.has("dbc") || keys.has("gps"))
        channel.signal_pipe_rate =
            signalPipeRate(channel.pipe_rate, keys.pathOf("pipe_rate"), keys.findings());
    readStanzas(keys, channel);
    refuseUnless("signals", carriesSignals(channel.kind), "this kind of channel carries no signals");
    if (const Json *value = keys.find("dbc");
        refuseUnless("dbc", channel.kind == ChannelKind::kCan, "only message_can channels have a DBC") &&
        value)
        readDbc(keys, *value, folder, channel);
    if (const Json *value = keys.find("gps");
        refuseUnless("gps", channel.kind == ChannelKind::kNmea, "only GPS channels have such a list") &&
        value)
        readGps(keys, *value, channel);
}

} // namespace vu
