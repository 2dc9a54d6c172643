// The command line as a function: what main() does with its arguments.
#pragma once

namespace vu {

// Runs the subcommand that the arguments name; returns an ExitStatus. Whatever goes wrong is one line on
// standard error, and with --json an answer on standard output.
int runCommand(int argc, const char *const *argv);

// Memory that runs out where no exception can pass, in a destructor for instance, ends the process as it does
// elsewhere: with one line and status 1.
void endQuietlyWithoutMemory();

} // namespace vu
