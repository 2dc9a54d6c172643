#include "tests/support/command.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace vu::test {

CommandResult runVu(std::vector<std::string> arguments)
{
    const TempDir folder;
    const std::string out = folder.path("out"), err = folder.path("err");
    std::string program = VU_COMMAND;
    std::vector<char *> argv = {program.data()};
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
    pid_t child = 0;
    const int failure = posix_spawn(&child, program.c_str(), &files, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&files);
    int status = 0;
    if (failure != 0 || waitpid(child, &status, 0) != child)
        throw std::runtime_error("no command at " + program);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out), readText(err)};
}

} // namespace vu::test
