#include "vu/krdfile/input_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "vu/command.h"
#include "vu/support/texts.h"

namespace vu::krd {

namespace {

constexpr size_t kWindow = 1 << 20; // bytes; a call of the system costs little beside them

} // namespace

InputFile::InputFile(const std::filesystem::path &path, std::string name)
    : name_(name.empty() ? path.string() : std::move(name)),
      descriptor_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
{
    const auto refuse = [this](int reason) {
        throw InputError(fmt::format("{}: cannot be read: {}", printable(name_), std::strerror(reason)));
    };
    struct stat status = {};
    if (!descriptor_ || fstat(descriptor_.get(), &status) != 0)
        refuse(errno);
    if (S_ISDIR(status.st_mode))
        refuse(EISDIR);
    if (!S_ISREG(status.st_mode))
        throw InputError(
            fmt::format("{}: expected a file, and this is a device or a pipe", printable(name_)));
    size_ = static_cast<uint64_t>(status.st_size);
}

void InputFile::read(uint64_t offset, std::span<uint8_t> to) const
{
    if (!descriptor_) {
        std::ranges::copy(memory_.subspan(offset, to.size()), to.begin());
        return;
    }
    while (!to.empty()) {
        const ssize_t got = pread(descriptor_.get(), to.data(), to.size(), static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw std::runtime_error(fmt::format("{}: cannot be read at byte {}: {}", printable(name_),
                                                 offset, std::strerror(errno)));
        if (got == 0)
            throw std::runtime_error(
                fmt::format("{}: became shorter while it was read: it ends at byte {}, and had {}",
                            printable(name_), offset, size_));
        offset += static_cast<uint64_t>(got);
        to = to.subspan(static_cast<size_t>(got));
    }
}

Bytes Window::at(uint64_t offset, size_t size)
{
    if (file_.memory().data())
        return file_.memory().subspan(offset, size);
    if (offset < begin_ || offset + size > begin_ + held_) {
        const auto wanted = std::min<uint64_t>(std::max(kWindow, size), file_.size() - offset);
        if (buffer_.size() < wanted)
            buffer_.resize(wanted);
        held_ = 0; // nothing is held if the file cannot be read
        file_.read(offset, std::span(buffer_).first(wanted));
        begin_ = offset;
        held_ = wanted;
    }
    return Bytes(buffer_).subspan(offset - begin_, size);
}

void Window::copy(uint64_t offset, std::span<uint8_t> to) const
{
    if (offset >= begin_ && offset + to.size() <= begin_ + held_)
        std::ranges::copy(Bytes(buffer_).subspan(offset - begin_, to.size()), to.begin());
    else
        file_.read(offset, to);
}

} // namespace vu::krd
