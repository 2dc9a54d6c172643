#include "tests/road/road.h"

#include <sstream>
#include <zlib.h>

namespace vu::test {

std::string unpacked(const std::filesystem::path &file)
{
    std::string text;
    gzFile in = gzopen(file.c_str(), "rb"); // a plain file as it is
    char bytes[65536];
    for (int count; in && (count = gzread(in, bytes, sizeof bytes)) > 0;)
        text.append(bytes, static_cast<size_t>(count));
    gzclose(in);
    return text;
}

std::vector<std::vector<std::string>> table(const std::filesystem::path &file)
{
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(unpacked(file));
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> &row = rows.emplace_back();
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');)
            row.push_back(cell);
    }
    return rows;
}

} // namespace vu::test
