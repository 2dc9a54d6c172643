#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace vu::test {

TempDir::TempDir(const std::filesystem::path &under)
{
    std::string pattern = (under / "vu-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("no folder for the test under " + under.string());
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string readText(const std::filesystem::path &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<uint8_t> readBytes(const std::filesystem::path &file)
{
    const std::string text = readText(file);
    return {text.begin(), text.end()};
}

void writeText(const std::filesystem::path &file, const std::string &text)
{
    std::ofstream(file, std::ios::binary) << text;
}

void writeBytes(const std::filesystem::path &file, std::span<const uint8_t> bytes)
{
    writeText(file, std::string(bytes.begin(), bytes.end()));
}

std::filesystem::path recordings()
{
    const auto folder = std::filesystem::path(VU_SOURCE_DIR).parent_path() / "shared" / "data";
    return std::filesystem::is_directory(folder) ? folder : std::filesystem::path();
}

} // namespace vu::test
