// Times as logs write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vu {

// "1436509052.249713", "2015-07-10 08:17:32.249713" or "2015-07-10T08:17:32.249713Z", the dates as UTC, in
// ticks since 1970-01-01 or wherever a plain count begins; a part of a tick is cut off. Empty if it is none
// of them.
std::optional<int64_t> parseLogTime(std::string_view text);

// A time of day, "hhmmss" with or without a fraction, in ticks since midnight.
std::optional<int64_t> parseTimeOfDay(std::string_view text);

// Throws InputError, which names `where`, if the times of a log step by more than `longestGap` seconds, forth
// or back: one wrong time would make a recording without an end.
void checkStep(int64_t ticks, double longestGap, const std::string &where);

} // namespace vu
