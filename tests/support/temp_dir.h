// A folder for one test, gone with it; whole files; and the recordings that a checkout may have beside it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

namespace vu::test {

class TempDir {
public:
    TempDir()
    {
        if (!mkdtemp(path_.data()))
            std::abort();
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(TempDir &&) = delete;
    std::filesystem::path path(const std::string &name = {}) const
    {
        return name.empty() ? path_ : path_ + '/' + name;
    }

private:
    std::string path_ = std::filesystem::temp_directory_path() / "vu-test-XXXXXX";
};

inline std::string readText(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}
inline std::vector<uint8_t> readBytes(const std::filesystem::path &file)
{
    const std::string text = readText(file);
    return {text.begin(), text.end()};
}
inline void writeText(const std::filesystem::path &file, const std::string &text)
{
    std::ofstream(file, std::ios::binary) << text;
}
inline void writeBytes(const std::filesystem::path &file, std::span<const uint8_t> bytes)
{
    writeText(file, std::string(bytes.begin(), bytes.end()));
}

// The folder of real recordings, or an empty path; a test that needs it skips then.
inline std::filesystem::path recordings()
{
    const auto folder = std::filesystem::path(VU_SOURCE_DIR).parent_path() / "shared" / "data";
    return std::filesystem::is_directory(folder) ? folder : std::filesystem::path();
}

} // namespace vu::test

#define SKIP_WITHOUT_RECORDINGS()                                                                            \
    if (vu::test::recordings().empty())                                                                      \
    GTEST_SKIP() << "no folder of recordings beside this checkout"
