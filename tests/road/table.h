// Recorded texts and tables as they lie about: plain or packed, lines of cells between commas.
#pragma once

#include <filesystem>
#include <string>
#include <vector>
#include <zlib.h>

#include "tests/support/split.h"

namespace vu::test {

// The text of a file, unpacked if it is gzip.
inline std::string unpacked(const std::filesystem::path &file)
{
    std::string piece(1 << 16, '\0'), text;
    gzFile in = gzopen(file.c_str(), "rb");
    for (int count; in && (count = gzread(in, piece.data(), 1 << 16)) > 0;)
        text.append(piece, 0, static_cast<size_t>(count));
    gzclose(in);
    return text;
}

// Its lines, split at every comma.
inline std::vector<Strings> table(const std::filesystem::path &file)
{
    std::vector<Strings> rows;
    for (const std::string &line : split(unpacked(file), '\n'))
        rows.push_back(split(line, ','));
    return rows;
}

} // namespace vu::test
