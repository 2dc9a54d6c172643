// Sizes, times and tables as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vu {

// "512 bytes", "1.5 kB", "12 MB": three figures, powers of 1000.
std::string sizeText(uint64_t bytes);
std::string sizeText(double bytes);

// 45 s as "45 s", 3725 s as "1 h 2 min", 1e10 s and more as "for ever".
std::string durationText(double seconds);

// Rows under a heading, columns as wide as they need. A column whose heading begins with ">" is flush right.
// Lines beyond `widest` characters are made to fit: the widest columns of text are cut, and end in "..."
std::string tableText(const std::vector<std::vector<std::string>> &rows, size_t widest = SIZE_MAX);

// A text of others made fit for a terminal, a log line or a table: control characters as \xNN, bytes that are
// no UTF-8 likewise, and at most `most` bytes of it, with "..." where it was longer.
std::string printable(std::string_view text, size_t most = 400);

// "3 of 40 signals never had a value: A, B, C", the first ten of them by name unless `all` are wanted; empty
// for none.
std::string neverText(const std::vector<std::string> &names, size_t signals, bool all);

// Ticks as decimal seconds, exactly where the file counts 25 ns ticks.
std::string secondsText(int64_t ticks, int64_t ticksPerSecond);

} // namespace vu
