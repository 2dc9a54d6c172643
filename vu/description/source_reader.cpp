#include "vu/description/source_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include "vu/description/source_rate.h"
#include "vu/description/source_trial.h"
#include "vu/support/nearest.h"

namespace vu {

namespace {

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

// Empty unless it is a kind that `vu source` has.
std::string readKind(ObjectReader &keys)
{
    const std::string kind = keys.text("kind");
    if (kind.empty() || std::ranges::find(sourceKinds(), kind) != sourceKinds().end())
        return kind;
    keys.findings().mistake(keys.pathOf("kind"),
                            fmt::format("expected one of {}", fmt::join(sourceKinds(), ", ")));
    return {};
}

} // namespace

// `vu source` takes what the description says as options, and from the stanza what it leaves out.
Source readSource(ObjectReader &keys, const Reading &reading, const Channel &channel, const Json &stanza)
{
    Source source;
    source.kind = readKind(keys);
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
            keys.findings().mistake(keys.pathOf(key), "expected a text, a number, true, false or an array");
        else if (value == "")
            keys.findings().mistake(keys.pathOf(key), "expected a text that is not empty");
        else if (key == "file" || key == "device")
            source.arguments.insert(source.arguments.begin(), reading.resolved(optionText(value)));
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

namespace {

// What speaks against the file of a source before anybody reads it; empty: nothing.
std::string fileRefusal(const std::string &file)
{
    std::error_code error;
    const auto type = std::filesystem::status(file, error).type();
    if (type == std::filesystem::file_type::not_found)
        return fmt::format("there is no file {}", file);
    if (type == std::filesystem::file_type::directory)
        return fmt::format("{} is a folder: expected a file", file);
    if (access(file.c_str(), R_OK) != 0)
        return fmt::format("{}: cannot be read: {}", file, std::strerror(errno));
    if (type == std::filesystem::file_type::regular && std::filesystem::file_size(file, error) == 0)
        return fmt::format("{} is empty", file);
    return {};
}

// Devices may be plugged in later, and what is read from a pipe is gone: only files are opened ahead of time.
bool isOpenable(ObjectReader &keys, const Source &source)
{
    std::error_code ignored;
    return !keys.has("device") && !keys.has("interface") &&
           (!keys.has("file") || std::filesystem::is_regular_file(source.arguments.front(), ignored));
}

// Keys that are no option of that kind of source; these are left out of the trial of the others.
void checkOptionNames(ObjectReader &keys, Source &trial)
{
    std::vector<std::string> options = optionsOf(trial.kind);
    std::ranges::for_each(options, [](std::string &name) { std::ranges::replace(name, '-', '_'); });
    for (const auto &[key, value] : keys.object().items()) {
        if (key == "kind" || key == "file" || key == "device" || key == "interface" ||
            std::ranges::find(options, key) != options.end())
            continue;
        const std::string nearest = nearestOf(key, options);
        keys.findings().mistake(keys.pathOf(key),
                                fmt::format("is no option of vu source {}{}", trial.kind,
                                            nearest.empty() ? "" : fmt::format(": {}?", nearest)));
        std::string option = "--" + key;
        std::ranges::replace(option, '_', '-');
        std::erase_if(trial.arguments, [&](const std::string &word) {
            return word == option || word.starts_with(option + "=");
        });
    }
}

// A key of the source, or of the stanza where the source has none of that name.
std::string pathOfOption(ObjectReader &keys, const Channel &channel, const std::string &option)
{
    std::string key = option;
    std::ranges::replace(key, '-', '_');
    const bool ofStanza = key == "data_type" || key == "connector" || key == "sample_rate";
    if (key.empty() || (!keys.has(key.c_str()) && !ofStanza))
        return keys.path();
    return keys.has(key.c_str()) ? keys.pathOf(key) : memberPath(channel.path + ".stanza", key);
}

} // namespace

void checkSource(ObjectReader &keys, const Reading &reading, const Channel &channel)
{
    Findings &findings = reading.findings;
    const size_t before = findings.mistakes();
    Source trial = *channel.source;
    if (trial.kind.empty())
        return;
    if (keys.has("file") && !findings.isMistakeUnder(keys.pathOf("file")))
        if (const std::string refusal = fileRefusal(trial.arguments.front()); !refusal.empty())
            findings.mistake(keys.pathOf("file"), refusal);
    checkOptionNames(keys, trial);
    bool sound = findings.mistakes() == before && !findings.isMistakeUnder(keys.path());
    for (const char *key : {"data_type", "connector", "sample_rate", "start_time"})
        sound = sound && !findings.isMistakeUnder(memberPath(channel.path + ".stanza", key));
    for (const SourceRefusal &refusal : refusalsOf(trial, sound && isOpenable(keys, trial)))
        findings.mistake(pathOfOption(keys, channel, refusal.option), refusal.text);
}

std::optional<double> knownSampleRate(const Json &channel, const Reading &reading)
{
    const auto source = channel.is_object() ? channel.find("source") : channel.end();
    if (!channel.is_object() || source == channel.end() || !source->is_object())
        return std::nullopt;
    const auto text = [&](const char *key) {
        const auto found = source->find(key);
        return found != source->end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    for (const char *special : {"delimiter", "decimal", "skip", "sample_rate"})
        if (source->contains(special))
            return std::nullopt;
    std::error_code ignored;
    const std::string file = reading.resolved(text("file"));
    if (!std::filesystem::is_regular_file(file, ignored))
        return std::nullopt;
    return sampleRateOf(text("kind"), file);
}

} // namespace vu
