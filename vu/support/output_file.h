// A result file that appears whole or not at all: written under a temporary name, renamed when it is
// finished.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace vu {

class OutputFile {
public:
    // Refuses an existing `path` unless `force`. Throws InputError, or std::runtime_error with the path and
    // the system's reason.
    OutputFile(std::filesystem::path path, bool force);
    ~OutputFile(); // an unfinished file is removed
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    void write(std::string_view bytes);
    // Flushes and checks every write so far. Returns where the file stands until finish(), to read it again.
    const std::filesystem::path &flushed();
    // Flushes, checks every write so far, and gives the file its name.
    void finish();

private:
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    std::ofstream out_;
};

} // namespace vu
