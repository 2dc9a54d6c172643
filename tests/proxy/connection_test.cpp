// A connection from its marker to its end, with a peer that does everything wrong.
#include <cerrno>
#include <csignal>
#include <ev.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <utility>

#include "libvu/core/callbacks.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"

using namespace vu::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using Floats = std::vector<float>;

// A sequential channel of frames of two samples, listened to; the marker is still to come.
class Connection : public ::testing::Test {
protected:
    ScopedCalls calls;
    ErrorTrap errors;
    TestChannel channel{stanza("sequential_float32", R"("sample_rate":20)")};
    Pipe *pipe = channel.listen();

    // The peer's last words and its end, both in one event.
    void end(const Bytes &last = {})
    {
        ASSERT_EQ(real_send(channel.far, last.data(), last.size(), 0), static_cast<ssize_t>(last.size()));
        shutdown(channel.far, SHUT_WR);
        channel.run();
    }
    Floats samples() { return takeSamples<float>(pipe); }
};

TEST_F(Connection, OnlyTwoMarkersOpenIt)
{
    for (const Bytes &first : {Bytes{0xFE, 0xED}, {0xED, 0xFE}, {0xED, 0xED}, {0xFE, 0xFE}, {0xFE}, {0}}) {
        TestChannel fresh(stanza("message_can"));
        fresh.send(first);
        fresh.send(Bytes().zeros(5000));
        fresh.hangUp();
        fresh.run();
        EXPECT_FALSE(ev_is_active(fresh->watcher)) << "sleeps at the end, also when it discards";
        const bool opens = first.size() == 2 && first[0] != first[1];
        EXPECT_EQ(fresh->state, opens ? 2 : 3);
        EXPECT_EQ(fresh->reader, opens ? fresh->main_reader : proxyNode_ProxyReaderDiscard);
        EXPECT_EQ(errors.disconnects().size(), opens);
    }
}

TEST_F(Connection, AnImpossibleLengthLosesTheFraming)
{
    for (const uint32_t length : {0x8000'0000u, 0xFFFF'FFFFu}) {
        TestChannel fresh(stanza("sequential_float32", R"("sample_rate":20)"));
        Pipe *const listener = fresh.listen();
        fresh.sendMarker();
        fresh.send(sampleRecord<float>({1, 2}).be(length).add(sampleRecord<float>({3, 4})));
        EXPECT_EQ(takeSamples<float>(listener), (Floats{1, 2}));
        EXPECT_THAT(errors.texts(), ElementsAre(HasSubstr("ch: a record of " + std::to_string(length))));
        EXPECT_EQ(fresh->state, 3);
        fresh.send(Bytes().zeros(5000));
        EXPECT_EQ(fresh->inbuf.size, 0u);
    }
}

TEST_F(Connection, TheEndIsToldOnceAndWhatCameBeforeIsKept)
{
    channel.sendMarker();
    end(sampleRecord<float>({1, 2}));
    EXPECT_EQ(samples(), (Floats{1, 2}));
    EXPECT_THAT(errors.disconnects(), ElementsAre("ch"));
    EXPECT_FALSE(ev_is_active(channel->watcher));
    EXPECT_THAT((std::array{channel->disconnected, channel->last_errno, channel->last_read, channel->state}),
                ElementsAre(1, ECONNRESET, 0, 2));
    EXPECT_GE(fcntl(channel->fd, F_GETFD), 0);
}

TEST_F(Connection, WithoutACallbackTheEndIsLoggedAndSignalled)
{
    LogTrap log;
    int raised = 0;
    vu::test::calls.raise = [&](int signal) { return raised = signal, 0; };
    libvuChannelDisconnectCallback = nullptr;
    channel.sendMarker();
    end();
    EXPECT_EQ(raised, SIGHUP);
    const std::pair told(12, "Channel 'ch' unexpectedly disconnected from the test.");
    EXPECT_THAT(log.lines(), ElementsAre(told));
}

TEST_F(Connection, ACallbackMayDetachAndStop)
{
    static ProxyNode *current;
    current = channel.node;
    libvuChannelDisconnectCallback = [](const char *) {
        pipeDetachPipe(&current->pipes, current->pipes.first);
        proxyNode_Stop(current);
        return 1;
    };
    channel.sendMarker();
    end(sampleRecord<float>({1, 2, 3}));
    EXPECT_EQ(channel.heard(), "Stop");
    EXPECT_EQ(channel->pipes.first, nullptr);
}

TEST_F(Connection, ReadErrorsEndItAndNobodyUsesTheNumberAgain)
{
    for (const int error : {EAGAIN, ECONNRESET, EINTR, EINVAL}) {
        TestChannel fresh(stanza("sequential_float32"));
        fresh.sendMarker();
        fresh->last_errno = 5;
        bool failed = false;
        vu::test::calls.read = [&](int fd, void *to, size_t size) {
            return fd == fresh.near && !std::exchange(failed, true) ? (errno = error, -1)
                                                                    : real_read(fd, to, size);
        };
        fresh.send(Bytes(8));
        vu::test::calls.read = nullptr;
        const bool ends = error != EAGAIN, closes = ends && error != EINVAL;
        EXPECT_EQ(errors.critical().size(), ends ? 1u : 0u);
        EXPECT_EQ(ev_is_active(fresh->watcher), !ends);
        EXPECT_THAT((std::array{fresh->disconnected, fresh->last_errno, fresh->last_read}),
                    ElementsAre(ends, ends ? error : 0, ends ? -1 : 0));
        EXPECT_EQ(fresh->fd, closes ? -1 : fresh.near);
        EXPECT_EQ(fcntl(fresh.near, F_GETFD) == -1, closes);
        proxyNode_Stop(fresh.node);
        EXPECT_EQ(fresh.heard(), closes ? "" : "Stop");
    }
}

TEST_F(Connection, NothingIsReadIntoNoRoomAndNothingIsLost)
{
    channel.sendMarker();
    AllocationFaults faults;
    faults.failAt(0, 1'000'000);
    const Bytes data = sampleRecord(Floats(100, 1.0F));
    ASSERT_EQ(real_send(channel.far, data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    for (int event = 0; event < 5; event++)
        ev_run(ev_default_loop(0), EVRUN_NOWAIT);
    EXPECT_EQ(channel->inbuf.size, channel->inbuf.capacity);
    EXPECT_FALSE(errors.texts().empty());
    faults.failNone();
    channel.run();
    EXPECT_EQ(samples(), Floats(100, 1.0F));
}

TEST_F(Connection, StopTriesTenTimes)
{
    // `waits` times EAGAIN, then `last`, 0 for success.
    const auto expect = [&](int waits, int last, int wantedSends, const std::string &said = "") {
        LogTrap log;
        int sends = 0, sleeps = 0;
        vu::test::calls.usleep = [&](useconds_t pause) { return sleeps += pause == 100, 0; };
        vu::test::calls.send = [&](int, const void *, size_t size, int) {
            errno = sends++ < waits ? EAGAIN : last;
            return errno ? ssize_t{-1} : static_cast<ssize_t>(size);
        };
        proxyNode_Stop(channel.node);
        EXPECT_THAT((std::array{sends, sleeps}), ElementsAre(wantedSends, std::min(waits, 9)));
        const auto lines = log.lines();
        EXPECT_EQ(lines.empty() ? "" : lines[0].second,
                  said.empty() ? "" : said + std::to_string(channel.near));
    };
    expect(0, 0, 1);
    expect(2, 0, 3);
    expect(0, EPIPE, 1);
    expect(1, ECONNRESET, 2);
    expect(0, EBADF, 1, "Unexpected write error on ");
    expect(10, 0, 10, "Stop send timeout ");
    expect(9, EPIPE, 10, "Stop send timeout ");
    EXPECT_FALSE(ev_is_active(channel->watcher));
    channel->fd = 0;
    expect(0, EBADF, 0);
    channel->fd = channel.near;
}

} // namespace
