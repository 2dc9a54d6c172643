// The system calls of the library, replaced while a test wants it. The test executable defines these symbols,
// so the shared library's calls come here; without a hook they go on to the system.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

namespace vu::test {

// Hooks are process-wide and empty by default. A hook may call the real_... function.
struct SystemCalls {
    std::function<ssize_t(int, void *, size_t)> read;
    std::function<ssize_t(int, const void *, size_t, int)> send;
    std::function<ssize_t(int, const iovec *, int)> writev;
    std::function<off64_t(int, off64_t, int)> lseek64;
    std::function<int(const char *)> system;
    std::function<int(int)> raise;
    std::function<int(useconds_t)> usleep;
    // Also what vsyslog() is given, formatted.
    std::function<void(int priority, const std::string &line)> syslog;
};
extern SystemCalls calls;

extern ssize_t (*const real_read)(int, void *, size_t);
extern ssize_t (*const real_send)(int, const void *, size_t, int);
extern ssize_t (*const real_writev)(int, const iovec *, int);

// Clears all hooks at the end of a test.
struct ScopedCalls {
    ScopedCalls() { calls = {}; }
    ~ScopedCalls() { calls = {}; }
};

// Gathers the log lines of the library while it lives.
class LogTrap {
public:
    LogTrap()
    {
        calls.syslog = [this](int priority, const std::string &line) { lines_.emplace_back(priority, line); };
    }
    ~LogTrap() { calls.syslog = nullptr; }
    std::vector<std::pair<int, std::string>> lines() { return std::exchange(lines_, {}); }

private:
    std::vector<std::pair<int, std::string>> lines_;
};

} // namespace vu::test
