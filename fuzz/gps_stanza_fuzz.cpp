// Arbitrary text as the stanza of a GPS signal.
#include <regex>

#include "libvu/core/callbacks.h"
#include "tests/gps/receiver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // High rates cost memory by design, which would only tell the fuzzer of a machine that has too little.
    static const std::regex large("[0-9]{5}|[0-9.][eE]");
    libvuErrorCallback = [](const char *) { return 1; };
    const std::string stanza(reinterpret_cast<const char *>(data), size);
    if (std::regex_search(stanza, large))
        return -1;
    ProxyNode channel = {};
    if (GpsSignal *signal = gpsSignalInit(&channel, stanza.c_str()))
        vu::test::release(signal);
    return 0;
}
