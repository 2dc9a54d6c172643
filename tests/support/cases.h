// Cases that stand in text files beside the tests, a line each. Lines that are empty or begin with "//" are
// none.
#pragma once

#include <algorithm>
#include <gtest/gtest.h>

#include "tests/support/split.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

inline Strings linesOf(const std::string &file)
{
    Strings lines = split(readText(VU_SOURCE_DIR "/tests/" + file), '\n');
    std::erase_if(lines, [](const std::string &line) { return line.empty() || line.starts_with("//"); });
    EXPECT_FALSE(lines.empty()) << file;
    return lines;
}

// Lines cut at " > ", "~" being the end of a line within a part.
inline std::vector<Strings> cases(const std::string &file)
{
    std::vector<Strings> all;
    for (std::string line : linesOf(file)) {
        std::replace(line.begin(), line.end(), '~', '\n');
        Strings &parts = all.emplace_back();
        for (size_t at = 0, end; at <= line.size(); at = end + 3) {
            end = std::min(line.find(" > ", at), line.size());
            parts.push_back(line.substr(at, end - at));
        }
    }
    return all;
}

} // namespace vu::test
