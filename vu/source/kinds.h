// The kinds of sources, each a subcommand of `vu source`.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "vu/source/serve/serve.h"

namespace CLI {
class App;
}

namespace vu {

using Action = std::function<int()>;

// The options that all kinds have, as the command line gives them.
struct CommonOptions {
    ServeOptions serve;
    std::string endian = "little";
    std::string faults;

    const ServeOptions &settled(); // with the texts parsed; throws InputError
};

// Adds the common options to the subcommand of a kind.
std::shared_ptr<CommonOptions> addCommonOptions(CLI::App &kind);

void addSim(CLI::App &source, Action &chosen);
void addWav(CLI::App &source, Action &chosen);
void addCsv(CLI::App &source, Action &chosen);
void addCandump(CLI::App &source, Action &chosen);
void addCan(CLI::App &source, Action &chosen);
void addNmea(CLI::App &source, Action &chosen);

} // namespace vu
