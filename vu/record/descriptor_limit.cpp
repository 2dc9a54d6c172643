#include "vu/record/descriptor_limit.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/resource.h>

#include "vu/command.h"

namespace vu {

void makeRoomForChannels(size_t channels)
{
    // A channel has its connection, and one that is started here the socket and the account of its source;
    // the rest is the file, the loop and what the caller left open.
    constexpr rlim_t kEach = 3, kBesides = 64;
    const rlim_t needed = kEach * channels + kBesides;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed)
        return;
    const rlimit raised{std::min(needed, limit.rlim_max), limit.rlim_max};
    if (needed > limit.rlim_max || setrlimit(RLIMIT_NOFILE, &raised) != 0)
        throw InputError(fmt::format(
            "{} channels need {} open descriptors, and this process may have {} at most: raise the limit "
            "(ulimit -Hn {} as root, \"nofile\" in /etc/security/limits.conf, LimitNOFILE={} of a service)",
            channels, needed, limit.rlim_max, needed, needed));
}

} // namespace vu
