// The lines of a text file, plain or compressed with gzip.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include <zlib.h>

#include "vu/command.h"

namespace vu {

// The file ends in the middle of its compressed data.
struct TruncatedInput : InputError {
    using InputError::InputError;
};

class TextLines {
public:
    explicit TextLines(const std::string &path); // throws InputError
    // The next line without its end; false at the end of the file. Of a line longer than 4 KiB only the
    // beginning is kept. Throws InputError at a damaged or unreadable place, TruncatedInput at a cut one.
    bool next(std::string &line);
    uint64_t number() const { return number_; } // of the line last read, from 1
    bool endedInLine() const { return cut_; }   // the line last read has no end: the file may be cut
    std::string where() const;                  // "FILE:LINE" of it
    const std::string &path() const { return path_; }

private:
    struct Close {
        void operator()(gzFile_s *file) const { gzclose(file); }
    };
    bool refill();

    std::string path_;
    std::unique_ptr<gzFile_s, Close> file_;
    std::vector<char> buffer_ = std::vector<char>(65536);
    std::string_view unread_; // of `buffer_`
    uint64_t number_ = 0;
    bool cut_ = false;
};

} // namespace vu
