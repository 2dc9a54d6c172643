#include "vu/description/description.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <iterator>
#include <set>
#include <sys/time.h>

#include "vu/command.h"
#include "vu/description/mistakes.h"
#include "vu/description/signal_lists.h"
#include "vu/description/source_trial.h"
#include "vu/description/stanza_rules.h"
#include "vu/description/store_rules.h"
#include "vu/support/address.h"

namespace vu {

namespace {

// What every part of a description is read with.
struct Reading {
    Mistakes &mistakes;
    Description &test;
    std::filesystem::path folder;
    Sources sources;
};

std::string resolved(const Reading &reading, const std::string &path)
{
    return (reading.folder / path).string();
}

std::string now()
{
    timeval time{};
    gettimeofday(&time, nullptr);
    tm local{};
    localtime_r(&time.tv_sec, &local);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}", local.tm_year + 1900, local.tm_mon + 1,
                       local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, time.tv_usec);
}

std::string readAddress(Fields &keys, const Reading &reading)
{
    const std::string text = keys.text("address");
    if (text.empty())
        return text;
    try {
        Address address = parseAddress(text);
        if (address.family == Address::Family::Tcp && address.port == 0)
            keys.mistakes().add(keys.pathOf("address"), "expected a port from 1 to 65535");
        if (address.family == Address::Family::Unix)
            address = parseAddress("unix:" + resolved(reading, address.path));
        return address.text();
    } catch (const InputError &error) {
        keys.mistakes().add(keys.pathOf("address"), error.what());
        return {};
    }
}

std::string optionText(const Json &value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_array())
        return value.dump();
    std::vector<std::string> parts;
    for (const Json &part : value)
        parts.push_back(optionText(part));
    return fmt::format("{}", fmt::join(parts, ","));
}

// `vu source` takes what the description says as options, and from the stanza what it leaves out.
Source readSource(Fields &keys, const Reading &reading, const Channel &channel, const Json &stanza)
{
    Source source;
    source.kind = keys.word("kind", {"sim", "wav", "csv", "candump", "can", "nmea"}, "");
    const auto add = [&](std::string key, const Json &value) {
        std::replace(key.begin(), key.end(), '_', '-');
        if (value.is_boolean() && !value.get<bool>())
            return;
        source.arguments.push_back("--" + key);
        if (!value.is_boolean())
            source.arguments.back() += "=" + optionText(value);
    };
    for (const auto &[key, value] : keys.object().items()) {
        if (key == "kind")
            continue;
        if (value.is_object() || value.is_null())
            keys.mistakes().add(keys.pathOf(key), "expected a text, a number, true, false or an array");
        else if (value == "")
            keys.mistakes().add(keys.pathOf(key), "expected a text that is not empty");
        else if (key == "file" || key == "device")
            source.arguments.insert(source.arguments.begin(), resolved(reading, optionText(value)));
        else if (key == "interface")
            source.arguments.insert(source.arguments.begin(), optionText(value));
        else
            add(key, value);
    }
    for (const char *key : {"data_type", "connector", "sample_rate"})
        if (!keys.has(key) && stanza.is_object() && stanza.contains(key) && !stanza[key].is_null() &&
            !stanza[key].is_object())
            add(key, stanza[key]);
    if (source.kind == "sim" && !keys.has("start_time")) // of its absolute times
        add("start_time", stanza.is_object() && stanza.contains("start_time")
                              ? stanza["start_time"]
                              : Json(reading.test.start_time));
    source.arguments.push_back("--listen=" + channel.address);
    return source;
}

// Devices may be plugged in later, and what is read from a pipe is gone: only files are opened ahead of time.
bool isOpenable(Fields &keys, const Source &source)
{
    if (keys.has("device") || keys.has("interface"))
        return false;
    std::error_code ignored;
    const auto type = keys.has("file") ? std::filesystem::status(source.arguments.front(), ignored).type()
                                       : std::filesystem::file_type::not_found;
    return type == std::filesystem::file_type::regular || type == std::filesystem::file_type::not_found;
}

void checkSource(Fields &keys, const Source &source, bool isRestSound)
{
    if (source.kind.empty())
        return;
    for (const std::string &refusal : refusalsOf(source, isRestSound && isOpenable(keys, source)))
        keys.mistakes().add(keys.path(), refusal);
}

Store readChannelStore(Fields &keys, const Reading &reading, const Channel &channel)
{
    const bool frames = channel.kind != ChannelKind::kXcp && channel.kind != ChannelKind::kStream;
    const bool numbers = channel.kind == ChannelKind::kSequential || channel.kind == ChannelKind::kFloats ||
                         channel.kind == ChannelKind::kHeldFloats;
    const Store store =
        readStore(keys, {numbers, channel.sample_rate > 0.0, channel.wide}, frames, reading.test.warnings);
    if (store.wanted && !frames)
        keys.mistakes().add(store.path, "only the signals of such a channel can be stored: expected false");
    return store;
}

void readStanza(Fields &keys, const Reading &reading, Channel &channel)
{
    const Json *given = keys.find("stanza");
    if (!given) {
        keys.mistakes().add(keys.pathOf("stanza"), "is missing: expected an object");
        return;
    }
    Fields stanza(keys.mistakes(), *given, keys.pathOf("stanza"));
    readChannelStanza(stanza, channel, reading.test.warnings);
    Json completed = stanza.object();
    if (!completed.contains("start_time"))
        completed["start_time"] = reading.test.start_time;
    channel.stanza = completed.dump();
}

Channel readChannel(const Json &value, const std::string &path, const Reading &reading)
{
    Fields keys(reading.mistakes, value, path);
    Channel channel;
    channel.path = path;
    channel.where = reading.mistakes.line(path, "");
    const size_t mistakesBefore = reading.mistakes.count();
    channel.address = readAddress(keys, reading);
    channel.pipe_rate = keys.number("pipe_rate", kPipeRate, 10.0);
    channel.unit = keys.text("unit", "");
    readStanza(keys, reading, channel);
    channel.store = readChannelStore(keys, reading, channel);
    if (const Json *source = keys.find("source")) {
        Fields options(reading.mistakes, *source, keys.pathOf("source"));
        channel.source =
            readSource(options, reading, channel, value.contains("stanza") ? value["stanza"] : Json());
        if (reading.sources == Sources::kHere)
            checkSource(options, *channel.source, reading.mistakes.count() == mistakesBefore);
    }
    readSignals(keys, reading.folder, channel, reading.test.warnings);
    keys.close();
    return channel;
}

WatchedChannel readWatched(const Json &value, const std::string &path, Mistakes &mistakes)
{
    Fields keys(mistakes, value, path);
    WatchedChannel watched;
    watched.path = path;
    watched.channel = keys.text("channel");
    const std::string mode = keys.word("mode", {"both", "upper", "lower"}, "both");
    watched.mode = mode == "both" ? 1 : mode == "upper" ? 2 : 3;
    if (watched.mode != 2)
        watched.lower = keys.number("lower", kAnyNumber);
    if (watched.mode != 3)
        watched.upper = keys.number("upper", kAnyNumber);
    watched.report = keys.flag("report", true);
    keys.close();
    return watched;
}

Monitor readMonitor(const Json &value, const std::string &path, const Reading &reading)
{
    constexpr size_t kLongestName = 103;
    Fields keys(reading.mistakes, value, path);
    Monitor monitor;
    monitor.path = path;
    monitor.name = keys.text("name");
    if (monitor.name.size() > kLongestName)
        reading.mistakes.add(keys.pathOf("name"), "expected at most 103 bytes");
    monitor.rate = keys.number("rate", kSampleRate);
    monitor.store = readStore(keys, {true, true, true}, true, reading.test.warnings);
    const Json &channels = keys.array("channels");
    if (channels.empty())
        reading.mistakes.add(keys.pathOf("channels"), "expected an array with at least one channel");
    for (size_t i = 0; i < channels.size(); i++)
        monitor.channels.push_back(
            readWatched(channels[i], elementPath(keys.pathOf("channels"), i), reading.mistakes));
    keys.close();
    return monitor;
}

void readTop(Fields &keys, Reading &reading)
{
    Description &test = reading.test;
    test.name = keys.text("name");
    test.start_time = keys.text("start_time", "now");
    tm ignored{};
    if (test.start_time == "now")
        test.start_time = now();
    else if (!strptime(test.start_time.c_str(), "%Y-%m-%dT%H:%M:%S", &ignored))
        reading.mistakes.add("start_time", "expected \"now\" or a local time such as 2026-03-15T10:15:30.25");
    test.duration = keys.number("duration", {-1e-300, 1e9, "a number of seconds from 0 on"}, 0.0);
    test.file = resolved(reading, keys.text("file"));
    test.flush_interval = keys.number("flush_interval", {0.0, 3600.0, "a number above 0, at most 3600"}, 0.2);
    test.connect_timeout =
        keys.number("connect_timeout", {0.0, 86400.0, "a number above 0, at most 86400"}, 10.0);
    const Json &channels = keys.array("channels");
    if (channels.empty())
        reading.mistakes.add("channels", "expected an array with at least one channel");
    for (size_t i = 0; i < channels.size(); i++)
        test.channels.push_back(readChannel(channels[i], elementPath("channels", i), reading));
    const Json &monitors = keys.array("monitors");
    for (size_t i = 0; i < monitors.size(); i++)
        test.monitors.push_back(readMonitor(monitors[i], elementPath("monitors", i), reading));
    keys.close();
}

// Everything stored lies side by side in one file under its name, and every source needs an address of its
// own.
void checkUnique(const Description &test, Mistakes &mistakes)
{
    std::set<std::string> names, addresses;
    const auto check = [&](const std::string &name, const std::string &path) {
        if (!name.empty() && !names.insert(name).second)
            mistakes.add(path, fmt::format("the name {} is taken already", name));
    };
    for (const Channel &channel : test.channels) {
        check(channel.name, channel.path + ".stanza.name");
        if (!channel.address.empty() && !addresses.insert(channel.address).second)
            mistakes.add(channel.path + ".address", "is taken already by another channel");
        for (const Signal &signal : channel.signals)
            check(signal.name, signal.path);
    }
    for (const Monitor &monitor : test.monitors)
        check(monitor.name, monitor.path + ".name");
}

// How the periodic channel of that name is stored; null: there is none.
const Store *periodic(const Description &test, const std::string &name)
{
    for (const Channel &channel : test.channels) {
        if (channel.name == name && channel.sample_rate > 0.0)
            return &channel.store;
        for (const Signal &signal : channel.signals)
            if (signal.name == name && !signal.text)
                return &signal.store;
    }
    return nullptr;
}

void checkWatched(Description &test, Mistakes &mistakes)
{
    for (const Monitor &monitor : test.monitors)
        for (const WatchedChannel &watched : monitor.channels) {
            const Store *store = periodic(test, watched.channel);
            if (!store) {
                if (!watched.channel.empty())
                    mistakes.add(watched.path + ".channel",
                                 fmt::format("there is no periodic channel {}", watched.channel));
                continue;
            }
            const double lowest = watched.mode == 2 ? watched.upper : watched.lower;
            const double highest = watched.mode == 3 ? watched.lower : watched.upper;
            if (const std::string warning = rangeWarning(*store, lowest, highest); !warning.empty())
                test.warnings.push_back(mistakes.line(watched.path, watched.channel + ": " + warning));
        }
}

} // namespace

Description parseDescription(std::string_view text, const std::filesystem::path &file, Sources sources)
{
    const LocatedJson json(file.string(), text);
    Mistakes mistakes(json);
    Description test;
    Reading reading{mistakes, test, file.parent_path(), sources};
    Fields keys(mistakes, json.root(), "");
    readTop(keys, reading);
    checkUnique(test, mistakes);
    checkWatched(test, mistakes);
    mistakes.throwIfAny(test.warnings);
    return test;
}

Description readDescription(const std::filesystem::path &file, Sources sources)
{
    std::ifstream in(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in.is_open() || in.bad())
        throw InputError(fmt::format("{}: can not be read", file.string()));
    return parseDescription(text, file, sources);
}

} // namespace vu
