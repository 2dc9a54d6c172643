#include "tests/vu/source_process.h"

#include <arpa/inet.h>
#include <cmath>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vu::test {

std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

Source::Source(const std::string &line, Socket kind, std::filesystem::path where)
    : RunningVu(words("source " + line + " --listen " +
                      (kind == Socket::Tcp ? "tcp:127.0.0.1:0"
                       : where.empty()     ? "unix:" + (where = path("socket")).string()
                                           : "unix:" + where.string()))),
      socket_(socket(kind == Socket::Tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un name{AF_UNIX, {}};
    where.string().copy(name.sun_path, sizeof name.sun_path - 1);
    sockaddr_in host{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    const auto connected = [&] {
        if (kind == Socket::Unix)
            return connect(socket_, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0;
        const std::string printed = out(); // the address, and with it the port that was free
        host.sin_port = htons(static_cast<uint16_t>(std::atoi(printed.c_str() + printed.rfind(':') + 1)));
        return connect(socket_, reinterpret_cast<sockaddr *>(&host), sizeof host) == 0;
    };
    for (int tries = 0; tries < 10000 && !connected(); ++tries)
        usleep(2000);
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

void Source::say(const std::string &text)
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
    auto left = received.subspan(std::min<size_t>(2, received.size()));
    while (left.size() >= 4 && left.size() - 4 >= numberAt<uint32_t>(left, 0)) {
        const auto body = left.subspan(4, numberAt<uint32_t>(left, 0));
        stream.records.emplace_back(body.begin(), body.end());
        left = left.subspan(4 + body.size());
    }
    stream.rest.assign(left.begin(), left.end());
    return stream;
}

Stream cut(const WireWriter &wire)
{
    Bytes all = {0xFE, 0xED};
    all.insert(all.end(), wire.bytes().begin(), wire.bytes().end());
    return cut(all);
}

Stream replay(const std::string &line, int status, std::string *said, Socket kind)
{
    Source source(line, kind);
    const Bytes received = source.read();
    EXPECT_EQ(source.end(), status) << source.err();
    if (said)
        *said = source.err();
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
