// One command, one subcommand a job. Results go to standard output, everything else to standard error.
#include <csignal>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "vu/run_command.h"

// Descriptors 0 to 2 that the caller closed would go to the next files that are opened, and what is meant for
// a terminal would be written into them. They are filled before any library is initialised, since one of them
// may open a file then. What is read is empty, a warning is lost, and a result fails: it was asked for.
namespace {

void fillStandardDescriptors(int, char **, char **)
{
    constexpr int kModes[] = {O_RDONLY, O_RDONLY, O_WRONLY};
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (syscall(SYS_fcntl, fd, F_GETFD) < 0) // the lowest free number, this one, is taken
            syscall(SYS_openat, AT_FDCWD, "/dev/null", kModes[fd]);
}

__attribute__((section(".preinit_array"), used)) void (*const fillFirst)(int, char **,
                                                                         char **) = fillStandardDescriptors;

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow further is reported by its name
    vu::endQuietlyWithoutMemory();
    return vu::runCommand(argc, argv);
}
