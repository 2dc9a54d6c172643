#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/resource.h>

#include "tests/datafile/data_file.h"
#include "tests/support/allocation_faults.h"

using namespace vu::test;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;

namespace {

const auto kNotice = Pair(
    12, AllOf(StartsWith("The system has run out of space for further writes to the data (KRD) file for the "
                         "test.  The test will continue running and if there are any histogram data modes "),
              EndsWith("when the test is stopped.  No other data will be written to the KRD file from this "
                       "point on.")));

// Every kind of block, in one file of some hundred bytes, on a disk that can refuse any of them.
class Disk : public DataFile {
protected:
    Disk()
    {
        calls.system = [this](const char *command) { return notifiers.emplace_back(command), 0; };
        calls.writev = [this](int to, const iovec *pieces, int count) {
            const ssize_t written = real_writev(to, pieces, count);
            call_ends.push_back(size());
            return written;
        };
        prepare();
        writeEverything();
        whole = file();
        reference = blocks();
    }

    void prepare()
    {
        startOver(30); // so little that the index writes itself on the way
        KRDBuffer_set_storage_convert(&records[1], "sequential_float32", "sequential_int16", 0, "rle");
        records[1].block_type = KRD_BLOCK_START_AUX;
    }
    void writeEverything()
    {
        KRDBuffer_append(&channel, "catalogue", 9);
        KRDBuffer_flush(&channel, 1);
        for (const float level : {1.0f, 2.0f}) {
            queue<float>(channel, {level, 2.0f});
            queue<float>(channel, {level});
            queue<float>(records[1], {level, level, 3.0f});
            flushChannels();
        }
        for (size_t i = 0; i < 1030; i++) // more pieces than one call takes
            queue(records[2], std::vector<uint16_t>(i % 103 == 9));
        queue<float>(records[3], {4.0f});
        flushChannels();
        KRDBuffer_flush(&index, 1);
    }

    // The same on a disk on which `refuse` decides what becomes of a call.
    void writeEverythingOn(std::function<ssize_t(const iovec *pieces, int count)> refuse)
    {
        log.lines();
        notifiers.clear();
        calls_made = 0;
        calls.writev = [&](int, const iovec *pieces, int count) {
            calls_made++;
            return refuse(pieces, count);
        };
        prepare();
        writeEverything();
        calls.writev = nullptr;
        for (const KRDBuffer &record : records)
            EXPECT_FALSE(record.pipe && pipeHasFrames(record.pipe));
    }

    size_t size() const { return std::filesystem::file_size(path); }
    void expectBlocksThatFit(size_t room)
    {
        std::vector<Block> fitting;
        for (const Block &block : reference)
            if (block.offset + block.payload.size() + KRD_FRAMING_SIZE <= room)
                fitting.push_back(block);
        EXPECT_TRUE(wholeBlocks(file(), &blocks_end) == fitting);
    }

    std::string whole;
    std::vector<Block> reference;
    std::vector<size_t> call_ends;
    std::vector<std::string> notifiers;
    size_t calls_made = 0, blocks_end = 0;
};

} // namespace

// The disk is full at each byte of the file in turn: what was whole stays, what was not is cut off, and the
// test runs on in silence until the host lets it write again.
TEST_F(Disk, FullAtEveryByte)
{
    for (size_t room = 0; room < whole.size(); room++) {
        SCOPED_TRACE(room);
        writeEverythingOn([&](const iovec *pieces, int count) -> ssize_t {
            std::string bytes;
            for (int i = 0; i < count; i++)
                bytes.append(static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len);
            const iovec piece = {bytes.data(), std::min(room - size(), bytes.size())};
            const ssize_t written = real_writev(fd, &piece, 1);
            errno = ENOSPC;
            return piece.iov_len ? written : -1;
        });
        const auto refused = std::upper_bound(call_ends.begin(), call_ends.end(), room);
        const size_t taken = refused == call_ends.begin() ? 0 : refused[-1];
        EXPECT_EQ(calls_made, static_cast<size_t>(refused - call_ends.begin() + 1));
        EXPECT_EQ(KRDWriter_amount_written(5, records), static_cast<double>(taken));
        EXPECT_EQ(KRDWriter_is_disk_full(), 1);
        EXPECT_THAT(log.lines(), ElementsAre(kNotice));
        EXPECT_THAT(notifiers, ElementsAre("/usr/bin/fs_full &"));
        expectBlocksThatFit(room);
        // A disk that is full between two calls of one block says so without taking a byte: nothing is cut.
        EXPECT_EQ(size(), taken == room ? room : blocks_end);

        KRDWriter_restore_writer();
        const size_t before = size();
        KRDBuffer_append(&channel, "histogram", 9);
        EXPECT_EQ(KRDBuffer_flush(&channel, 1), 29);
        EXPECT_EQ(wholeBlocks(file().substr(before)).at(0).payload, "histogram");
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(Disk, RefusalOfAnyCallIsReportedOnce)
{
    for (const int error : {EIO, EINTR, EAGAIN, EDQUOT, ENOSPC, 0})
        for (size_t refused = 0; refused < call_ends.size(); refused++) {
            SCOPED_TRACE(testing::Message() << "call " << refused << ", error " << error);
            writeEverythingOn([&](const iovec *pieces, int count) -> ssize_t {
                if (calls_made <= refused)
                    return real_writev(fd, pieces, count);
                errno = error;
                return error ? -1 : 0;
            });
            const size_t taken = refused ? call_ends[refused - 1] : 0;
            EXPECT_EQ(file(), whole.substr(0, taken));
            EXPECT_EQ(calls_made, refused + 1);
            EXPECT_EQ(KRDWriter_is_disk_full(), 1);
            const bool full = error == ENOSPC || error == 0;
            EXPECT_EQ(log.lines().size(), full ? 1u : 0u);
            EXPECT_EQ(notifiers.size(), full ? 1u : 0u);
            const std::string report = std::string("KRD vib write() error: ") + strerror(error) + " ";
            if (full)
                EXPECT_THAT(errors.texts(), IsEmpty());
            else
                EXPECT_THAT(errors.texts(), ElementsAre(StartsWith(report + std::to_string(fd))));
            ASSERT_FALSE(HasFailure());
        }
}

// What a host does in its callback does not bring a refused file back, and frames that it takes are not used.
TEST_F(Disk, CallbackOfARefusalMayRestoreAndDrain)
{
    static KRDBuffer *record;
    static int full_inside;
    record = &records[2];
    full_inside = -1;
    const auto trapped = std::exchange(libvuErrorCallback, [](const char *) {
        full_inside = KRDWriter_is_disk_full();
        KRDWriter_restore_writer();
        pipeFlushFrames(record->pipe);
        return 1;
    });
    for (size_t refused = 0; refused < call_ends.size(); refused++) {
        writeEverythingOn([&](const iovec *pieces, int count) -> ssize_t {
            errno = EIO;
            return calls_made <= refused ? real_writev(fd, pieces, count) : -1;
        });
        EXPECT_EQ(full_inside, 0);
        EXPECT_EQ(KRDWriter_is_disk_full(), 1);
    }
    libvuErrorCallback = trapped;
}

TEST_F(Disk, CutThatFailsIsToldAndStopsNothing)
{
    const auto shortCall = [&](const iovec *, int) -> ssize_t { return 1; };
    errno = EIO;
    calls.lseek64 = [](int, off64_t, int) { return errno = EIO, -1; };
    writeEverythingOn(shortCall);
    EXPECT_STREQ(libvuLastError(), "KRD vib lseek64 error: Input/output error");
    EXPECT_EQ(KRDWriter_is_disk_full(), 1);
    calls.lseek64 = nullptr;
    writeEverythingOn(shortCall); // nothing there to cut
    EXPECT_STREQ(libvuLastError(), "KRD vib ftruncate64 error: Invalid argument");
    EXPECT_EQ(notifiers.size(), 1u);
    EXPECT_EQ(KRDWriter_is_disk_full(), 1);
}

// A real limit, the kernel's own: short where it falls inside a call, refused with EFBIG behind it.
TEST_F(Disk, FileSizeLimitLeavesWholeBlocks)
{
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    for (const size_t room :
         {size_t{1}, call_ends[0], call_ends[0] + 21, whole.size() / 2, whole.size() - 1}) {
        const rlimit limit = {room, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        calls.writev = nullptr;
        prepare();
        writeEverything();
        setrlimit(RLIMIT_FSIZE, &before);
        expectBlocksThatFit(room);
        EXPECT_EQ(size(), blocks_end);
        EXPECT_EQ(errors.texts().size(), room == call_ends[0] ? 1u : 0u);
        EXPECT_EQ(KRDWriter_is_disk_full(), 1);
    }
    std::signal(SIGXFSZ, handler);
}

// Each allocation in turn, the test's own frames included: blocks may lack, none is unsound, nothing leaks.
TEST_F(Disk, EveryAllocationFailsOnce)
{
    calls.writev = nullptr;
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
        EXPECT_GE(blocks().size() + 2, reference.size()) << n;
        EXPECT_EQ(KRDWriter_is_disk_full(), 0);
    }
}
