#include "vu/record/connect.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "vu/support/address.h"

namespace vu {

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPauseMs = 20; // between two tries

// Starts to connect and waits for the outcome. Empty, with errno set, if nobody listens yet.
Descriptor tryOne(int family, const sockaddr *address, socklen_t length, int timeoutMs)
{
    Descriptor made(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made)
        return made;
    if (connect(made.get(), address, length) == 0)
        return made;
    if (errno != EINPROGRESS)
        return Descriptor();
    pollfd wait{made.get(), POLLOUT, 0};
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (poll(&wait, 1, timeoutMs) > 0)
        getsockopt(made.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error == 0)
        return made;
    errno = error;
    return Descriptor();
}

Descriptor tryUnix(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return tryOne(AF_UNIX, reinterpret_cast<const sockaddr *>(&address), sizeof address, 0);
}

Descriptor tryTcp(const Address &address, int timeoutMs)
{
    addrinfo hints{}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    if (const int error =
            getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found))
        throw std::runtime_error(fmt::format("{}: {}", address.text(), gai_strerror(error)));
    const std::unique_ptr<addrinfo, void (*)(addrinfo *)> owned(found, freeaddrinfo);
    for (const addrinfo *one = found; one; one = one->ai_next)
        if (Descriptor made = tryOne(one->ai_family, one->ai_addr, one->ai_addrlen, timeoutMs)) {
            const int yes = 1; // "Stop" goes out at once
            setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
            return made;
        }
    return Descriptor();
}

Descriptor tryAddress(const Address &address, Clock::time_point deadline)
{
    if (address.family == Address::Family::Unix)
        return tryUnix(address.path);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return tryTcp(address, static_cast<int>(std::max<int64_t>(left, 1)));
}

Descriptor connectOne(const Channel &channel, Children::Child *child, Clock::time_point deadline,
                      const std::function<void(const Channel &)> &alive)
{
    const Address address = parseAddress(channel.address);
    for (;;) {
        if (Descriptor made = child ? Children::connectTo(*child) : tryAddress(address, deadline))
            return made;
        const int error = errno;
        if (error == EMFILE || error == ENFILE || Clock::now() >= deadline)
            throw std::runtime_error(fmt::format("{}: no source at {}: {}", channel.name,
                                                 child ? "its socket" : channel.address,
                                                 std::strerror(error)));
        alive(channel);
        poll(nullptr, 0, kPauseMs);
    }
}

// As far as it can be known without connecting.
bool isThere(const Channel &channel, const Children::Child *child)
{
    if (child)
        return child->listening;
    const Address address = parseAddress(channel.address);
    return address.family != Address::Family::Unix || access(address.path.c_str(), F_OK) == 0;
}

} // namespace

std::vector<Descriptor> connectAll(const Description &test, Children &children,
                                   const std::function<void(const Channel &)> &alive)
{
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(test.connect_timeout * 1e3));
    // A source begins when it is connected: first all of them are there, then they begin together.
    for (const Channel &channel : test.channels) {
        const Children::Child *child = children.find(channel.name);
        while (!isThere(channel, child) && Clock::now() < deadline) {
            alive(channel);
            poll(nullptr, 0, kPauseMs);
        }
        if (child && !child->listening)
            throw std::runtime_error(fmt::format("{}: its source did not begin to listen within {} s",
                                                 channel.name, test.connect_timeout));
    }
    std::vector<Descriptor> sockets;
    for (const Channel &channel : test.channels)
        sockets.push_back(connectOne(channel, children.find(channel.name), deadline, alive));
    return sockets;
}

} // namespace vu
