// `vu info`: what a data file says of itself, read from its two ends.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <memory>

#include "vu/command.h"
#include "vu/krdfile/never.h"
#include "vu/krdfile/recording.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct InfoOptions {
    std::string file;
    bool json = false;
    bool verbose = false;
};

OrderedJson toJson(const Recording &recording, const Catalogue &catalogue, const std::string &file)
{
    OrderedJson json = {{"file", file},
                        {"bytes", recording.file.size()},
                        {"test", catalogue.test},
                        {"start_time", catalogue.startTime},
                        {"ticks_per_second", catalogue.ticksPerSecond},
                        {"closed", recording.closing.has_value()}};
    if (recording.closing) {
        json["end"] = recording.closing->end;
        json["seconds"] = recording.closing->seconds;
        json["events"] = recording.closing->events;
        json["never"] = neverNames(recording);
    }
    json["channels"] = OrderedJson::array();
    for (const Channel &channel : catalogue.channels) {
        OrderedJson entry = krd::toJson(channel);
        if (const LedgerEntry *ledger =
                recording.closing ? recording.closing->byGroup(channel.group) : nullptr) {
            entry["received"] = ledger->received;
            entry["stored"] = ledger->stored;
            entry["discarded"] = ledger->discarded;
        }
        json["channels"].push_back(std::move(entry));
    }
    return json;
}

std::string storedAs(const Channel &channel)
{
    std::string text = channel.elementName;
    if (channel.runLength)
        text += " rle";
    if (!channel.identity())
        text += fmt::format(" x {} + {}", channel.scale, channel.offset);
    return text;
}

// Whatever an event lacks is left out; only its text is needed to understand it.
std::string eventText(const OrderedJson &event)
{
    const auto text = [&event](const char *key) {
        const bool there = event.is_object() && event.contains(key) && event[key].is_string();
        return there ? event[key].get<std::string>() : std::string();
    };
    const bool timed = event.is_object() && event.contains("time") && event["time"].is_number();
    return fmt::format("{:>9} s  {}  {}  {}",
                       timed ? fmt::format("{:.3f}", event["time"].get<double>()) : "?", text("kind"),
                       text("channel"), text("text"));
}

void print(const Recording &recording, const Catalogue &catalogue, const std::string &file, bool verbose)
{
    fmt::print("{}: test '{}', started {}\n", file, catalogue.test, catalogue.startTime);
    fmt::print("{}, {} channels", sizeText(recording.file.size()), catalogue.channels.size());
    if (recording.closing)
        fmt::print(", {} s, ended: {}", recording.closing->seconds, recording.closing->end);
    fmt::print("\n\n");

    std::vector<std::vector<std::string>> rows = {
        {"name", "kind", ">rate/Hz", "stored as", ">stored", ">discarded", "unit"}};
    for (const Channel &channel : catalogue.channels) {
        const LedgerEntry *ledger = recording.closing ? recording.closing->byGroup(channel.group) : nullptr;
        rows.push_back({channel.name, channel.kindName,
                        channel.sampleRate > 0 ? fmt::format("{}", channel.sampleRate) : "",
                        storedAs(channel), ledger ? fmt::format("{}", ledger->stored) : "?",
                        ledger ? fmt::format("{}", ledger->discardedSum()) : "?", channel.unit});
    }
    fmt::print("{}", tableText(rows));
    if (!recording.closing)
        return;
    if (const std::string never = neverText(recording, verbose); !never.empty())
        fmt::print("\n{}\n", never);
    if (recording.closing->events.empty())
        return;
    fmt::print("\n");
    for (const OrderedJson &event : recording.closing->events)
        fmt::print("{}\n", eventText(event));
}

int info(const InfoOptions &options)
{
    const MappedFile file(options.file);
    const Recording recording = glance(file.bytes(), options.file);
    const Catalogue &catalogue = requireCatalogue(recording, options.file);
    if (options.json)
        fmt::print("{}\n", toJson(recording, catalogue, options.file).dump(2));
    else
        print(recording, catalogue, options.file, options.verbose);
    if (recording.closing)
        return kDone;
    fmt::print(
        stderr,
        "{0}: there is no closing block at its end: it is being recorded, or the recording was not ended "
        "properly; 'vu verify {0}' says what is in it\n",
        options.file);
    return kDataMissing;
}

} // namespace

} // namespace vu::krd

void vu::addInfo(CLI::App &app, Action &chosen)
{
    auto *command = app.add_subcommand("info", "Says what a data file holds, at once whatever its size");
    command->footer("Example: vu info drive.krd");
    const auto options = std::make_shared<krd::InfoOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command->add_flag("--json", options->json, "Answer with JSON, everything the file says of itself");
    command->add_flag("--verbose", options->verbose, "Names all signals that never had a value");
    command->callback([&chosen, options] { chosen = [options] { return krd::info(*options); }; });
}
