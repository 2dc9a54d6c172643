// Cases in text files beside the tests, a line each. Empty lines and those that begin with "//" are left
// out. Whatever fails while a case is looked at names the file and the line of it.
#pragma once

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>

#include "tests/support/split.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

// The parts of one line, cut at " > "; "~" is the end of a line within a part.
struct Case : Strings {
    std::string file;
    int line = 0;
    std::string text; // the line as the file has it
};

inline void PrintTo(const Case &row, std::ostream *out)
{
    *out << row.file << ':' << row.line;
}

// The cases of a file. A loop over them leaves the place of each in the trace of whatever fails within.
class Cases {
public:
    explicit Cases(const std::string &file)
    {
        int number = 0;
        for (std::string line : split(readText(VU_SOURCE_DIR "/tests/" + file), '\n')) {
            number++;
            if (line.empty() || line.starts_with("//"))
                continue;
            Case &row = rows_.emplace_back(Case{{}, "tests/" + file, number, line});
            std::replace(line.begin(), line.end(), '~', '\n');
            for (size_t at = 0, end; at <= line.size(); at = end + 3) {
                end = std::min(line.find(" > ", at), line.size());
                row.push_back(line.substr(at, end - at));
            }
        }
        EXPECT_FALSE(rows_.empty()) << file;
    }

    class Iterator {
    public:
        const Case &operator*() const
        {
            trace_.emplace(at_->file.c_str(), at_->line, "this case");
            return *at_;
        }
        Iterator &operator++()
        {
            trace_.reset(); // traces end in the order opposite to their beginning
            ++at_;
            return *this;
        }
        bool operator==(const Iterator &other) const { return at_ == other.at_; }
        explicit Iterator(std::vector<Case>::const_iterator at) : at_(at) {}

    private:
        std::vector<Case>::const_iterator at_;
        mutable std::optional<::testing::ScopedTrace> trace_;
    };

    Iterator begin() const { return Iterator(rows_.begin()); }
    Iterator end() const { return Iterator(rows_.end()); }
    // For tables whose lines belong together, or are tests of their own.
    const std::vector<Case> &rows() const { return rows_; }

private:
    std::vector<Case> rows_;
};

inline Cases cases(const std::string &file)
{
    return Cases(file);
}

// The name of a case that is a test of its own: picked by --gtest_filter=*line_12
inline std::string caseName(const ::testing::TestParamInfo<Case> &info)
{
    return fmt::format("line_{}", info.param.line);
}

} // namespace vu::test
