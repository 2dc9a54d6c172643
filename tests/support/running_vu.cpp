#include "tests/support/running_vu.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace vu::test {

RunningVu::RunningVu(const std::vector<std::string> &arguments, uint64_t fileLimit, const std::string &closed)
{
    std::vector<const char *> words = {VU_COMMAND};
    for (const std::string &argument : arguments)
        words.push_back(argument.c_str());
    words.push_back(nullptr);
    const std::string out = folder_.path("out"), err = folder_.path("err");
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(input[0], STDIN_FILENO);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        const rlimit limit{fileLimit, fileLimit};
        if (fileLimit > 0)
            setrlimit(RLIMIT_FSIZE, &limit);
        for (const char digit : closed)
            close(digit - '0');
        execv(VU_COMMAND, const_cast<char **>(words.data()));
        _exit(127);
    }
    close(input[0]);
    input_ = input[1];
}

RunningVu::~RunningVu()
{
    if (input_ >= 0)
        close(input_);
    if (pid_ > 0) {
        signal(SIGKILL);
        wait();
    }
}

void RunningVu::write(const std::string &line) const
{
    if (::write(input_, line.data(), line.size()) < 0)
        signal(SIGKILL); // nobody reads: the test sees it by the status
}

void RunningVu::signal(int number) const
{
    kill(pid_, number);
}

bool RunningVu::waitForBytes(const std::filesystem::path &file, uintmax_t bytes) const
{
    for (int tries = 0; tries < 2000; tries++) {
        std::error_code missing;
        const uintmax_t size = std::filesystem::file_size(file, missing);
        if (!missing && size >= bytes)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int RunningVu::wait()
{
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace vu::test
