// The sample rate that a file of samples knows itself.
#pragma once

#include <optional>
#include <string>

namespace vu {

// Of a sound file's header, of the head of an LVM file, or of a column of evenly spaced times in a table.
// Empty where the file does not say.
std::optional<double> sampleRateOf(const std::string &kind, const std::string &file);

} // namespace vu
