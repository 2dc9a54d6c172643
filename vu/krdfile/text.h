// What the file tools print for people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vu::krd {

// "512 bytes", "1.5 kB", "12 MB": three figures, powers of 1000.
std::string sizeText(uint64_t bytes);

// Rows under a heading, columns as wide as they need. A column whose heading begins with ">" is flush right.
std::string tableText(const std::vector<std::vector<std::string>> &rows);

// Ticks as decimal seconds, exactly where the file counts 25 ns ticks.
std::string secondsText(int64_t ticks, int64_t ticksPerSecond);

} // namespace vu::krd
