// The subcommands check, run and record.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <sys/socket.h>

#include "vu/command.h"
#include "vu/description/forecast.h"
#include "vu/description/mistakes.h"
#include "vu/record/live_channel.h"
#include "vu/record/run.h"
#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

struct Options {
    std::string description;
    std::string output;
    double seconds = 0.0;
    RecordOptions record;
};

// Makes every node and signal once, on sockets that lead nowhere: the library has the last word on a stanza.
void tryStanzas(const Description &test)
{
    std::vector<Descriptor> sockets, peers;
    for (size_t i = 0; i < test.channels.size(); i++) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
            throw std::runtime_error("no sockets to try the stanzas on");
        sockets.emplace_back(pair[0]);
        peers.emplace_back(pair[1]);
    }
    makeChannels(test, std::move(sockets));
}

Description load(const Options &options, Sources sources)
{
    Description test = readDescription(options.description, sources);
    for (const std::string &warning : test.warnings)
        say("{}\n", warningLine(warning));
    if (!options.output.empty())
        test.file = options.output;
    if (options.seconds > 0.0)
        test.duration = options.seconds;
    tryStanzas(test);
    return test;
}

int check(const Options &options)
{
    const Description test = load(options, Sources::kHere);
    const Forecast expected = forecast(test);
    if (options.record.json) {
        Json out = {{"test", test.name},
                    {"file", test.file.string()},
                    {"channels", test.channels.size()},
                    {"stored", expected.stored_tracks},
                    {"irregular", expected.irregular_tracks},
                    {"bytes_per_second", expected.bytes_per_second},
                    {"free_bytes", expected.free_bytes},
                    {"seconds_to_full", expected.secondsToFull()},
                    {"warnings", test.warnings}};
        fmt::print("{}\n", out.dump(2, ' ', false, Json::error_handler_t::replace));
        return kDone;
    }
    fmt::print("{}: {} channels, {} series stored in {}\n", test.name, test.channels.size(),
               expected.stored_tracks, test.file.string());
    fmt::print("{}/s of periodic data", sizeText(expected.bytes_per_second));
    if (expected.irregular_tracks > 0)
        fmt::print(", and what {} message channels bring", expected.irregular_tracks);
    fmt::print("\n{} free: full after {}\n", sizeText(expected.free_bytes),
               durationText(expected.secondsToFull()));
    return kDone;
}

CLI::App *addDescription(CLI::App &app, const char *name, const char *about,
                         const std::shared_ptr<Options> &options)
{
    CLI::App *command = app.add_subcommand(name, about);
    command->add_option("TEST", options->description, "Description of the test, a JSON file")->required();
    command->add_flag("--json", options->record.json, "The result for programs");
    return command;
}

void addRecording(CLI::App &app, Action &chosen, const char *name, const char *about, Sources sources)
{
    auto options = std::make_shared<Options>();
    options->record.start_sources = sources == Sources::kHere;
    CLI::App *command = addDescription(app, name, about, options);
    command->add_option("-o,--output", options->output,
                        "The data file, in place of the one in the description");
    command->add_option("--for", options->seconds, "Ends after this many seconds")
        ->check(CLI::PositiveNumber);
    command->add_flag("--force", options->record.force, "Replaces an existing data file");
    command->callback([options, &chosen, sources] {
        chosen = [options, sources] { return recordTest(load(*options, sources), options->record); };
    });
}

} // namespace

void addCheck(CLI::App &app, Action &chosen)
{
    auto options = std::make_shared<Options>();
    CLI::App *command =
        addDescription(app, "check",
                       "Shows every mistake in a test description, and what the test will bring\n"
                       "Example: vu check examples/drive/drive.json",
                       options);
    command->callback([options, &chosen] { chosen = [options] { return check(*options); }; });
}

void addRun(CLI::App &app, Action &chosen)
{
    addRecording(app, chosen, "run",
                 "Starts the sources of a test, records it, and stops them\n"
                 "A line `zero CHANNEL` on standard input zeroes a channel.\n"
                 "Example: vu run examples/drive/drive.json -o drive.krd",
                 Sources::kHere);
}

void addRecord(CLI::App &app, Action &chosen)
{
    addRecording(app, chosen, "record",
                 "Records a test from sources that somebody else runs\n"
                 "A line `zero CHANNEL` on standard input zeroes a channel.\n"
                 "Example: vu record test.json --for 60",
                 Sources::kElsewhere);
}

} // namespace vu
