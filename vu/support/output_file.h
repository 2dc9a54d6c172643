// A result file that appears complete or not at all: it is written without a name and named when it is
// finished.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "vu/support/new_file.h"

namespace vu {

class OutputFile {
public:
    // Refuses an existing `path` unless `force`. Throws InputError, or std::runtime_error with the path and
    // the system's reason, and so do the functions below.
    OutputFile(std::filesystem::path path, bool force);

    // Says that so many bytes will come: a disk that has no room for them is noticed here.
    void expect(uint64_t bytes);
    void write(std::string_view bytes);
    // Writes what is gathered. Returns where the file can be read again until finish().
    const std::filesystem::path &flushed();
    // Writes what is gathered and gives the file its name.
    void finish();

private:
    void drain();

    NewFile file_;
    std::filesystem::path readable_;
    std::string gathered_;
    bool expected_ = false;
};

} // namespace vu
