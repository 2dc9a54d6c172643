#include "tests/vu/source_process.h"

#include <arpa/inet.h>
#include <cmath>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vu::test {

std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

Source::Source(const std::string &line, Socket kind, std::filesystem::path where, bool connects)
    : path(where.empty() ? TempDir::path("socket") : where),
      vu_(words("source " + line + " --listen " +
                (kind == Socket::Tcp ? "tcp:127.0.0.1:0" : "unix:" + path.string())))
{
    socket_ = ::socket(kind == Socket::Tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    siginfo_t ended{};
    const auto runs = [&] {
        return waitid(P_PID, static_cast<id_t>(vu_.pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == 0;
    };
    while (connects && !connected(kind) && runs())
        usleep(2000);
}

bool Source::connected(Socket kind)
{
    if (kind == Socket::Unix) {
        sockaddr_un name{AF_UNIX, {}};
        path.string().copy(name.sun_path, sizeof name.sun_path - 1);
        return connect(socket_, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
    }
    const std::string printed = vu_.out();
    if (!printed.ends_with('\n'))
        return false;
    sockaddr_in name{AF_INET,
                     htons(static_cast<uint16_t>(std::stoi(printed.substr(printed.rfind(':') + 1)))),
                     {htonl(INADDR_LOOPBACK)},
                     {}};
    return connect(socket_, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
}

Bytes Source::read(size_t most)
{
    Bytes all;
    uint8_t piece[65536];
    ssize_t count = 1;
    while (all.size() < most &&
           (count = recv(socket_, piece, std::min(sizeof piece, most - all.size()), 0)) > 0)
        all.insert(all.end(), piece, piece + count);
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

Stream cut(std::span<const uint8_t> received)
{
    Stream stream;
    const auto marker = received.size() < 2 ? uint16_t{0} : numberAt<uint16_t>(received, 0);
    EXPECT_TRUE(marker == 0xFEED || marker == 0xEDFE) << marker;
    stream.bigEndian = marker == 0xFEED;
    size_t at = std::min<size_t>(2, received.size());
    while (received.size() - at >= 4 && received.size() - at - 4 >= numberAt<uint32_t>(received, at)) {
        const auto body = received.subspan(at + 4, numberAt<uint32_t>(received, at));
        stream.records.emplace_back(body.begin(), body.end());
        at += 4 + body.size();
    }
    stream.rest.assign(received.begin() + static_cast<std::ptrdiff_t>(at), received.end());
    return stream;
}

Stream cut(const WireWriter &wire)
{
    Bytes all = {0xFE, 0xED};
    all.insert(all.end(), wire.bytes().begin(), wire.bytes().end());
    return cut(all);
}

Stream replay(const std::string &line, int status, std::string *said, Source::Socket kind)
{
    Source source(line, kind);
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
