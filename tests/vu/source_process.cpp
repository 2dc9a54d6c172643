#include "tests/vu/source_process.h"

#include <arpa/inet.h>
#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace vu::test {

namespace {

bool connectUnix(int fd, const std::string &path)
{
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    path.copy(name.sun_path, sizeof name.sun_path - 1);
    return connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
}

bool connectTcp(int fd, const std::string &printed)
{
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const size_t colon = printed.rfind(':');
    if (colon == std::string::npos || !printed.ends_with('\n'))
        return false;
    name.sin_port = htons(static_cast<uint16_t>(std::stoi(printed.substr(colon + 1))));
    return connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
}

} // namespace

Source::Source(std::vector<std::string> words, Socket kind, std::filesystem::path path, bool connects)
    : path_(path.empty() ? folder_.path("socket") : path)
{
    words.insert(words.begin(), {VU_COMMAND, "source"});
    words.insert(words.end(),
                 {"--listen", kind == Socket::Tcp ? "tcp:127.0.0.1:0" : "unix:" + path_.string()});
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    const std::string out = folder_.path("out"), err = folder_.path("err");
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_CREAT | O_WRONLY, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_CREAT | O_WRONLY, 0600);
    EXPECT_EQ(posix_spawn(&pid_, VU_COMMAND, &files, nullptr, arguments.data(), environ), 0);
    posix_spawn_file_actions_destroy(&files);
    socket_ = ::socket(kind == Socket::Tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto connected = [&] {
        return kind == Socket::Tcp ? connectTcp(socket_, readText(out)) : connectUnix(socket_, path_);
    };
    siginfo_t ended{};
    while (connects && !connected() &&
           waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0)
        usleep(2000);
}

Source::~Source()
{
    leave();
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

Bytes Source::read(size_t most)
{
    Bytes all;
    uint8_t piece[65536];
    while (all.size() < most) {
        const ssize_t count = recv(socket_, piece, std::min(sizeof piece, most - all.size()), 0);
        if (count <= 0)
            break;
        all.insert(all.end(), piece, piece + count);
    }
    return all;
}

void Source::write(const std::string &text)
{
    EXPECT_EQ(send(socket_, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

void Source::leave()
{
    if (socket_ >= 0)
        close(std::exchange(socket_, -1));
}

void Source::signal(int number)
{
    kill(pid_, number);
}

int Source::status()
{
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string Source::said() const
{
    return readText(folder_.path("err"));
}

Stream cut(std::span<const uint8_t> received)
{
    Stream stream;
    EXPECT_GE(received.size(), 2u);
    if (received.size() < 2)
        return stream;
    const auto marker = numberAt<uint16_t>(received, 0);
    EXPECT_TRUE(marker == 0xFEED || marker == 0xEDFE) << std::hex << marker;
    stream.bigEndian = marker == 0xFEED;
    size_t at = 2;
    while (received.size() - at >= 4 && received.size() - at - 4 >= numberAt<uint32_t>(received, at)) {
        const auto body = received.subspan(at + 4, numberAt<uint32_t>(received, at));
        stream.records.emplace_back(body.begin(), body.end());
        at += 4 + body.size();
    }
    stream.rest.assign(received.begin() + static_cast<std::ptrdiff_t>(at), received.end());
    return stream;
}

Stream replay(std::vector<std::string> words, int status, std::string *said, Source::Socket kind)
{
    Source source(std::move(words), kind);
    const Bytes received = source.read();
    source.leave();
    EXPECT_EQ(source.status(), status) << source.said();
    if (said)
        *said = source.said();
    return cut(received);
}

double referenceUnit(uint64_t seed, uint64_t n)
{
    const auto mixed = [](uint64_t z, int shift, uint64_t factor) { return (z ^ (z >> shift)) * factor; };
    const uint64_t z = mixed(mixed(seed + (n + 1) * 11400714819323198485u, 30, 13787848793156543929u), 27,
                             10723151780598845931u);
    return std::ldexp(static_cast<double>((z ^ (z >> 31)) >> 11), -53);
}

} // namespace vu::test
