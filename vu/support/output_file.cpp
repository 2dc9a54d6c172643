#include "vu/support/output_file.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>
#include <unistd.h>

#include "vu/command.h"

namespace vu {

namespace {

[[noreturn]] void fail(const std::filesystem::path &path, const char *what)
{
    throw std::runtime_error(fmt::format("{}: {}: {}", path.string(), what, std::strerror(errno)));
}

} // namespace

OutputFile::OutputFile(std::filesystem::path path, bool force)
    : path_(std::move(path)), temporary_(fmt::format("{}.part{}", path_.string(), getpid()))
{
    if (!force && std::filesystem::exists(path_))
        throw InputError(fmt::format("{}: exists already; --force overwrites it", path_.string()));
    out_.open(temporary_, std::ios::binary | std::ios::trunc);
    if (!out_)
        fail(path_, "can not be written");
}

OutputFile::~OutputFile()
{
    if (!out_.is_open())
        return;
    out_.close();
    std::error_code ignored;
    std::filesystem::remove(temporary_, ignored);
}

void OutputFile::write(std::string_view bytes)
{
    out_.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

const std::filesystem::path &OutputFile::flushed()
{
    out_.flush();
    if (!out_)
        fail(path_, "can not be written");
    return temporary_;
}

void OutputFile::finish()
{
    flushed();
    std::error_code error;
    std::filesystem::rename(temporary_, path_, error);
    if (error)
        throw std::runtime_error(fmt::format("{}: {}", path_.string(), error.message()));
    out_.close();
}

} // namespace vu
