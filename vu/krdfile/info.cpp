// `vu info`: what a data file says of itself, read from its two ends.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <memory>

#include "vu/command.h"
#include "vu/krdfile/never.h"
#include "vu/krdfile/recording.h"
#include "vu/krdfile/tool.h"
#include "vu/support/terminal.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

struct InfoOptions {
    std::string file;
    bool json = false;
    bool verbose = false;
};

OrderedJson toJson(const Recording &recording, const Catalogue &catalogue)
{
    OrderedJson json = answerOf(recording);
    json["test"] = catalogue.test;
    json["start_time"] = catalogue.startTime;
    json["ticks_per_second"] = catalogue.ticksPerSecond;
    if (recording.closing) {
        json["end"] = recording.closing->end;
        json["seconds"] = recording.closing->seconds;
        json["events"] = recording.closing->events;
        json["never"] = neverNames(recording);
    }
    json["channels"] = OrderedJson::array();
    const auto ledger = ledgerByGroup(recording.closing);
    for (const Channel &channel : catalogue.channels) {
        OrderedJson entry = krd::toJson(channel);
        if (const auto line = ledger.find(channel.group); line != ledger.end()) {
            entry["received"] = line->second->received;
            entry["stored"] = line->second->stored;
            entry["discarded"] = line->second->discarded;
        }
        json["channels"].push_back(std::move(entry));
    }
    return json;
}

std::string storedAs(const Channel &channel)
{
    std::string text = printable(channel.elementName);
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
        return there ? printable(event[key].get<std::string>()) : std::string();
    };
    const bool timed = event.is_object() && event.contains("time") && event["time"].is_number();
    return fmt::format("{:>9} s  {}  {}  {}",
                       timed ? fmt::format("{:.3f}", event["time"].get<double>()) : "?", text("kind"),
                       text("channel"), text("text"));
}

void print(const Recording &recording, const Catalogue &catalogue, bool verbose)
{
    fmt::print("{}: test '{}', started {}\n", printable(recording.file->name()), printable(catalogue.test),
               printable(catalogue.startTime));
    fmt::print("{}, {} channels", sizeText(recording.file->size()), catalogue.channels.size());
    if (recording.closing)
        fmt::print(", {} s, ended: {}", recording.closing->seconds, printable(recording.closing->end));
    fmt::print("\n\n");

    const auto ledger = ledgerByGroup(recording.closing);
    std::vector<std::vector<std::string>> rows = {
        {"name", "kind", ">rate/Hz", "stored as", ">stored", ">discarded", "unit"}};
    for (const Channel &channel : catalogue.channels) {
        const auto line = ledger.find(channel.group);
        const bool known = line != ledger.end();
        rows.push_back({printable(channel.name), printable(channel.kindName),
                        channel.sampleRate > 0 ? fmt::format("{}", channel.sampleRate) : "",
                        storedAs(channel), known ? fmt::format("{}", line->second->stored) : "?",
                        known ? fmt::format("{}", line->second->discardedSum()) : "?",
                        printable(channel.unit)});
    }
    fmt::print("{}", tableText(rows, outputWidth()));
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
    const Recording recording = glance(openInput(options.file));
    const Catalogue &catalogue = requireCatalogue(recording);
    if (options.json)
        printAnswer(toJson(recording, catalogue));
    else
        print(recording, catalogue, options.verbose);
    return statusOf(recording);
}

} // namespace

} // namespace vu::krd

void vu::addInfo(CLI::App &app, Action &chosen)
{
    auto *command = app.add_subcommand("info", "Says what a data file holds, at once whatever its size");
    command->footer("Exit status 3: there is no closing block, or the catalogue or closing block is damaged. "
                    "Only 'vu verify' "
                    "looks into\nevery block.\nExample: vu info drive.krd");
    const auto options = std::make_shared<krd::InfoOptions>();
    command->add_option("FILE", options->file, "The data file")->required();
    command->add_flag("--json", options->json, "Answer with JSON, everything the file says of itself");
    command->add_flag("--verbose", options->verbose, "Names all signals that never had a value");
    command->callback([&chosen, options] { chosen = [options] { return krd::info(*options); }; });
}
