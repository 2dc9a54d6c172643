#include "vu/record/children.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "vu/support/account_json.h"

namespace vu {

namespace {

struct Handed {
    int socket;
    int account;
};

void handDown(int descriptor)
{
    fcntl(descriptor, F_SETFD, 0); // only here: no other child inherits it
}

// Between fork and exec: only calls that are safe there.
[[noreturn]] void becomeSource(pid_t recorder, const Handed &handed, const char *command, char *const *words)
{
    setpgid(0, 0); // Ctrl-C in the terminal is the recorder's, which then stops its sources
    // A source without its recorder serves nobody, and holds nothing that it would have to put in order.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != recorder)
        _exit(127); // killed before the line above
    for (int signal = 1; signal < NSIG; signal++) {
        std::signal(signal, SIG_IGN); // drops what came for the recorder before the group was changed
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO); // lines on standard input are the recorder's
    dup2(nothing, STDOUT_FILENO);
    handDown(handed.socket);
    handDown(handed.account);
    execv(command, words);
    _exit(127);
}

// No signal is delivered while it lives.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

private:
    sigset_t before_;
};

[[noreturn]] void refuse(const Channel &channel)
{
    throw std::runtime_error(
        fmt::format("{}: its source cannot be started: {}", channel.name, std::strerror(errno)));
}

// A listening socket under a name that the kernel chooses, outside the file system.
Descriptor listenUnnamed()
{
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    if (made && (bind(made.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name.sun_family) != 0 ||
                 listen(made.get(), 4) != 0))
        return Descriptor();
    return made;
}

std::vector<std::string> wordsOf(const Channel &channel, const std::string &command, const Handed &handed)
{
    std::vector<std::string> words = {command, "source", channel.source->kind};
    for (const std::string &word : channel.source->arguments)
        if (!word.starts_with("--listen="))
            words.push_back(word);
    words.push_back(fmt::format("--listen=fd:{}", handed.socket));
    words.push_back(fmt::format("--account={}", handed.account));
    return words;
}

// Takes in what the source has written by now; false at its end.
bool readAccount(Children::Child &child)
{
    constexpr size_t kLongestLine = 1 << 20;
    char piece[4096];
    for (;;) {
        const ssize_t count = read(child.account_end.get(), piece, sizeof piece);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count < 0 && errno == EAGAIN;
        child.unread.append(piece, static_cast<size_t>(count));
        for (size_t end; (end = child.unread.find('\n')) != std::string::npos;
             child.unread.erase(0, end + 1)) {
            child.listening = true;
            readAccountLine(std::string_view(child.unread).substr(0, end), child.account, child.notes);
        }
        if (child.unread.size() > kLongestLine)
            child.unread.clear();
    }
}

void onEnd(struct ev_loop *loop, ev_child *watcher, int)
{
    auto *ended = static_cast<Children::Child *>(watcher->data);
    ended->running = false;
    ended->status = watcher->rstatus;
    ev_child_stop(loop, watcher);
}

void onAccount(struct ev_loop *loop, ev_io *watcher, int)
{
    if (!readAccount(*static_cast<Children::Child *>(watcher->data)))
        ev_io_stop(loop, watcher);
}

} // namespace

Children::Children() : command_(std::filesystem::read_symlink("/proc/self/exe")) {}

Children::~Children()
{
    constexpr int kTries = 50;
    constexpr useconds_t kPause = 10000;
    terminate(false);
    for (Child &child : children_) {
        ev_child_stop(ev_default_loop(0), &child.watcher);
        ev_io_stop(ev_default_loop(0), &child.account_watcher);
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
    Descriptor socket = listenUnnamed();
    int ends[2];
    if (!socket || pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        refuse(channel);
    Descriptor readEnd(ends[0]);
    const Descriptor writeEnd(ends[1]);
    const Handed handed{socket.get(), writeEnd.get()};
    std::vector<std::string> words = wordsOf(channel, command_, handed);
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ev_default_loop(0);
    const pid_t recorder = getpid();
    pid_t pid = -1;
    {
        const SignalsHeld held; // until the child has a group and handlers of its own
        pid = fork();
        if (pid == 0)
            becomeSource(recorder, handed, command_.c_str(), arguments.data());
    }
    if (pid < 0)
        refuse(channel);
    Child &child = children_.emplace_back();
    child.channel = channel.name;
    child.pid = pid;
    child.socket = std::move(socket);
    child.account_end = std::move(readEnd);
    child.account.channel = channel.name;
    child.account.kind = channel.source->kind;
    child.account.can_fd_wanted_out =
        std::ranges::find(channel.source->arguments, "--leave-out=can_fd") != channel.source->arguments.end();
    watch(child);
}

void Children::watch(Child &child)
{
    struct ev_loop *loop = ev_default_loop(0);
    ev_child_init(&child.watcher, onEnd, child.pid, 0);
    ev_io_init(&child.account_watcher, onAccount, child.account_end.get(), EV_READ);
    child.watcher.data = child.account_watcher.data = &child;
    ev_child_start(loop, &child.watcher);
    ev_io_start(loop, &child.account_watcher);
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

Descriptor Children::connectTo(Child &child)
{
    sockaddr_un name{};
    socklen_t size = sizeof name;
    Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made || getsockname(child.socket.get(), reinterpret_cast<sockaddr *>(&name), &size) != 0 ||
        connect(made.get(), reinterpret_cast<const sockaddr *>(&name), size) != 0)
        return Descriptor();
    child.socket.close();
    return made;
}

std::vector<Account> Children::accounts(const Description &test)
{
    std::vector<Account> all;
    for (const Channel &channel : test.channels) {
        if (Child *child = find(channel.name)) {
            readAccount(*child);
            all.push_back(child->account);
        } else {
            all.emplace_back().channel = channel.name;
        }
    }
    return all;
}

std::string describeEnd(int status)
{
    return WIFSIGNALED(status) ? fmt::format("signal {}", WTERMSIG(status))
                               : fmt::format("exit status {}", WEXITSTATUS(status));
}

} // namespace vu
