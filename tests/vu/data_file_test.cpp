// The end of a data file when disk or memory run out, what it says of its channels, and how it reaches the
// disk.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <malloc.h>
#include <new>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "libvu/libvu.h"
#include "tests/support/cases.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/samples.h"
#include "vu/record/file/file_head.h"
#include "vu/record/host_callbacks.h"

namespace {

std::atomic<size_t> memoryUsed = 0, memoryLimit = SIZE_MAX; // of operator new, in bytes
std::atomic<int> syncs = 0, syncErrno = 0;
std::atomic<bool> syncTakesSignals = false;

int syncCalled(int number, int fd)
{
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    if (getpid() != gettid() && !sigismember(&blocked, SIGINT))
        syncTakesSignals = true;
    syncs++;
    errno = syncErrno;
    return errno != 0 ? -1 : static_cast<int>(syscall(number, fd));
}

} // namespace

#if !VU_SANITIZED // whose own allocator keeps account of every kind of new and delete
void *operator new(size_t size)
{
    void *memory = memoryUsed + size > memoryLimit ? nullptr : std::malloc(size);
    if (!memory)
        throw std::bad_alloc();
    memoryUsed += malloc_usable_size(memory);
    return memory;
}
void operator delete(void *memory) noexcept
{
    memoryUsed -= memory ? malloc_usable_size(memory) : 0;
    std::free(memory);
}
void operator delete(void *memory, size_t) noexcept
{
    operator delete(memory);
}
#endif
extern "C" int fsync(int fd)
{
    return syncCalled(SYS_fsync, fd);
}
extern "C" int fdatasync(int fd)
{
    return syncCalled(SYS_fdatasync, fd);
}

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Recorded : public ::testing::Test {
protected:
    Recorded()
    {
        setHostCallbacks({});
        test.name = "unit";
        test.start_time = "2026-03-15T10:15:30.25";
        test.sync_interval = 0.0;
        std::signal(SIGXFSZ, SIG_IGN);
        ::testing::internal::CaptureStderr(); // events are printed
    }
    ~Recorded() override
    {
        memoryLimit = SIZE_MAX;
        ::testing::internal::GetCapturedStderr();
    }

    static Track track(PipeList &pipes, const std::string &name = "a")
    {
        Track track;
        track.name = name;
        track.kind = "sequential";
        track.element = "float64";
        track.element_size = 8;
        track.sample_rate = 1000;
        track.pipes = &pipes;
        return track;
    }
    void deliver(uint32_t count, double value)
    {
        Frame *frame = frameCreate(count, 8, nullptr);
        std::fill_n(static_cast<double *>(frame->data), count, value);
        frame->length = count;
        frame->start = std::exchange(delivered, delivered + count);
        pipeAddFrame(pipes.first, frame);
    }
    // What the file says, and that it agrees with itself.
    krd::Closing closing()
    {
        bytes = readBytes(path);
        recording = krd::scan(bytes, "file");
        EXPECT_THAT(krd::check(recording).problems, IsEmpty());
        return recording.closing.value_or(krd::Closing());
    }
    static void detach(PipeList &pipes)
    {
        while (pipes.first)
            pipeDetachPipe(&pipes, pipes.first);
    }

    TempDir folder;
    const std::filesystem::path path = folder.path("unit.krd");
    Description test;
    PipeList pipes{}, unwanted{};
    int64_t delivered = 0;
    std::vector<uint8_t> bytes;
    krd::Recording recording;
};

// Ten thousand events, and a disk or a memory that is full: index, ledger and closing block are there, with
// as many events as have room.
TEST_F(Recorded, AFullDiskOrMemoryTakesEventsAndNoLedger)
{
    struct {
        const char *name;
        rlim_t disk;
        bool memory, all;
    } const cases[] = {{"room for all", RLIM_INFINITY, false, true},
                       {"a full disk with room held back", 6 << 20, false, true},
                       {"a small disk", 1 << 20, false, false},
                       {"no memory but what was held back", RLIM_INFINITY, true, false},
                       {"neither", 1 << 20, true, false}};
    for (const auto &[name, disk, memory, all] : cases) {
        SCOPED_TRACE(name);
        delivered = 0;
        rlimit before{};
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit full{disk, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        Events events;
        Track second = track(unwanted, "b");
        second.store.wanted = false;
        {
            DataFile file(path, true);
            file.begin(test, {track(pipes), second});
            for (int i = 0; i < 10000; i++)
                events.add("range", "a", std::string(60, 'x'), {}, 10000.0 - i);
            file.flush(false, events);
            for (int i = 0; i < 40; i++) {
                deliver(20000, i);
                file.flush(false, events);
            }
            memoryLimit = memory ? memoryUsed.load() : SIZE_MAX;
            file.finish("duration", events);
            memoryLimit = SIZE_MAX;
        }
        setrlimit(RLIMIT_FSIZE, &before);
        const krd::Closing closing = this->closing();
        ASSERT_EQ(closing.ledger.size(), 2u);
        EXPECT_EQ(closing.ledger[0].received, 800000u);
        EXPECT_EQ(closing.ledger[0].stored == 800000u, disk == RLIM_INFINITY);
        EXPECT_EQ(closing.ledger[1].group, 0u) << "a channel that is not stored has its line";
        EXPECT_EQ(closing.events.size() + closing.eventsLeftOut, events.list().size());
        if (!memory) { // how much of it a JSON text takes is the allocator's business
            EXPECT_EQ(closing.eventsLeftOut == 0, all);
        }
        EXPECT_GT(closing.events.size(), 100u);
        for (size_t i = 1; i < closing.events.size(); i++)
            EXPECT_LE(closing.events[i - 1]["time"], closing.events[i]["time"]);
        detach(pipes);
    }
}

TEST_F(Recorded, SyncsEverySoOftenAndAtTheEnd)
{
    for (const double interval : {0.0, 0.05}) {
        SCOPED_TRACE(interval);
        syncs = 0;
        Events events;
        test.sync_interval = interval;
        DataFile file(path, true);
        file.begin(test, {track(pipes)});
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        const int before = syncs;
        EXPECT_EQ(before > 3, interval > 0.0) << before;
        EXPECT_EQ(before == 0, interval == 0.0) << before;
        syncErrno = EIO;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        file.flush(false, events);
        EXPECT_EQ(events.anyLoss(), interval > 0.0) << "a disk that refuses is an event";
        syncErrno = 0;
        const int last = syncs;
        file.finish("duration", events);
        EXPECT_GE(syncs, last + 2) << "the file and its folder";
        closing();
        detach(pipes);
    }
    EXPECT_FALSE(syncTakesSignals);
}

// What the file says of "no value" is what the library stores for it.
TEST_F(Recorded, TheInvalidValueIsTheStoredOne)
{
    for (const Strings &parts : cases("vu/invalid_values.txt")) {
        Track stored = track(pipes);
        stored.store.element = parts[0] == "-" ? "" : parts[0];
        stored.store.run_length = parts[1] == "rle";
        stored.store.scale = std::stod(parts[2]);
        stored.store.offset = std::stod(parts[3]);
        describeValues(stored, R"({"rezero_offset": 4, "invalid_data_output_value": )" + parts[4] + "}");
        Events events;
        DataFile file(path, true);
        file.begin(test, {stored});
        deliver(1, std::stod(parts[4]));
        file.finish("duration", events);
        closing();
        const krd::Channel &channel = recording.catalogue->channels.at(0);
        ASSERT_TRUE(channel.invalid);
        EXPECT_EQ(channel.calibration->zero, 4.0);
        const krd::SampleCursor sample(channel, recording.blocksOf(2));
        EXPECT_EQ(krd::toDouble(sample.value()), *channel.invalid * channel.scale + channel.offset)
            << *channel.invalid;
        detach(pipes);
    }
}

TEST_F(Recorded, AFileNamesItselfItsRecorderItsStartAndItsSources)
{
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    EXPECT_EQ(utcOf("2026-07-01T00:30:00"), "2026-06-30T22:30:00.000000000Z");
    EXPECT_EQ(utcOf("2026-03-15T10:15:30.1234567891"), "2026-03-15T09:15:30.123456789Z");
    EXPECT_EQ(utcOf("yesterday"), "");
    std::set<std::string> ids;
    for (const char *given : {"", "2020-01-01T00:00:00.000000001Z"}) {
        test.start_utc = given;
        Events events;
        DataFile file(path, true);
        file.begin(test, {track(pipes), track(unwanted, "b")});
        Account account;
        account.channel = "a";
        account.kind = "candump";
        account.known = true;
        account.read = 7;
        file.account(account);
        account.left_out["truncated"] = 2;
        file.account(account);
        file.finish("duration", events);
        const krd::Closing closing = this->closing();
        ASSERT_EQ(closing.accounts.size(), 1u);
        EXPECT_EQ(closing.accounts[0].lost(), 2u);
        EXPECT_EQ(closing.accounts[0].read, 7u);
        EXPECT_EQ(recording.catalogue->startUtc, *given ? given : "2026-03-15T09:15:30.250000000Z");
        EXPECT_EQ(recording.catalogue->recorder->program, "vu");
        EXPECT_THAT(recording.catalogue->id,
                    ::testing::MatchesRegex("[0-9a-f]+-[0-9a-f]+-4[0-9a-f]+-[89ab][0-9a-f]+-[0-9a-f]+"));
        ids.insert(recording.catalogue->id);
        detach(pipes);
        detach(unwanted);
    }
    EXPECT_EQ(ids.size(), 2u);
    unsetenv("TZ");
    tzset();
}

} // namespace
} // namespace vu::test
