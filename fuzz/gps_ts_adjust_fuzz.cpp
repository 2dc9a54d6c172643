// Arbitrary events through the host's timestamp adjustment. Besides the sanitizers' checks: a sentence never
// leaves later than it arrived or more than a quarter of a second before.
#include <string>

#include "fuzz/target.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/ts_adjust.h"

// Events of a time of 8 bytes, taken as it is or, if its first byte is odd, as 3 bytes since the one before;
// text to a NUL.
void fuzz(const uint8_t *data, size_t size)
{
    constexpr int64_t kExact = int64_t{1} << 50; // above that a double of seconds is coarser than a tick
    int64_t time = 0;
    gpsReinitNmeaTSAdjust();
    for (libvu::WireReader wire(data, size); wire.remaining() > 0;) {
        if (wire.u8() % 2)
            time = (time & (kExact - 1)) + wire.u8() * 65536 + wire.u16be();
        else
            time = wire.i64be();
        std::string text;
        while (const uint8_t letter = wire.u8())
            text += static_cast<char>(letter);
        const int64_t adjusted = gpsAdjustNmeaTimestamp(time, text.c_str());
        if (text[0] == '$' && adjusted != -1 && time < kExact)
            require(adjusted <= time + 1 && adjusted >= time - libvu::kTicksPerSecond / 4 - 1);
    }
}
