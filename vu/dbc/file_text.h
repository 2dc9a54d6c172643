// The text of a DBC file, whatever it was written and packed with.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vu::dbc {

// The bytes of a file, unpacked if gzip packed it. Throws InputError.
std::string readFile(const std::filesystem::path &file);
// UTF-8 as it is, without its byte-order mark; anything else is taken as Windows-1252.
std::string toUtf8(std::string_view text);

} // namespace vu::dbc
