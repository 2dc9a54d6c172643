#include "vu/record/host_callbacks.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "libvu/core/callbacks.h"

namespace vu {

namespace {

HostCallbacks current; // the library calls plain functions

// The library knows no exceptions: memory that is short for a word about an error must not unwind it.
template <typename Function, typename... Args>
int32_t pass(const Function &function, Args... args) noexcept
{
    try {
        if (function)
            function(args...);
    } catch (...) {
        if (current.failed)
            current.failed();
    }
    return 1;
}

int32_t onError(const char *text)
{
    return pass(current.error, text);
}

int32_t onRezero(const char *name, double zero)
{
    return pass(current.rezero, name, zero);
}

int32_t onDisconnect(const char *name)
{
    return pass(current.disconnected, name);
}

} // namespace

void setHostCallbacks(HostCallbacks callbacks)
{
    current = std::move(callbacks);
    libvuErrorCallback = onError;
    libvuCriticalErrorCallback = onError;
    libvuRezeroCallback = onRezero;
    libvuChannelDisconnectCallback = onDisconnect;
}

GatheredErrors::GatheredErrors()
{
    setHostCallbacks({[this](const char *text) { texts_.emplace_back(text); }, {}, {}, {}});
}

std::string GatheredErrors::take()
{
    std::string line = fmt::format("{}", fmt::join(texts_, "; "));
    std::replace(line.begin(), line.end(), '\n', ' ');
    line.erase(line.find_last_not_of(' ') + 1);
    texts_.clear();
    return line;
}

} // namespace vu
