// The text of the test's start, local time, into ticks.
#include <cstdlib>
#include <ctime>

#include "libvu/core/c_locale_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

// The ticks of ".25" and the like, if that is all there is.
int64_t fractionTicks(const char *text)
{
    if (*text != '.')
        return 0;
    char *end = nullptr;
    const double seconds = std::strtod(text, &end);
    if (*end != '\0')
        return 0;
    return libvu::saturated<int64_t>(seconds * static_cast<double>(libvu::kTicksPerSecond));
}

} // namespace

void proxyNode_SetStartTime(ProxyNode *node, const char *text)
{
    if (!text) {
        node->start_time = INT64_MAX;
        return;
    }
    const libvu::CLocaleScope decimalPoints;
    tm parts = {};
    parts.tm_isdst = -1; // the system's rules know whether daylight saving applied then
    const char *rest = strptime(text, "%Y-%m-%dT%H:%M:%S", &parts);
    if (!rest) {
        node->start_time = 0;
        return;
    }
    const int64_t ticks = libvu::multiplySaturated(mktime(&parts), libvu::kTicksPerSecond);
    node->start_time = libvu::addSaturated(ticks, fractionTicks(rest));
}
