#include "libvu/datafile/output_private.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "libvu/core/report.h"

namespace {

// Every write goes through this one pointer: writev itself, or its substitute after the disk has refused.
ssize_t (*write_vector)(int fd, const iovec *pieces, int count) = writev;

int64_t bytesOf(const iovec *pieces, int count)
{
    int64_t bytes = 0;
    for (int i = 0; i < count; i++)
        bytes += static_cast<int64_t>(pieces[i].iov_len);
    return bytes;
}

ssize_t write_vector_discard(int, const iovec *pieces, int count)
{
    return static_cast<ssize_t>(bytesOf(pieces, count));
}

// Takes the last `bytes` off the file, so that it ends with its last complete block.
void cutBack(const KRDBuffer *record, int64_t bytes)
{
    const off64_t end = lseek64(record->fd, 0, SEEK_END);
    if (end < 0)
        libvuSetError("KRD %s lseek64 error: %s", record->name, std::strerror(errno));
    else if (ftruncate64(record->fd, end - bytes) < 0)
        libvuSetError("KRD %s ftruncate64 error: %s", record->name, std::strerror(errno));
}

void announceFullDisk()
{
    // The notifier is a courtesy: a machine without it records all the same.
    [[maybe_unused]] const int started = std::system("/usr/bin/fs_full &");
    logWarning("The system has run out of space for further writes to the data (KRD) file for the test.  The "
               "test will continue running and if there are any histogram data modes in the test, the data "
               "for those will be written to the KRD file when the test is stopped.  No other data will be "
               "written to the KRD file from this point on.");
}

} // namespace

namespace libvu {

int64_t writePieces(KRDBuffer *record, int first, int count, int64_t down)
{
    const iovec *pieces = &record->iov[first];
    const int64_t wanted = bytesOf(pieces, count);
    const ssize_t written = write_vector(record->fd, pieces, count);
    const int error = errno;
    if (written == wanted) {
        if (write_vector == writev)
            record->amount_written += static_cast<double>(written);
        return written;
    }
    if (written < 0 && error != ENOSPC) {
        // Discarding begins after the report: a callback that restores writing must not bring back a file
        // that has just failed.
        libvuError("KRD %s write() error: %s %d %d %p", record->name, std::strerror(error), record->fd,
                   record->idx, static_cast<void *>(record));
        write_vector = write_vector_discard;
        return 0;
    }
    if (written > 0)
        cutBack(record, written + down);
    announceFullDisk();
    write_vector = write_vector_discard;
    return 0;
}

} // namespace libvu

double KRDWriter_amount_written(int32_t count, const KRDBuffer *records)
{
    double bytes = 0.0;
    for (int32_t i = 0; i < count; i++)
        bytes += records[i].amount_written;
    return std::floor(bytes);
}

int32_t KRDWriter_is_disk_full(void)
{
    return write_vector != writev ? 1 : 0;
}

void KRDWriter_restore_writer(void)
{
    write_vector = writev;
}
