#include "vu/description/signal_lists.h"

#include <cmath>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/dbc/dbc.h"
#include "vu/description/stanza_rules.h"
#include "vu/description/store_rules.h"

namespace vu {

namespace {

constexpr Fields::Range kSeconds{-1e-300, 1e12, "a number of seconds from 0 on"};

// Completes a signal from its stanza; keys of the recorder's own have been taken out of it.
Signal makeSignal(const Json &stanza, std::string path, const Mistakes &mistakes)
{
    Signal signal;
    signal.where = mistakes.line(path, "");
    signal.path = std::move(path);
    const auto text = [&](const char *key) {
        const auto found = stanza.find(key);
        return found != stanza.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    signal.name = text("name");
    const std::string type = text("data_type");
    signal.text = type.find("float") == std::string::npos;
    signal.wide = type.find("float32") == std::string::npos;
    const auto rate = stanza.find("sample_rate");
    signal.sample_rate =
        !signal.text && rate != stanza.end() && rate->is_number() ? rate->get<double>() : 0.0;
    signal.stanza = stanza.dump(-1, ' ', false, Json::error_handler_t::replace);
    return signal;
}

Storable storable(const Signal &signal)
{
    return {!signal.text, !signal.text, signal.wide};
}

// A field of bits says itself how far its values reach.
void warnOfBits(const Json &stanza, const Signal &signal, const Mistakes &mistakes,
                std::vector<std::string> &warnings)
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
        warnings.push_back(mistakes.line(signal.path, signal.name + ": " + warning));
}

void readStanzas(Fields &keys, Channel &channel, std::vector<std::string> &warnings)
{
    const Json &given = keys.array("signals");
    for (size_t i = 0; i < given.size(); i++) {
        const size_t before = keys.mistakes().count();
        Fields entry(keys.mistakes(), given[i], elementPath(keys.pathOf("signals"), i));
        Json stanza = entry.object();
        const std::string unit = entry.text("unit", "");
        stanza.erase("unit");
        stanza.erase("store");
        if (!stanza.contains("pipe_rate"))
            stanza["pipe_rate"] = channel.pipe_rate;
        Fields completed(keys.mistakes(), stanza, entry.path());
        checkSignalStanza(completed, channel.kind);
        Signal signal = makeSignal(stanza, entry.path(), keys.mistakes());
        signal.unit = unit;
        signal.store = readStore(entry, storable(signal), true, warnings);
        if (keys.mistakes().count() == before)
            warnOfBits(stanza, signal, keys.mistakes(), warnings);
        channel.signals.push_back(std::move(signal));
    }
}

// What the signals of a list have in common.
struct ListOptions {
    std::string prefix;
    std::string type;
    double sample_rate;
    double stale;
    double invalid;
};

ListOptions readListOptions(Fields &list)
{
    ListOptions options;
    options.prefix = list.text("prefix", "");
    options.type = list.word("data_type", {"float32", "float64"}, "float64");
    options.sample_rate = list.number("sample_rate", kSampleRate);
    options.stale = list.number("stale", kSeconds);
    options.invalid = list.number("invalid", kAnyNumber);
    return options;
}

std::vector<std::string> readNames(Fields &list, const char *key)
{
    std::vector<std::string> names;
    const Json &given = list.array(key);
    for (size_t i = 0; i < given.size(); i++) {
        if (given[i].is_string() && !given[i].get_ref<const std::string &>().empty())
            names.push_back(given[i].get<std::string>());
        else
            list.mistakes().add(elementPath(list.pathOf(key), i), "expected a text that is not empty");
    }
    return names;
}

void readDbc(Fields &keys, const Json &value, const std::filesystem::path &folder, Channel &channel,
             std::vector<std::string> &warnings)
{
    Fields list(keys.mistakes(), value, keys.pathOf("dbc"));
    const std::string file = list.text("file");
    const ListOptions common = readListOptions(list);
    dbc::StanzaOptions options;
    options.dataType = common.type;
    options.sampleRate = common.sample_rate;
    options.pipeRate = channel.pipe_rate;
    options.stale = common.stale;
    options.invalid = common.invalid;
    options.match = *dbc::matchFromName(list.word("match", {"exact", "pgn"}, "exact"));
    options.select = readNames(list, "select");
    const Store store = readStore(list, {true, true, common.type == "float64"}, true, warnings);
    list.close();
    if (file.empty())
        return;
    dbc::Stanzas stanzas;
    try {
        stanzas = dbc::toStanzas(dbc::read(folder / file), options);
    } catch (const InputError &error) {
        keys.mistakes().add(list.pathOf("file"), error.what());
        return;
    }
    for (const std::string &warning : stanzas.warnings)
        warnings.push_back(keys.mistakes().line(list.path(), warning));
    for (const dbc::SignalStanza &made : stanzas.signals) {
        Json stanza = Json::parse(made.json);
        stanza["name"] = common.prefix + made.name;
        Signal signal = makeSignal(stanza, list.path(), keys.mistakes());
        signal.unit = made.unit;
        signal.store = store;
        warnOfBits(stanza, signal, keys.mistakes(), warnings);
        channel.signals.push_back(std::move(signal));
    }
}

void readGps(Fields &keys, const Json &value, Channel &channel, std::vector<std::string> &warnings)
{
    Fields list(keys.mistakes(), value, keys.pathOf("gps"));
    const std::string receiver = list.text("receiver", "Garmin GPS");
    const ListOptions options = readListOptions(list);
    const Store store = readStore(list, {true, true, options.type == "float64"}, true, warnings);
    const std::vector<std::string> names = readNames(list, "signals");
    if (names.empty())
        keys.mistakes().add(list.pathOf("signals"), "expected an array with at least one name");
    for (size_t i = 0; i < names.size(); i++) {
        const bool text = names[i] == "utc_date_time"; // the one channel of a receiver that is no number
        const Json stanza = {{"name", options.prefix + names[i]},
                             {"data_type", text ? "message_raw" : "sequential_" + options.type},
                             {"source_database", receiver},
                             {"connector", names[i]},
                             {"pipe_rate", channel.pipe_rate},
                             {"sample_rate", options.sample_rate},
                             {"scale", 1.0},
                             {"offset", 0.0},
                             {"invalid_data_output_value", options.invalid},
                             {"stale_data_expiration_time", options.stale}};
        Signal signal = makeSignal(stanza, elementPath(list.pathOf("signals"), i), keys.mistakes());
        if (text)
            signal.store.wanted = store.wanted;
        else
            signal.store = store;
        channel.signals.push_back(std::move(signal));
    }
    list.close();
}

} // namespace

void readSignals(Fields &keys, const std::filesystem::path &folder, Channel &channel,
                 std::vector<std::string> &warnings)
{
    const auto refuseUnless = [&](const char *key, bool fits, const char *what) {
        if (keys.has(key) && !fits)
            keys.mistakes().add(keys.pathOf(key), what);
        return fits;
    };
    readStanzas(keys, channel, warnings);
    refuseUnless("signals", carriesSignals(channel.kind), "this kind of channel carries no signals");
    if (const Json *value = keys.find("dbc");
        refuseUnless("dbc", channel.kind == ChannelKind::kCan, "only message_can channels have a DBC") &&
        value)
        readDbc(keys, *value, folder, channel, warnings);
    if (const Json *value = keys.find("gps");
        refuseUnless("gps", channel.kind == ChannelKind::kNmea, "only GPS channels have such a list") &&
        value)
        readGps(keys, *value, channel, warnings);
}

} // namespace vu
