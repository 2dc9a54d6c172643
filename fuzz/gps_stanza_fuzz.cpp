// Arbitrary text as the stanza of a GPS signal.
#include <cctype>
#include <cstdlib>
#include <string>

#include "libvu/core/callbacks.h"
#include "libvu/gps/gps_signal.h"
#include "tests/support/release_stream.h"

namespace {

// High rates cost memory by design, which would only tell the fuzzer of a machine that has too little.
bool mayAskForMuch(const std::string &text)
{
    size_t digits = 0;
    for (const char letter : text) {
        digits = std::isdigit(static_cast<unsigned char>(letter)) ? digits + 1 : 0;
        if (digits > 4)
            return true;
    }
    return text.find_first_of("eE", text.find_last_not_of("+-.eE0123456789}")) != text.npos;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvuErrorCallback = [](const char *) { return 1; };
    const std::string stanza(reinterpret_cast<const char *>(data), size);
    ProxyNode channel = {};
    GpsSignal *signal = mayAskForMuch(stanza) ? nullptr : gpsSignalInit(&channel, stanza.c_str());
    if (!signal)
        return 0;
    if (signal->sequentializer)
        vu::test::releaseStream(signal->sequentializer);
    for (void *owned : {static_cast<void *>(signal->json), static_cast<void *>(signal->name),
                        static_cast<void *>(signal->source_database), static_cast<void *>(signal->extractor)})
        std::free(owned);
    std::free(signal);
    return 0;
}
