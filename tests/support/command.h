// Runs the built command as a person would, and keeps what it said.
#pragma once

#include <string>
#include <vector>

namespace vu::test {

struct CommandResult {
    int status = -1; // exit status; -1 if it was killed
    std::string out;
    std::string err;
};

// `vu` with these arguments, each passed as it is.
CommandResult runVu(std::vector<std::string> arguments);

} // namespace vu::test
