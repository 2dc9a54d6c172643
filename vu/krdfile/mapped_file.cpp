#include "vu/krdfile/mapped_file.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "vu/command.h"

namespace vu::krd {

MappedFile::MappedFile(const std::filesystem::path &path)
{
    const auto refuse = [&path](int reason) {
        throw InputError(fmt::format("{}: can not be read: {}", path.string(), std::strerror(reason)));
    };
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        refuse(errno);
    struct stat status = {};
    int reason = fstat(fd, &status) != 0   ? errno
                 : S_ISREG(status.st_mode) ? 0
                 : S_ISDIR(status.st_mode) ? EISDIR
                                           : EINVAL;
    void *mapped = nullptr;
    const auto size = static_cast<size_t>(status.st_size);
    if (reason == 0 && size > 0) {
        mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        reason = mapped == MAP_FAILED ? errno : 0;
    }
    close(fd);
    if (reason != 0)
        refuse(reason);
    bytes_ = Bytes(static_cast<const uint8_t *>(mapped), size);
}

MappedFile::~MappedFile()
{
    if (!bytes_.empty())
        munmap(const_cast<uint8_t *>(bytes_.data()), bytes_.size());
}

MappedFile::MappedFile(MappedFile &&other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}

} // namespace vu::krd
