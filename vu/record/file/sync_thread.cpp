#include "vu/record/file/sync_thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>

namespace vu {

namespace {

Descriptor duplicate(int fd)
{
    return Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

int errorOf(int result)
{
    return result == 0 || errno == EINVAL || errno == EROFS ? 0 : errno;
}

} // namespace

int syncError(int fd)
{
    return fd < 0 ? 0 : errorOf(fsync(fd));
}

SyncThread::SyncThread(int file, int folder, double interval)
    : file_(duplicate(file)), folder_(duplicate(folder))
{
    if (!file_)
        throw std::system_error(errno, std::generic_category(), "nothing can be brought to the disk");
    // A thread begins with the mask of the one that makes it: signals stay with the recorder's loop.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([this, interval] { run(interval); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

SyncThread::~SyncThread()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void SyncThread::note(int error)
{
    if (error == 0 || failed_)
        return;
    failed_ = true;
    error_ = error;
}

void SyncThread::run(double interval)
{
    note(syncError(file_.get()));
    note(syncError(folder_.get()));
    std::unique_lock lock(mutex_);
    constexpr double kShortest = 0.01; // seconds; a disk has other work too
    const std::chrono::duration<double> pause(std::max(interval, kShortest));
    while (!wake_.wait_for(lock, pause, [this] { return ending_; })) {
        lock.unlock();
        note(errorOf(fdatasync(file_.get())));
        lock.lock();
    }
}

} // namespace vu
