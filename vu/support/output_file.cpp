#include "vu/support/output_file.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/resource.h>

namespace vu {

namespace {

constexpr size_t kPiece = 256 << 10; // gathered before it is written

[[noreturn]] void fail(const std::filesystem::path &path)
{
    throw std::runtime_error(fmt::format("{}: cannot be written: {}", path.string(), std::strerror(errno)));
}

} // namespace

OutputFile::OutputFile(std::filesystem::path path, bool force)
    : file_(std::move(path), force), readable_(file_.openablePath())
{
}

void OutputFile::expect(uint64_t bytes)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && bytes > limit.rlim_cur) {
        errno = EFBIG;
        fail(file_.path());
    }
    const auto length = static_cast<off_t>(bytes);
    if (bytes == 0 || fallocate(file_.fd(), FALLOC_FL_KEEP_SIZE, 0, length) == 0)
        expected_ = true;
    else if (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)
        fail(file_.path()); // whatever else it says, the file may well fit
}

void OutputFile::write(std::string_view bytes)
{
    gathered_ += bytes;
    if (gathered_.size() >= kPiece)
        drain();
}

void OutputFile::drain()
{
    for (std::string_view rest = gathered_; !rest.empty();) {
        const ssize_t written = ::write(file_.fd(), rest.data(), rest.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            fail(file_.path());
        rest.remove_prefix(static_cast<size_t>(written));
    }
    gathered_.clear();
}

const std::filesystem::path &OutputFile::flushed()
{
    drain();
    return readable_;
}

void OutputFile::finish()
{
    drain();
    const off_t size = lseek(file_.fd(), 0, SEEK_CUR);
    if (expected_ && (size < 0 || ftruncate(file_.fd(), size) != 0)) // gives back what was expected too much
        fail(file_.path());
    // Some file systems tell only at a close() that a write failed.
    const int again = fcntl(file_.fd(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (again < 0 || ::close(again) != 0)
        fail(file_.path());
    file_.name();
    file_.close();
}

} // namespace vu
