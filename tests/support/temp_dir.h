// A folder for one test, gone with it; whole files; and the recordings that a checkout may have beside it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace vu::test {

class TempDir {
public:
    explicit TempDir(const std::filesystem::path &under = std::filesystem::temp_directory_path());
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::filesystem::path path(const std::string &name = {}) const
    {
        return name.empty() ? path_ : path_ / name;
    }

private:
    std::filesystem::path path_;
};

std::vector<uint8_t> readBytes(const std::filesystem::path &file);
std::string readText(const std::filesystem::path &file);
void writeBytes(const std::filesystem::path &file, std::span<const uint8_t> bytes);
void writeText(const std::filesystem::path &file, const std::string &text);

// The folder of real recordings, or an empty path; a test that needs it skips then.
std::filesystem::path recordings();

} // namespace vu::test

#define SKIP_WITHOUT_RECORDINGS()                                                                            \
    if (vu::test::recordings().empty())                                                                      \
    GTEST_SKIP() << "no folder of recordings beside this checkout"
