// Brings what has been written to the disk, every so often, beside the thread that records: a disk that takes
// its time does not hold up the sources. The thread knows two descriptors and nothing else, and takes no
// signal.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "vu/support/descriptor.h"

namespace vu {

class SyncThread {
public:
    // `file` and `folder` are duplicated. Begins with both, so that the file keeps its name; then `file`
    // alone every `interval` seconds. Throws std::system_error if there is no thread to be had.
    SyncThread(int file, int folder, double interval);
    ~SyncThread(); // waits for the sync that goes on
    SyncThread(const SyncThread &) = delete;
    SyncThread &operator=(const SyncThread &) = delete;

    // The errno of the first sync that failed, once; 0: none did.
    int takeError() { return error_.exchange(0); }

private:
    void run(double interval);
    void note(int error);

    Descriptor file_;
    Descriptor folder_;
    std::atomic<int> error_ = 0;
    bool failed_ = false; // of the thread
    bool ending_ = false; // under the mutex
    std::mutex mutex_;
    std::condition_variable wake_;
    std::thread thread_;
};

// 0, or the errno of an fsync() that failed. Files that know no sync, a pipe for instance, count as synced,
// and so does none.
int syncError(int fd);

} // namespace vu
