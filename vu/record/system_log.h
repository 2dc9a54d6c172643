// The system log of this process, which never waits.
//
// The library writes its log lines with syslog(), as it must, and the C library's own waits for a log daemon
// that does not read: the whole recorder would wait. The command therefore brings its own syslog()
// (vu/system_log_symbols.cpp), which ends here: a line goes out without waiting or is dropped and counted,
// and of lines that repeat only the first in a second goes out, with the count of the others after it.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <mutex>
#include <string>

namespace vu {

class SystemLog {
public:
    // `path`: the socket of the log; the connection is made with the first line.
    explicit SystemLog(std::string path) : path_(std::move(path)) {}
    ~SystemLog();
    SystemLog(const SystemLog &) = delete;
    SystemLog &operator=(const SystemLog &) = delete;

    // The process's own, at $VU_SYSTEM_LOG or /dev/log.
    static SystemLog &own();

    // `format` and arguments as of vsyslog(). May be called from any thread, and throws nothing.
    void write(int priority, const char *format, va_list arguments) noexcept;

    uint64_t sent() const { return sent_; }
    uint64_t dropped() const { return dropped_; }   // the log did not take them
    uint64_t repeated() const { return repeated_; } // kept back, and counted in a line of their own

private:
    // Lines of one format; what differs in it is no reason to write each.
    struct Kind {
        const char *format = nullptr;
        int64_t second = 0; // when the last one went out
        uint32_t sent = 0;  // in that second
        uint64_t kept_back = 0;
    };

    Kind &kindOf(const char *format);
    void send(int priority, const char *text);
    bool open();

    const std::string path_;
    std::mutex mutex_;
    int socket_ = -1;
    int64_t tried_ = -1; // the second of the last try to open it
    Kind kinds_[32];
    uint64_t sent_ = 0, dropped_ = 0, repeated_ = 0;
};

} // namespace vu
