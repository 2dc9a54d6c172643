// The kinds of sources, each a subcommand of `vu source`, and the options that they share.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <utility>

#include "vu/command.h"
#include "vu/source/option_values.h"
#include "vu/source/serve/serve.h"

namespace vu {

// The options that all kinds have, as the command line gives them.
struct CommonOptions {
    ServeOptions serve;
    std::string endian = "little";
    std::string faults;

    const ServeOptions &settled(); // with the texts parsed; throws InputError
};

// Adds the common options to the subcommand of a kind.
std::shared_ptr<CommonOptions> addCommonOptions(CLI::App &kind);

// "--leave-out can_fd", of the kinds that read CAN: whoever reads the account knows by it that these frames
// are not wanted. The source leaves them out in any case.
void addLeaveOut(CLI::App &kind);

// What a kind does once its command line is read: `act` gets the common options and its own, both settled.
template <class Options, class Act>
void chooseKind(CLI::App &kind, Action &chosen, std::shared_ptr<Options> options, Act act)
{
    const auto common = addCommonOptions(kind);
    kind.callback([options = std::move(options), common, act, &chosen] {
        chosen = [options, common, act] { return act(common->settled(), *options); };
    });
}

void addSim(CLI::App &source, Action &chosen);
void addWav(CLI::App &source, Action &chosen);
void addCsv(CLI::App &source, Action &chosen);
void addCandump(CLI::App &source, Action &chosen);
void addCan(CLI::App &source, Action &chosen);
void addNmea(CLI::App &source, Action &chosen);

} // namespace vu
