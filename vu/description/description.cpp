#include "vu/description/description.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sys/time.h>

#include "vu/description/channel_reader.h"
#include "vu/description/object_reader.h"
#include "vu/description/output_trial.h"
#include "vu/description/stanza_rules.h"
#include "vu/description/store_rules.h"
#include "vu/description/whole_rules.h"

namespace vu {

namespace {

std::string now()
{
    timeval time{};
    gettimeofday(&time, nullptr);
    tm local{};
    localtime_r(&time.tv_sec, &local);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}", local.tm_year + 1900, local.tm_mon + 1,
                       local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, time.tv_usec);
}

WatchedChannel readWatched(const Json &value, const std::string &path, Findings &findings)
{
    ObjectReader keys(findings, value, path);
    WatchedChannel watched;
    watched.path = path;
    watched.channel = keys.text("channel");
    const std::string mode = keys.word("mode", {"both", "upper", "lower"}, "both");
    watched.mode = mode == "both" ? 1 : mode == "upper" ? 2 : 3;
    if (watched.mode != 2)
        watched.lower = keys.number("lower", kAnyNumber);
    if (watched.mode != 3)
        watched.upper = keys.number("upper", kAnyNumber);
    if (watched.mode == 1 && watched.lower > watched.upper)
        findings.mistake(keys.pathOf("upper"),
                         fmt::format("expected at least lower, which is {}", watched.lower));
    watched.report = keys.flag("report", true);
    keys.close();
    return watched;
}

Monitor readMonitor(const Json &value, const std::string &path, const Reading &reading)
{
    constexpr size_t kLongestMonitorName = 103;
    ObjectReader keys(reading.findings, value, path);
    Monitor monitor;
    monitor.path = path;
    monitor.name = keys.text("name");
    if (monitor.name.size() > kLongestMonitorName)
        reading.findings.mistake(keys.pathOf("name"), "expected at most 103 bytes");
    checkName(reading.findings, keys.pathOf("name"), monitor.name);
    monitor.rate = keys.number("rate", kSampleRate);
    monitor.store = readStore(keys, {true, true, ValueType::kFloat64}, true);
    const Json &channels = keys.array("channels");
    if (channels.empty())
        reading.findings.mistake(keys.pathOf("channels"), "expected an array with at least one channel");
    for (size_t i = 0; i < channels.size(); i++)
        monitor.channels.push_back(
            readWatched(channels[i], elementPath(keys.pathOf("channels"), i), reading.findings));
    keys.close();
    return monitor;
}

std::string readStartTime(ObjectReader &keys, Findings &findings)
{
    std::string text = keys.text("start_time", "now");
    if (text == "now")
        return now();
    if (!isLocalTime(text))
        findings.mistake("start_time", "expected \"now\" or a local time such as 2026-03-15T10:15:30.25");
    return text;
}

void readFile(ObjectReader &keys, Reading &reading)
{
    const ReadOptions &options = reading.options;
    const std::string file = keys.text("file");
    reading.test.file = options.output.empty() ? reading.resolved(file) : options.output;
    if (!options.try_output || (options.output.empty() && file.empty()))
        return;
    const std::string refusal = outputRefusal(reading.test.file, options.replace);
    if (refusal.empty())
        return;
    if (options.output.empty())
        reading.findings.mistake("file", refusal);
    else
        reading.findings.mistakeElsewhere({"--output", 0, "", refusal});
}

void readTop(ObjectReader &keys, Reading &reading)
{
    Description &test = reading.test;
    const ReadOptions &options = reading.options;
    test.name = keys.text("name");
    checkName(reading.findings, "name", test.name);
    test.start_time = readStartTime(keys, reading.findings);
    test.duration = keys.number("duration", {-1e-300, 1e9, "a number of seconds from 0 on"}, 0.0);
    if (options.seconds > 0.0)
        test.duration = options.seconds;
    readFile(keys, reading);
    test.flush_interval = keys.number("flush_interval", {0.0, 3600.0, "a number above 0, at most 3600"}, 0.2);
    test.sync_interval =
        keys.number("sync_interval", {-1e-300, 3600.0, "a number of seconds from 0 to 3600"}, 1.0);
    test.connect_timeout =
        keys.number("connect_timeout", {0.0, 86400.0, "a number above 0, at most 86400"}, 10.0);
    const Json &channels = keys.array("channels");
    if (channels.empty())
        reading.findings.mistake("channels", "expected an array with at least one channel");
    for (size_t i = 0; i < channels.size(); i++)
        test.channels.push_back(readChannel(channels[i], elementPath("channels", i), reading));
    const Json &monitors = keys.array("monitors");
    for (size_t i = 0; i < monitors.size(); i++)
        test.monitors.push_back(readMonitor(monitors[i], elementPath("monitors", i), reading));
    keys.close();
}

// A recording replaces no file that the test reads, whatever --force says.
void checkInputs(const LocatedJson &json, const std::filesystem::path &file, const ReadOptions &options,
                 Findings &findings, const Description &test)
{
    std::vector<std::filesystem::path> inputs{file};
    for (const Channel &channel : test.channels)
        if (channel.source && !channel.source->arguments.empty())
            inputs.emplace_back(channel.source->arguments.front());
    const Json channels = json.root().is_object() ? json.root().value("channels", Json::array()) : Json();
    for (const Json &channel : channels) {
        const Json dbc = channel.is_object() ? channel.value("dbc", Json()) : Json();
        for (const Json &list : dbc.is_array() ? dbc : Json::array({dbc}))
            if (list.is_object() && list.contains("file") && list["file"].is_string())
                inputs.push_back(file.parent_path() / list["file"].get<std::string>());
    }
    const auto isOutput = [&test](const std::filesystem::path &input) {
        std::error_code ignored; // one that is not there is no input either
        return std::filesystem::equivalent(test.file, input, ignored);
    };
    const auto input = std::find_if(inputs.begin(), inputs.end(), isOutput);
    if (input == inputs.end())
        return;
    const std::string text = fmt::format("{} is read by this test, and never written over", input->string());
    if (options.output.empty())
        findings.mistake("file", text);
    else
        findings.mistakeElsewhere({"--output", 0, "", text});
}

} // namespace

Description parseDescription(std::string_view text, const std::filesystem::path &file,
                             const ReadOptions &options)
{
    const LocatedJson json(file.string(), text);
    Findings findings(json);
    Description test;
    Reading reading{findings, test, file.parent_path(), options};
    ObjectReader keys(findings, json.root(), "");
    readTop(keys, reading);
    checkWhole(test, findings);
    for (const Channel &channel : test.channels)
        if (options.try_channel && !findings.isMistakeUnder(channel.path))
            options.try_channel(channel, findings);
    if (options.try_output)
        checkInputs(json, file, options, findings, test);
    if (options.try_output && !findings.isMistakeUnder("file"))
        warnOfFullDisk(test, findings);
    findings.throwIfAny();
    test.warnings = findings.warnings();
    test.details = findings.details();
    test.filled_in = findings.filledIn();
    return test;
}

Description readDescription(const std::filesystem::path &file, const ReadOptions &options)
{
    const auto refuse = [&](const std::string &why) {
        throw DescriptionError({{file.string(), 0, "", why}}, {});
    };
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored))
        refuse("is a folder: expected a description");
    errno = 0;
    std::ifstream in(file, std::ios::binary);
    if (!in.is_open())
        refuse(fmt::format("cannot be read: {}", std::strerror(errno)));
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (in.bad())
        refuse("cannot be read");
    return parseDescription(text, file, options);
}

} // namespace vu
