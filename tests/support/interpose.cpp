#include "tests/support/interpose.h"

#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>

namespace vu::test {

SystemCalls calls;

namespace {

template <typename Function>
Function real(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

template <typename Result, typename... Arguments>
Result call(const std::function<Result(Arguments...)> &hook, const char *name, Arguments... arguments)
{
    return hook ? hook(arguments...) : real<Result (*)(Arguments...)>(name)(arguments...);
}

} // namespace

decltype(real_read) real_read = real<decltype(real_read)>("read");
decltype(real_send) real_send = real<decltype(real_send)>("send");
decltype(real_writev) real_writev = real<decltype(real_writev)>("writev");

} // namespace vu::test

using namespace vu::test;

extern "C" {

ssize_t read(int fd, void *buffer, size_t count)
{
    return call(calls.read, "read", fd, buffer, count);
}

ssize_t send(int fd, const void *buffer, size_t count, int flags)
{
    return call(calls.send, "send", fd, buffer, count, flags);
}

ssize_t writev(int fd, const iovec *pieces, int count)
{
    return call(calls.writev, "writev", fd, pieces, count);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    return call(calls.lseek64, "lseek64", fd, offset, whence);
}

// The disk-full notifier is never really started by a test.
int system(const char *command)
{
    return calls.system ? calls.system(command) : 0;
}

int raise(int signal) noexcept
{
    return call(calls.raise, "raise", signal);
}

int usleep(useconds_t microseconds)
{
    return call(calls.usleep, "usleep", microseconds);
}

void vsyslog(int priority, const char *format, va_list arguments)
{
    char *line = nullptr;
    if (vasprintf(&line, format, arguments) >= 0 && calls.syslog)
        calls.syslog(priority, line);
    free(line);
}

void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

} // extern "C"
