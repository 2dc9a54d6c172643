// A connected pair of sockets: the acquisition process's end, and the channel's.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <span>
#include <sys/socket.h>
#include <unistd.h>

namespace vu::bench {

class Sockets {
public:
    Sockets()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends_))
            std::abort();
    }
    ~Sockets() { close(ends_[0]), close(ends_[1]); }
    Sockets(const Sockets &) = delete;
    Sockets &operator=(const Sockets &) = delete;

    int channelEnd() const { return ends_[0]; }
    // In one write.
    void send(std::span<const uint8_t> bytes) const
    {
        if (write(ends_[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            std::abort();
    }

private:
    int ends_[2];
};

} // namespace vu::bench
