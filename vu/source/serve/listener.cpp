#include "vu/source/serve/listener.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "vu/command.h"

namespace vu {

namespace {

[[noreturn]] void fail(const Address &address)
{
    throw std::runtime_error(fmt::format("{}: {}", address.text(), std::strerror(errno)));
}

// What is left of a killed source: a socket in the file system that refuses every connection.
bool isDeadSocket(const sockaddr_un &name)
{
    struct stat status {};
    if (lstat(name.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(probe.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0 &&
           errno == ECONNREFUSED;
}

} // namespace

Listener::Listener(const Address &address) : address_(address)
{
    if (address_.family == Address::Family::Unix)
        bindUnix();
    else
        bindTcp();
    if (::listen(socket_.get(), 1) != 0)
        fail(address_);
}

Listener::Listener(int inherited)
{
    int listens = 0;
    socklen_t size = sizeof listens;
    if (getsockopt(inherited, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0)
        throw InputError(fmt::format("--listen: fd:{} is no listening socket", inherited));
    socket_ = Descriptor(inherited);
    inherited_ = true;
    // One reader at a time: a stranger that was refused must not leave this process waiting in accept4().
    fcntl(inherited, F_SETFL, fcntl(inherited, F_GETFL) | O_NONBLOCK);
}

Listener::~Listener()
{
    if (ownsPath_)
        unlink(address_.path.c_str());
}

void Listener::bindUnix()
{
    const std::filesystem::path folder = std::filesystem::path(address_.path).parent_path();
    std::error_code ignored; // bind() reports it better
    if (!folder.empty())
        std::filesystem::create_directories(folder, ignored);

    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, address_.path.data(), address_.path.size());
    if (isDeadSocket(name))
        unlink(name.sun_path);
    socket_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket_ || bind(socket_.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0)
        fail(address_);
    ownsPath_ = true;
}

void Listener::bindTcp()
{
    addrinfo wanted{};
    wanted.ai_family = AF_UNSPEC;
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo *found = nullptr;
    if (const int error =
            getaddrinfo(address_.host.c_str(), std::to_string(address_.port).c_str(), &wanted, &found))
        throw InputError(fmt::format("{}: {}", address_.text(), gai_strerror(error)));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);

    socket_ = Descriptor(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1; // a source started again finds its port free
    setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!socket_ || bind(socket_.get(), found->ai_addr, found->ai_addrlen) != 0)
        fail(address_);

    sockaddr_storage chosen{};
    socklen_t size = sizeof chosen;
    getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&chosen), &size);
    address_.port = ntohs(chosen.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(chosen).sin6_port
                                                       : reinterpret_cast<sockaddr_in &>(chosen).sin_port);
}

// A socket that was handed down serves the process that did so: a stranger could come first and would take
// the data of a recording with it.
bool Listener::isWanted(int reader) const
{
    ucred peer{};
    socklen_t size = sizeof peer;
    return !inherited_ ||
           (getsockopt(reader, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid == getppid());
}

Descriptor Listener::accept(const StopSignals &signals)
{
    while (!signals.asked()) {
        pollfd event{socket_.get(), POLLIN, 0};
        signals.wait({&event, 1}, std::nullopt);
        Descriptor reader(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!reader || !isWanted(reader.get()))
            continue;     // a signal, a reader that left again before its turn, or a stranger
        const int on = 1; // small records go out at once; a unix socket does not know the option
        setsockopt(reader.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        socket_.close();
        return reader;
    }
    return Descriptor();
}

} // namespace vu
