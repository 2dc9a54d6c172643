#include "vu/record/file/held_room.h"

#include <algorithm>
#include <sys/statvfs.h>

namespace vu {

namespace {

constexpr uint64_t kLargestShare = 4; // of what is free: a small disk is there for the data
constexpr uint64_t kStep = 64 << 10;  // bytes; growing has its price

} // namespace

void HeldRoom::hold(const std::filesystem::path &folder, uint64_t bytes)
{
    if (bytes <= held_)
        return;
    held_ = (bytes + kStep - 1) / kStep * kStep;
    holdBlocks(folder, held_);
    holdLimit(held_);
}

void HeldRoom::holdBlocks(const std::filesystem::path &folder, uint64_t bytes)
{
    if (!file_)
        file_ = Descriptor(open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    struct statvfs disk {};
    if (!file_ || fstatvfs(file_.get(), &disk) != 0)
        return;
    const uint64_t share = uint64_t{disk.f_bavail} * disk.f_frsize / kLargestShare;
    // Where it fails the file keeps what it has, and the end of the recording is shortened if it must be.
    [[maybe_unused]] const int grown =
        fallocate(file_.get(), 0, 0, static_cast<off_t>(std::min(bytes, share)));
}

// Lowering the limit of this process ends the data early enough for the rest to fit below the true one.
void HeldRoom::holdLimit(uint64_t bytes)
{
    if (!limited_ && (getrlimit(RLIMIT_FSIZE, &before_) != 0 || before_.rlim_cur == RLIM_INFINITY))
        return;
    limited_ = true;
    const rlim_t room = std::min<rlim_t>(bytes, before_.rlim_cur / kLargestShare);
    const rlimit lowered{before_.rlim_cur - room, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lowered);
}

void HeldRoom::release()
{
    file_.close();
    if (limited_)
        setrlimit(RLIMIT_FSIZE, &before_);
    limited_ = false;
    held_ = 0;
}

} // namespace vu
