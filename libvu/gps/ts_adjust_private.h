// The time of one record of a GPS channel.
#pragma once

#include <optional>
#include <string_view>

#include "libvu/gps/ts_adjust.h"

namespace libvu {

// `text` arrived at `timestamp`. Its adjusted time, both in ticks; none: the record is to be dropped. The
// state changes with every record, also with one that is dropped.
std::optional<int64_t> adjustTimestamp(GpsTsAdjust &adjust, std::string_view text, int64_t timestamp);

} // namespace libvu
