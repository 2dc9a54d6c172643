// What a subcommand is to main(): it registers itself and its options, and leaves an action when it is
// chosen.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

namespace vu {

inline constexpr const char *kVersion = "1.0.0";

enum ExitStatus {
    kDone = 0,        // done, and nothing lost
    kFailed = 1,      // it failed
    kUsage = 2,       // usage or bad input, said in one line
    kDataMissing = 3, // done, but data is missing or damaged, and the ledger says what
};

// Bad usage or bad input. The text is one line for each mistake: file, line or key, and what was expected.
struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What the chosen subcommand does; returns an ExitStatus. Errors that end it are thrown.
using Action = std::function<int()>;

// Each adds its subcommand to `app`; when the command line chooses it, `chosen` is set.
void addCheck(CLI::App &app, Action &chosen);
void addRun(CLI::App &app, Action &chosen);
void addRecord(CLI::App &app, Action &chosen);
void addSource(CLI::App &app, Action &chosen);
void addInfo(CLI::App &app, Action &chosen);
void addVerify(CLI::App &app, Action &chosen);
void addRecover(CLI::App &app, Action &chosen);
void addExport(CLI::App &app, Action &chosen);
void addPlot(CLI::App &app, Action &chosen);

} // namespace vu
