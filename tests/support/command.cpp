#include "tests/support/command.h"

#include <cstdlib>
#include <sys/wait.h>

#include "tests/support/temp_dir.h"

namespace vu::test {

CommandResult runVu(const std::vector<std::string> &arguments)
{
    const TempDir folder;
    std::string line = VU_COMMAND;
    for (const std::string &argument : arguments) {
        line += " '";
        for (const char c : argument)
            line += c == '\'' ? "'\\''" : std::string(1, c);
        line += '\'';
    }
    line += " >'" + folder.path("out").string() + "' 2>'" + folder.path("err").string() + "' </dev/null";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(folder.path("out")),
            readText(folder.path("err"))};
}

} // namespace vu::test
