#include "vu/record/system_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace vu {

namespace {

constexpr size_t kLongestLine = 900; // bytes; a log daemon takes a kilobyte
constexpr uint32_t kMostTexts = 10;  // a second
constexpr int kFirstDescriptor = 3;

int64_t second()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// A line of the log holds no control characters: a peer's words are in it.
void makePrintable(char *text)
{
    for (; *text; text++)
        if (static_cast<unsigned char>(*text) < 0x20 || *text == 0x7F)
            *text = ' ';
}

} // namespace

SystemLog::~SystemLog()
{
    if (socket_ >= 0)
        close(socket_);
}

SystemLog &SystemLog::own()
{
    // Never destroyed: the library may still write when the process ends.
    static SystemLog *const log = [] {
        const char *path = std::getenv("VU_SYSTEM_LOG");
        return new SystemLog(path && *path ? path : "/dev/log");
    }();
    return *log;
}

// The one that was quiet for longest makes room for a new one.
SystemLog::Kind &SystemLog::kindOf(const char *format)
{
    Kind *oldest = &kinds_[0];
    for (Kind &kind : kinds_) {
        if (kind.format == format)
            return kind;
        if (kind.second < oldest->second)
            oldest = &kind;
    }
    *oldest = {format, -1, 0, 0};
    return *oldest;
}

void SystemLog::write(int priority, const char *format, va_list arguments) noexcept
{
    const std::scoped_lock lock(mutex_);
    Kind &kind = kindOf(format);
    const int64_t now = second();
    // Lines of "%s" are of all kinds: a few of them go out.
    const uint32_t most = std::string_view(format) == "%s" ? kMostTexts : 1;
    if (kind.second == now && kind.sent >= most) {
        kind.kept_back++;
        repeated_++;
        return;
    }
    char text[kLongestLine];
    if (kind.kept_back > 0) {
        std::snprintf(text, sizeof text, "%llu lines more like the next one",
                      static_cast<unsigned long long>(std::exchange(kind.kept_back, 0)));
        send(priority, text);
    }
    std::vsnprintf(text, sizeof text, format, arguments);
    makePrintable(text);
    kind.sent = kind.second == now ? kind.sent + 1 : 1;
    kind.second = now;
    send(priority, text);
}

// A datagram as the C library would write it, or a line where the log is a stream.
void SystemLog::send(int priority, const char *text)
{
    if (!open()) {
        dropped_++;
        return;
    }
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    constexpr std::array kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    char line[kLongestLine + 64];
    const int length = std::snprintf(line, sizeof line, "<%d>%s %2d %02d:%02d:%02d vu[%d]: %s", priority,
                                     kMonths[static_cast<size_t>(parts.tm_mon)], parts.tm_mday, parts.tm_hour,
                                     parts.tm_min, parts.tm_sec, static_cast<int>(getpid()), text);
    const size_t bytes = std::min(static_cast<size_t>(std::max(length, 0)), sizeof line - 1);
    if (::send(socket_, line, bytes, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        sent_++;
        return;
    }
    dropped_++;
    if (errno != EAGAIN && errno != ENOBUFS) { // the daemon is gone; another one may come
        close(socket_);
        socket_ = -1;
    }
}

// At most one try a second.
bool SystemLog::open()
{
    const int64_t now = second();
    if (socket_ >= 0 || tried_ == now)
        return socket_ >= 0;
    tried_ = now;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path_.data(), path_.size());
    int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (made >= 0 && made < kFirstDescriptor) { // the standard ones were closed: these numbers stay free
        const int moved = fcntl(made, F_DUPFD_CLOEXEC, kFirstDescriptor);
        close(made);
        made = moved;
    }
    if (made < 0)
        return false;
    if (connect(made, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(made);
        return false;
    }
    socket_ = made;
    return true;
}

} // namespace vu
