// The lines of a text file, plain or compressed with gzip, and the account of those that were left out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>
#include <zlib.h>

namespace vu {

class TextLines {
public:
    explicit TextLines(const std::string &path); // throws InputError
    // The next line without its end; false at the end of the file. Of a line longer than 4 KiB only the
    // beginning is kept. Throws InputError at a damaged or unreadable place.
    bool next(std::string &line);
    uint64_t number() const { return number_; } // of the line last read, from 1
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
};

// What a source had to leave out: the first few by name, all by number.
class LeftOut {
public:
    // `what`, in the plural: "lines that are no frame".
    void add(const std::string &what, const std::string &where, std::string_view text);
    std::vector<std::string> notes() const;

private:
    struct Cause {
        std::string what;
        uint64_t count = 0;
        std::vector<std::string> examples;
    };
    std::vector<Cause> causes_;
};

} // namespace vu
