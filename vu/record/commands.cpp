// The subcommands check, run and record.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <functional>
#include <sstream>
#include <sys/socket.h>

#include "vu/command.h"
#include "vu/description/findings.h"
#include "vu/description/forecast.h"
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
    bool verbose = false;
    RecordOptions record;
};

// Makes the node and the signals of a channel once, on a socket that leads nowhere: the library has the last
// word on a stanza. One pair of sockets at a time serves a test of any size.
void tryChannel(const Channel &channel, Findings &findings)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
        throw std::runtime_error("no socket to try the stanzas on");
    const Descriptor peer(pair[1]);
    std::vector<Descriptor> sockets;
    sockets.emplace_back(pair[0]);
    Description alone;
    alone.channels.push_back(channel);
    try {
        makeChannels(alone, std::move(sockets));
    } catch (const InputError &error) {
        std::istringstream lines(error.what());
        for (std::string line; std::getline(lines, line);) {
            // Each begins with the place of what was refused; one without is about the channel as such.
            std::string path = channel.path, text = line;
            const auto isAbout = [&](const std::string &where, const std::string &itsPath) {
                if (!where.empty() && line.starts_with(where)) {
                    path = itsPath;
                    text = line.substr(where.size());
                }
            };
            isAbout(channel.where, channel.path);
            for (const Signal &signal : channel.signals)
                isAbout(signal.where, signal.path);
            findings.mistake(path, text);
        }
    }
}

Json findingsJson(const std::vector<Finding> &findings)
{
    Json list = Json::array();
    for (const Finding &finding : findings)
        list.push_back(
            {{"file", finding.file}, {"line", finding.line}, {"key", finding.key}, {"text", finding.text}});
    return list;
}

void printJson(const Json &json)
{
    fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
}

Description load(const Options &options, Sources sources)
{
    ReadOptions reading;
    reading.sources = sources;
    reading.output = options.output;
    reading.seconds = options.seconds;
    reading.try_output = true;
    reading.replace = options.record.force;
    reading.try_channel = tryChannel;
    return readDescription(options.description, reading);
}

// Reads the description and goes on with it. With --json its mistakes are an answer like any other.
int withDescription(const Options &options, Sources sources,
                    const std::function<int(const Description &)> &useIt)
{
    Description test;
    try {
        test = load(options, sources);
    } catch (const DescriptionError &error) {
        if (!options.record.json)
            throw;
        printJson({{"mistakes", findingsJson(error.mistakes)}, {"warnings", findingsJson(error.warnings)}});
        return kUsage;
    }
    for (const Finding &warning : test.warnings)
        say("{}\n", warningLine(warning));
    if (options.verbose)
        for (const Finding &detail : test.details)
            say("{}\n", warningLine(detail));
    return useIt(test);
}

void printForecast(const Description &test, const Forecast &expected)
{
    fmt::print("{}: {} channels, {} series stored in {}\n", test.name, test.channels.size(),
               expected.stored_tracks, test.file.string());
    fmt::print("{}/s of periodic data", sizeText(expected.bytes_per_second));
    if (expected.irregular_tracks > 0)
        fmt::print(", and what {} message channels bring", expected.irregular_tracks);
    fmt::print("\n{} free: full after {}\n", sizeText(expected.free_bytes),
               durationText(expected.secondsToFull()));
    if (!test.filled_in.empty())
        fmt::print("What the description leaves out is taken as:\n");
    for (const Finding &filled : test.filled_in)
        fmt::print("  {}\n", filled.toLine());
}

int check(const Options &options, const Description &test)
{
    const Forecast expected = forecast(test);
    if (!options.record.json) {
        printForecast(test, expected);
        return kDone;
    }
    printJson({{"test", test.name},
               {"file", test.file.string()},
               {"channels", test.channels.size()},
               {"stored", expected.stored_tracks},
               {"irregular", expected.irregular_tracks},
               {"bytes_per_second", expected.bytes_per_second},
               {"free_bytes", expected.free_bytes},
               {"seconds_to_full", expected.secondsToFull()},
               {"mistakes", Json::array()},
               {"warnings", findingsJson(test.warnings)},
               {"filled_in", findingsJson(test.filled_in)}});
    return kDone;
}

// What all three have: the description, and what the command line puts in its place.
CLI::App *addDescription(CLI::App &app, const char *name, const char *about,
                         const std::shared_ptr<Options> &options)
{
    CLI::App *command = app.add_subcommand(name, about);
    command->add_option("TEST", options->description, "Description of the test, a JSON file")->required();
    command->add_flag("--json", options->record.json, "The result for programs, mistakes included");
    command
        ->add_option("-o,--output", options->output, "The data file, in place of the one in the description")
        ->check([](const std::string &text) { return text.empty() ? "expected a path, got ''" : ""; });
    command->add_option("--for", options->seconds, "Ends after this many seconds")
        ->check([](const std::string &text) {
            char *end = nullptr;
            const double seconds = std::strtod(text.c_str(), &end);
            return *end == '\0' && std::isfinite(seconds) && seconds > 0.0
                       ? std::string()
                       : fmt::format("expected a number of seconds above 0, got '{}'", text);
        });
    command->add_flag("--force", options->record.force, "Replaces an existing data file");
    command->add_flag("--verbose", options->verbose, "Lists what a warning only counts");
    return command;
}

void addRecording(CLI::App &app, Action &chosen, const char *name, const char *about, Sources sources)
{
    auto options = std::make_shared<Options>();
    options->record.start_sources = sources == Sources::kHere;
    CLI::App *command = addDescription(app, name, about, options);
    command->callback([options, &chosen, sources] {
        chosen = [options, sources] {
            return withDescription(*options, sources, [&](const Description &test) {
                return recordTest(test, options->record);
            });
        };
    });
}

} // namespace

void addCheck(CLI::App &app, Action &chosen)
{
    auto options = std::make_shared<Options>();
    CLI::App *command = addDescription(
        app, "check",
        "Shows every mistake in a test description at once, each with file, line and key: all\n"
        "that `vu run` with the same options would refuse. Then what the test will bring, how long\n"
        "the disk lasts, and what is taken for what the description leaves out.\n"
        "Example: vu check examples/drive/drive.json",
        options);
    command->callback([options, &chosen] {
        chosen = [options] {
            return withDescription(*options, Sources::kHere,
                                   [&](const Description &test) { return check(*options, test); });
        };
    });
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
