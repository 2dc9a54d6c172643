// Whether the data file of a test could be made, asked without making it.
#pragma once

#include <filesystem>
#include <string>

namespace vu {

// What keeps `file` from being made; empty: nothing. An existing file is no hindrance if `replace`.
std::string outputRefusal(const std::filesystem::path &file, bool replace);

} // namespace vu
