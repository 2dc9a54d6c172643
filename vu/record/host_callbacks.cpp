#include "vu/record/host_callbacks.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "libvu/core/callbacks.h"

namespace vu {

namespace {

HostCallbacks current; // the library calls plain functions

int32_t onError(const char *text)
{
    if (current.error)
        current.error(text);
    return 1;
}

int32_t onRezero(const char *name, double zero)
{
    if (current.rezero)
        current.rezero(name, zero);
    return 1;
}

int32_t onDisconnect(const char *name)
{
    if (current.disconnected)
        current.disconnected(name);
    return 1;
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
    setHostCallbacks({[this](const char *text) { texts_.emplace_back(text); }, {}, {}});
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
