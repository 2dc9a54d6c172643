#include "vu/support/new_file.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <stdexcept>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include "vu/command.h"

namespace vu {

namespace {

constexpr mode_t kMode = 0666; // the umask takes away from it
constexpr int kTries = 100;    // random names, and looks at a folder that somebody else has locked

[[noreturn]] void fail(const std::filesystem::path &path, const char *what, int reason = errno)
{
    throw std::runtime_error(fmt::format("{}: {}: {}", path.string(), what, std::strerror(reason)));
}

[[noreturn]] void refuseExisting(const std::filesystem::path &path)
{
    throw InputError(fmt::format("{}: exists already; --force overwrites it", path.string()));
}

// Temporary names that a signal has to take away. Nearly every file system has files without a name, so that
// few are ever used at once; one that finds no place here is left after a signal.
std::array<std::atomic<const char *>, 16> temporaries;

void removeTemporaries(int signal)
{
    for (const auto &temporary : temporaries)
        if (const char *name = temporary.load())
            unlink(name);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// Signals that somebody else handles, the recorder for instance, end the process in an orderly way.
void removeAtSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL)
            continue;
        action.sa_handler = removeTemporaries;
        action.sa_flags = static_cast<int>(SA_NODEFER | SA_RESETHAND);
        sigaction(signal, &action, nullptr);
    }
}

void exchangeTemporary(const char *before, const char *after)
{
    for (auto &temporary : temporaries) {
        const char *expected = before;
        if (temporary.compare_exchange_strong(expected, after))
            return;
    }
}

std::string randomName(const std::filesystem::path &path)
{
    uint64_t bits = 0;
    if (getrandom(&bits, sizeof bits, 0) != sizeof bits)
        fail(path, "no random name can be had");
    constexpr size_t kKept = 200; // bytes; a name may have 255
    const std::string name = path.filename().string().substr(0, kKept);
    return (folderOf(path) / fmt::format(".{}.{:016x}", name, bits)).string();
}

// Keeps other commands from naming files in a folder while one looks and names. A folder that stays locked
// for a second is somebody else's business: then the name is taken without it.
Descriptor lockFolder(const std::filesystem::path &folder)
{
    constexpr useconds_t kPause = 10000;
    Descriptor locked(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int tries = 0; locked && tries < kTries; tries++) {
        if (flock(locked.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
            break;
        usleep(kPause);
    }
    return locked;
}

// Throws if nothing may be put in the place of what is at `path`.
void checkName(const std::filesystem::path &path, bool force)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return;
    // A link that points nowhere is replaced itself; one to a device stays.
    const bool isFile = stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
    if (const pid_t recorder = isFile ? recorderOf(path) : 0; recorder != 0)
        throw InputError(recordedBy(path, recorder));
    if (!isFile)
        throw InputError(fmt::format("{}: is no file: expected the name of a file", path.string()));
    if (!force)
        refuseExisting(path);
}

// Some file systems cannot rename without replacing: there an empty file claims the name first.
bool renameToFree(const std::string &from, const std::filesystem::path &to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    const Descriptor claim(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    return claim && rename(from.c_str(), to.c_str()) == 0;
}

} // namespace

std::string recordedBy(const std::filesystem::path &path, pid_t recorder)
{
    return recorder > 0 ? fmt::format("{}: is being recorded by process {}", path.string(), recorder)
                        : fmt::format("{}: is being recorded by another process", path.string());
}

std::filesystem::path folderOf(const std::filesystem::path &path)
{
    return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

// The byte that a recorder locks says who it is: the system itself names no process for such a lock.
pid_t recorderOf(const std::filesystem::path &path)
{
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct flock held {};
    held.l_type = F_WRLCK;
    held.l_whence = SEEK_SET;
    if (!file || fcntl(file.get(), F_OFD_GETLK, &held) != 0 || held.l_type == F_UNLCK)
        return 0;
    const bool named = held.l_len == 1 && held.l_start > 0 &&
                       held.l_start <= static_cast<off_t>(std::numeric_limits<pid_t>::max());
    return named ? static_cast<pid_t>(held.l_start) : -1;
}

NewFile::NewFile(std::filesystem::path path, bool force, int flags) : path_(std::move(path)), force_(force)
{
    checkName(path_, force_);
    flags |= O_CLOEXEC;
    if ((flags & O_ACCMODE) == O_RDONLY)
        flags |= O_WRONLY;
    file_ = Descriptor(open(folderOf(path_).c_str(), O_TMPFILE | flags, kMode));
    // A file system without such files says so in one of these ways.
    if (!file_ && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL))
        makeTemporary(flags);
    if (!file_)
        fail(path_, "cannot be written");
}

NewFile::~NewFile()
{
    if (temporary_.empty())
        return;
    if (!named_)
        unlink(temporary_.c_str());
    exchangeTemporary(temporary_.c_str(), nullptr);
}

void NewFile::makeTemporary(int flags)
{
    removeAtSignals();
    for (int tries = 0; !file_ && tries < kTries; tries++) {
        std::string name = randomName(path_);
        file_ = Descriptor(open(name.c_str(), O_CREAT | O_EXCL | O_NOFOLLOW | flags, kMode));
        if (file_)
            temporary_ = std::move(name);
        else if (errno != EEXIST)
            return;
    }
    if (file_)
        exchangeTemporary(nullptr, temporary_.c_str());
}

std::filesystem::path NewFile::openablePath() const
{
    return temporary_.empty() ? fmt::format("/proc/self/fd/{}", fd()) : temporary_;
}

void NewFile::lock()
{
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = getpid();
    lock.l_len = 1;
    fcntl(fd(), F_OFD_SETLK, &lock); // a file system without locks records all the same
}

void NewFile::name()
{
    const Descriptor folder = lockFolder(folderOf(path_));
    checkName(path_, force_);
    take();
    named_ = true;
}

void NewFile::take()
{
    if (temporary_.empty()) {
        const std::string unnamed = openablePath();
        const auto linkTo = [&](const std::filesystem::path &to) {
            return linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, to.c_str(), AT_SYMLINK_FOLLOW) == 0;
        };
        if (linkTo(path_))
            return;
        if (errno == EEXIST && !force_)
            refuseExisting(path_);
        if (errno != EEXIST)
            fail(path_, "cannot be given its name");
        // Only a rename replaces a name in one step.
        std::string between = randomName(path_);
        if (!linkTo(between))
            fail(path_, "cannot be given its name");
        removeAtSignals();
        temporary_ = std::move(between);
        exchangeTemporary(nullptr, temporary_.c_str());
    }
    if (force_ ? rename(temporary_.c_str(), path_.c_str()) == 0 : renameToFree(temporary_, path_))
        return;
    if (errno == EEXIST)
        refuseExisting(path_);
    fail(path_, "cannot be given its name");
}

} // namespace vu
