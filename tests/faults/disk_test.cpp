#include <algorithm>
#include <cerrno>

#include "tests/datafile/data_file.h"
#include "tests/support/allocation_faults.h"

using namespace vu::test;
using namespace testing;

const std::string kNotice =
    "The system has run out of space for further writes to the data (KRD) file for the test.  The test will "
    "continue running and if there are any histogram data modes in the test, the data for those will be "
    "written to the KRD file when the test is stopped.  No other data will be written to the KRD file from "
    "this point on.";

// Every kind of block, in one file of some hundred bytes, on a disk that can refuse any of them.
class Disk : public DataFile {
protected:
    Disk()
    {
        calls.system = [this](const char *command) { return notifiers.emplace_back(command), 0; };
        prepare();
        writeEverything();
        all_blocks = blocks();
        all_ends = call_ends;
    }

    // An empty file on a disk that has `room`. The call that meets the end is short; one that finds nothing
    // left is refused with `error`, or takes 0 bytes without one.
    void prepare(size_t room = SIZE_MAX, int error = 0)
    {
        startOver(30); // so little that the index writes itself on the way
        KRDBuffer_set_storage_convert(&records[1], "sequential_float32", "sequential_int16", 0, "rle");
        records[1].block_type = KRD_BLOCK_START_AUX;
        channel.no_position = 0;
        log.lines();
        notifiers.clear();
        call_ends = {0};
        calls.writev = [=, this](int to, const iovec *pieces, int count) -> ssize_t {
            std::string bytes;
            for (int i = 0; i < count; i++)
                bytes.append(static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len);
            const iovec piece = {bytes.data(), std::min(room - size(), bytes.size())};
            const ssize_t written = real_writev(to, &piece, 1);
            call_ends.push_back(size());
            errno = error;
            return piece.iov_len || !error ? written : -1;
        };
    }
    void writeEverything()
    {
        KRDBuffer_append(&channel, "catalogue", 9);
        KRDBuffer_flush(&channel, 1);
        for (const float level : {1.0f, 2.0f}) {
            queue<float>(channel, {level, 2.0f});
            queue<float>(records[1], {level, level, 3.0f});
            flushChannels();
        }
        for (size_t i = 0; i < 1030; i++) // more pieces than one call takes
            queue(records[2], std::vector<uint8_t>(1));
        queue<float>(records[3], {4.0f});
        flushChannels();
        KRDBuffer_flush(&index, 1);
        calls.writev = nullptr;
    }

    size_t size() const { return std::filesystem::file_size(path); }
    std::vector<Block> all_blocks;
    std::vector<size_t> call_ends, all_ends; // where each call has left the file, and the start
    std::vector<std::string> notifiers;
};

// At each byte of the file in turn: what was complete stays, what was not is cut off, and the test runs on in
// silence until the host lets it write again. Where a call ends, the disk may also refuse for other reasons;
// between the calls of one block nothing is cut then. What a host does in its callback does not bring the
// file back, and frames that it takes are not used.
TEST_F(Disk, FullOrRefusingAtEveryByte)
{
    static Pipe *drained;
    static int refusals;
    static const auto trapped = libvuErrorCallback;
    libvuErrorCallback = [](const char *text) {
        EXPECT_EQ(KRDWriter_is_disk_full(), 0);
        if (refusals++ % 2) {
            KRDWriter_restore_writer();
            pipeFlushFrames(drained);
        }
        return trapped(text);
    };
    std::vector<Block> fitting;
    for (size_t room = 0; room < all_ends.back(); room++) {
        while (all_blocks[fitting.size()].end() <= room)
            fitting.push_back(all_blocks[fitting.size()]);
        const auto refused = std::upper_bound(all_ends.begin(), all_ends.end(), room);
        const size_t taken = refused[-1];
        for (const int error : {ENOSPC, 0, EIO, EINTR, EAGAIN, EDQUOT, EFBIG}) {
            if (taken != room && error != ENOSPC)
                break;
            SCOPED_TRACE(Message() << "room " << room << ", error " << error);
            prepare(room, error);
            drained = records[2].pipe;
            writeEverything();
            EXPECT_EQ(call_ends.size() - 1, static_cast<size_t>(refused - all_ends.begin()));
            EXPECT_EQ(KRDWriter_amount_written(5, records), static_cast<double>(taken));
            EXPECT_EQ(KRDWriter_is_disk_full(), 1);
            for (const KRDBuffer &record : records)
                EXPECT_FALSE(record.pipe && pipeHasFrames(record.pipe));
            EXPECT_EQ(difference(completeBlocks(file()), fitting), "");
            EXPECT_EQ(size(), taken == room ? room : fitting.empty() ? 0 : fitting.back().end());
            if (error == ENOSPC || error == 0) {
                EXPECT_THAT(log.lines(), ElementsAre(Pair(12, kNotice)));
                EXPECT_THAT(notifiers, ElementsAre("/usr/bin/fs_full &"));
            } else {
                EXPECT_THAT(errors.texts(),
                            ElementsAre(StartsWith(std::string("KRD vib write() error: ") + strerror(error) +
                                                   " " + std::to_string(fd) + " ")));
                EXPECT_THAT(notifiers, ElementsAre());
            }
            KRDWriter_restore_writer();
            const size_t before = size();
            KRDBuffer_append(&channel, "histogram", 9);
            EXPECT_EQ(KRDBuffer_flush(&channel, 1), 29);
            EXPECT_EQ(completeBlocks(file().substr(before)).at(0).payload, "histogram");
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(Disk, CutThatFailsIsReportedAndStopsNothing)
{
    const auto reports = [this](const std::string &what, off64_t end) {
        calls.lseek64 = [end](int, off64_t, int) { return errno = EIO, end; };
        prepare(1, ENOSPC);
        writeEverything();
        EXPECT_EQ(libvuLastError(), "KRD vib " + what);
        EXPECT_EQ(notifiers.size(), 1u);
        EXPECT_EQ(KRDWriter_is_disk_full(), 1);
    };
    reports("lseek64 error: Input/output error", -1);
    reports("ftruncate64 error: Invalid argument", 0);
}

// Each allocation in turn, the test's own frames included: blocks may lack, none is unsound, nothing leaks.
TEST_F(Disk, EveryAllocationFailsOnce)
{
    AllocationFaults allocations;
    prepare();
    allocations.reset();
    writeEverything();
    const int64_t all = allocations.count();
    for (int64_t n = 0; n<all; n += n> 40 && n < all - 40 ? 37 : 1) {
        prepare();
        allocations.failAt(n);
        writeEverything();
        EXPECT_LE(errors.texts().size(), 1u) << n;
        EXPECT_GE(blocks().size() + 2, all_blocks.size()) << n;
        EXPECT_EQ(KRDWriter_is_disk_full(), 0);
    }
}
