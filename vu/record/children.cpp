#include "vu/record/children.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vu {

namespace {

// Between fork and exec: only calls that are safe there.
[[noreturn]] void becomeSource(const char *command, char *const *arguments)
{
    setpgid(0, 0); // Ctrl-C in the terminal is the recorder's, which then stops its sources
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int signal : {SIGPIPE, SIGXFSZ, SIGTTIN, SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, SIG_DFL);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO); // lines on standard input are the recorder's
    dup2(nothing, STDOUT_FILENO);
    execv(command, arguments);
    _exit(127);
}

} // namespace

Children::Children() : command_(std::filesystem::read_symlink("/proc/self/exe")) {}

Children::~Children()
{
    constexpr int kTries = 50;
    constexpr useconds_t kPause = 10000; // a source that is asked takes its socket's name away
    terminate(false);
    for (Child &child : children_) {
        ev_child_stop(ev_default_loop(0), &child.watcher);
        for (int tries = 0; child.running && tries < kTries; tries++) {
            child.running = waitpid(child.pid, nullptr, WNOHANG) == 0;
            if (child.running)
                usleep(kPause);
        }
    }
    terminate(true);
    for (const Child &child : children_)
        if (child.running)
            waitpid(child.pid, nullptr, 0);
}

void Children::start(const Channel &channel)
{
    std::vector<std::string> words = {command_, "source", channel.source->kind};
    words.insert(words.end(), channel.source->arguments.begin(), channel.source->arguments.end());
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    struct ev_loop *loop = ev_default_loop(0);
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error(
            fmt::format("{}: its source can not be started: {}", channel.name, std::strerror(errno)));
    if (pid == 0)
        becomeSource(command_.c_str(), arguments.data());
    Child &child = children_.emplace_back();
    child.channel = channel.name;
    child.pid = pid;
    ev_child_init(
        &child.watcher,
        [](struct ev_loop *within, ev_child *watcher, int) {
            auto *ended = static_cast<Child *>(watcher->data);
            ended->running = false;
            ended->status = watcher->rstatus;
            ev_child_stop(within, watcher);
        },
        pid, 0);
    child.watcher.data = &child;
    ev_child_start(loop, &child.watcher);
}

Children::Child *Children::find(const std::string &channel)
{
    const auto found = std::find_if(children_.begin(), children_.end(),
                                    [&](const Child &child) { return child.channel == channel; });
    return found == children_.end() ? nullptr : &*found;
}

bool Children::anyRunning() const
{
    return std::any_of(children_.begin(), children_.end(), [](const Child &child) { return child.running; });
}

void Children::terminate(bool hard)
{
    for (Child &child : children_) {
        if (!child.running)
            continue;
        child.ended_here = true;
        kill(child.pid, hard ? SIGKILL : SIGTERM);
    }
}

std::string describeEnd(int status)
{
    return WIFSIGNALED(status) ? fmt::format("signal {}", WTERMSIG(status))
                               : fmt::format("exit status {}", WEXITSTATUS(status));
}

} // namespace vu
