// Arbitrary text as the stanza of a GPS signal.
#include "fuzz/host.h"
#include "tests/gps/receiver.h"

void fuzz(const uint8_t *data, size_t size)
{
    const std::string stanza(reinterpret_cast<const char *>(data), size);
    if (!isAffordable(stanza))
        return;
    ProxyNode channel = {};
    if (GpsSignal *signal = gpsSignalInit(&channel, stanza.c_str()))
        vu::test::release(signal);
}
