#include "tests/support/interpose.h"

#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>

namespace vu::test {

SystemCalls calls;

LogTrap::LogTrap()
{
    calls.syslog = [this](int priority, const std::string &line) { lines_.emplace_back(priority, line); };
}

LogTrap::~LogTrap()
{
    calls.syslog = nullptr;
}

std::vector<std::pair<int, std::string>> LogTrap::lines()
{
    return std::exchange(lines_, {});
}

namespace {

template <typename Function>
Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

void logged(int priority, const char *format, va_list arguments)
{
    char *line = nullptr;
    if (vasprintf(&line, format, arguments) < 0)
        return;
    if (calls.syslog)
        calls.syslog(priority, line);
    free(line);
}

} // namespace

ssize_t real_read(int fd, void *buffer, size_t count)
{
    static auto *const real = next<ssize_t(int, void *, size_t)>("read");
    return real(fd, buffer, count);
}

ssize_t real_send(int fd, const void *buffer, size_t count, int flags)
{
    static auto *const real = next<ssize_t(int, const void *, size_t, int)>("send");
    return real(fd, buffer, count, flags);
}

ssize_t real_writev(int fd, const iovec *pieces, int count)
{
    static auto *const real = next<ssize_t(int, const iovec *, int)>("writev");
    return real(fd, pieces, count);
}

} // namespace vu::test

using vu::test::calls;

extern "C" {

ssize_t read(int fd, void *buffer, size_t count)
{
    return calls.read ? calls.read(fd, buffer, count) : vu::test::real_read(fd, buffer, count);
}

ssize_t send(int fd, const void *buffer, size_t count, int flags)
{
    return calls.send ? calls.send(fd, buffer, count, flags) : vu::test::real_send(fd, buffer, count, flags);
}

ssize_t writev(int fd, const iovec *pieces, int count)
{
    return calls.writev ? calls.writev(fd, pieces, count) : vu::test::real_writev(fd, pieces, count);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    static auto *const real = vu::test::next<off64_t(int, off64_t, int)>("lseek64");
    return calls.lseek64 ? calls.lseek64(fd, offset, whence) : real(fd, offset, whence);
}

// The disk-full notifier is never really started by a test.
int system(const char *command)
{
    return calls.system ? calls.system(command) : 0;
}

int raise(int signal) noexcept
{
    static auto *const real = vu::test::next<int(int)>("raise");
    return calls.raise ? calls.raise(signal) : real(signal);
}

int usleep(useconds_t microseconds)
{
    static auto *const real = vu::test::next<int(useconds_t)>("usleep");
    return calls.usleep ? calls.usleep(microseconds) : real(microseconds);
}

void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vu::test::logged(priority, format, arguments);
    va_end(arguments);
}

void vsyslog(int priority, const char *format, va_list arguments)
{
    vu::test::logged(priority, format, arguments);
}

} // extern "C"
