// Times as NTP float messages and module streams carry them.
#pragma once

#include <cstdint>

#include "vu/source/serve/wire_writer.h"

namespace vu {

struct NtpTime {
    uint32_t seconds;  // since 2000-01-01
    uint32_t fraction; // of a second, in units of 2^-32
};

constexpr NtpTime ntpTime(int64_t ticksSince1970)
{
    constexpr int64_t kEpoch2000 = 946684800;
    const int64_t part = ticksSince1970 % kTicksPerSecond;
    const auto fraction = ((static_cast<uint64_t>(part) << 32) + kTicksPerSecond / 2) / kTicksPerSecond;
    return {static_cast<uint32_t>(ticksSince1970 / kTicksPerSecond - kEpoch2000),
            static_cast<uint32_t>(fraction)};
}

} // namespace vu
