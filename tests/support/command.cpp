#include "tests/support/command.h"

#include "tests/support/running_vu.h"

namespace vu::test {

CommandResult runVu(const std::vector<std::string> &arguments)
{
    RunningVu command(arguments);
    const int status = command.wait();
    return {status, command.out(), command.err()};
}

} // namespace vu::test
