// Runs the built command as a person would, and keeps what it said.
#pragma once

#include "tests/support/running_vu.h"

namespace vu::test {

struct CommandResult {
    int status = -1; // exit status; minus the signal that ended it
    std::string out;
    std::string err;
};

// `vu` with these arguments, each passed as it is.
inline CommandResult runVu(const std::vector<std::string> &arguments)
{
    RunningVu command(arguments);
    const int status = command.wait();
    return {status, command.out(), command.err()};
}

} // namespace vu::test
