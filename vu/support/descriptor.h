// A file descriptor with one owner. It is never 0, 1 or 2: a library or a caller that writes to its standard
// output must never reach a file of ours, whatever was closed when the process began.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace vu {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(aboveStandard(fd)) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() { close(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); } // somebody else closes it from now on
    void close()
    {
        if (fd_ >= 0)
            ::close(std::exchange(fd_, -1));
    }

private:
    static int aboveStandard(int fd)
    {
        if (fd < 0 || fd > STDERR_FILENO)
            return fd;
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int reason = errno;
        ::close(fd);
        errno = reason; // of a descriptor that could not be had
        return moved;
    }

    int fd_;
};

} // namespace vu
