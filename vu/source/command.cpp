#include <CLI/CLI.hpp>
#include <cmath>
#include <fmt/format.h>

#include "vu/source/kinds.h"

namespace vu {

const ServeOptions &CommonOptions::settled()
{
    if (endian == "big")
        serve.endian = Endian::Big;
    else if (endian == "little")
        serve.endian = Endian::Little;
    else
        throw InputError(fmt::format("--endian: expected big or little, got '{}'", endian));
    if (!(serve.speed >= 0.0) || std::isinf(serve.speed))
        throw InputError(fmt::format("--speed: expected 0 or more, got {}", serve.speed));
    if (!(serve.duration >= 0.0))
        throw InputError(fmt::format("--duration: expected seconds, 0 or more, got {}", serve.duration));
    serve.faults = parseFaults(faults);
    return serve;
}

void expectSeconds(const char *option, double value, double least, double most)
{
    if (!(value >= least && value <= most))
        throw InputError(fmt::format("{}: expected {} to {} seconds, got {}", option, least, most, value));
}

void expectLongestGap(double seconds)
{
    if (!(seconds > 0.0))
        throw InputError(fmt::format("--longest-gap: expected seconds above 0, got {}", seconds));
}

std::shared_ptr<CommonOptions> addCommonOptions(CLI::App &kind)
{
    auto common = std::make_shared<CommonOptions>();
    ServeOptions &serve = common->serve;
    const auto group = [](CLI::Option *option) { option->group("Channel"); };
    group(kind.add_option("--listen", serve.listen,
                          "unix:PATH, or tcp:HOST:PORT (with port 0 the chosen address is printed), or fd:N, "
                          "a listening\nunix socket that was inherited: it serves the process that started "
                          "this one, and nobody else")
              ->required());
    group(kind.add_option("--account", serve.account,
                          "descriptor that was inherited: what was read, sent and left out goes there as "
                          "JSON lines"));
    group(kind.add_option("--data-type", serve.dataType, "data_type of the channel's stanza"));
    group(kind.add_option("--connector", serve.connector, "connector of the channel's stanza"));
    group(kind.add_option("--sample-rate", serve.sampleRate, "samples per second"));
    group(kind.add_option("--endian", common->endian, "byte order of the samples: big or little [little]"));
    group(kind.add_option("--speed", serve.speed,
                          "1 is real time, 10 ten times as fast, 0 as fast as it is taken [1]"));
    group(kind.add_option("--duration", serve.duration, "seconds of the source's time [all there is]"));
    group(kind.add_option("--seed", serve.seed, "of everything random [1]"));
    group(kind.add_option("--faults", common->faults,
                          fmt::format("misbehave: {}. N counts records", FaultSpec::help())));
    group(kind.add_flag("--try", serve.tryOnly, "says what would be refused, and serves nobody"));
    return common;
}

void addLeaveOut(CLI::App &kind)
{
    kind.add_option_function<std::string>(
            "--leave-out", [](const std::string &) {},
            "can_fd: that CAN FD frames of more than 8 bytes are left out is wanted, and no loss")
        ->check(CLI::IsMember({"can_fd"}));
}

void addSource(CLI::App &app, Action &chosen)
{
    CLI::App *source = app.add_subcommand(
        "source", "Serves one channel on a socket, as an acquisition process does\n"
                  "Example: vu source sim --listen unix:run/vib.sock --data-type sequential_float32 "
                  "--sample-rate 1000 --signal sine --frequency 50");
    source->require_subcommand(1);
    for (const auto add : {addSim, addWav, addCsv, addCandump, addCan, addNmea})
        add(*source, chosen);
}

} // namespace vu
