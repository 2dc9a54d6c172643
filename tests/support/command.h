// Runs the built command as a person would, and keeps what it said.
#pragma once

#include <string>
#include <vector>

namespace vu::test {

struct CommandResult {
    int status = -1; // exit status; minus the signal that ended it
    std::string out;
    std::string err;
};

// `vu` with these arguments, each passed as it is.
CommandResult runVu(const std::vector<std::string> &arguments);

} // namespace vu::test
