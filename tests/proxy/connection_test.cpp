// A connection from its marker to its end, with a peer that does everything wrong.
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>

#include "libvu/core/framing_private.h"
#include "libvu/core/wire_private.h"
#include "tests/proxy/proxy_fixture.h"

using namespace vu::test;
using testing::ElementsAre;

namespace {

using Floats = std::vector<float>;
using Texts = std::vector<std::string>;

constexpr char kLost[] =
    "Channel ch: a record of {} bytes is impossible, the rest of the connection is discarded";

class Connection : public Channels {};

TEST_F(Connection, OnlyMarkersAndPossibleLengthsKeepItOpen)
{
    const auto afterTwo = [](uint32_t length) {
        return Bytes{0xFE, 0xED}.add(sampleRecord<float>({1, 2})).be(length);
    };
    const Bytes starts[] = {{0xFE, 0xED}, {0xED, 0xFE},       {0xED, 0xED},
                            {0xFE},       afterTwo(1u << 31), afterTwo(~0u)};
    for (const Bytes &first : starts) {
        const bool isMarker = first.size() <= 2, opens = first.size() == 2 && first[0] != first[1];
        PairChannel fresh;
        fresh.send(first);
        EXPECT_EQ(fresh.samples(), isMarker ? Floats() : Floats({1, 2}));
        EXPECT_EQ(errors.texts(),
                  isMarker ? Texts() : Texts{fmt::format(kLost, libvu::loadBig<uint32_t>(&first.end()[-4]))});
        fresh.send(Bytes().zeros(5000));
        fresh.hangUp();
        fresh.run();
        EXPECT_FALSE(ev_is_active(fresh->watcher)) << "sleeps at the end, also when it discards";
        EXPECT_EQ(fresh->state, opens ? 2 : 3);
        EXPECT_EQ(fresh->reader, opens ? fresh->main_reader : proxyNode_ProxyReaderDiscard);
        EXPECT_EQ(fresh->inbuf.size, 0u);
        EXPECT_EQ(errors.disconnects().size(), opens);
    }
}

TEST_F(Connection, TheEndIsReportedOnceAndWhatCameBeforeIsKept)
{
    LogTrap log;
    int raised = 0;
    calls.raise = [&](int signal) { return raised += signal, 0; };
    static ProxyNode *current;
    const auto stopsAndDetaches = [](const char *) {
        pipeDetachPipe(&current->pipes, current->pipes.first);
        proxyNode_Stop(current);
        return 1;
    };
    for (const auto callback : {libvuChannelDisconnectCallback, +stopsAndDetaches, {}}) {
        PairChannel fresh;
        current = fresh.node;
        libvuChannelDisconnectCallback = callback;
        fresh.sendMarker();
        const Bytes last = sampleRecord<float>({1, 2});
        ASSERT_EQ(real_send(fresh.far, last.data(), last.size(), 0), 20); // both in one event
        shutdown(fresh.far, SHUT_WR);
        fresh.run();
        EXPECT_FALSE(ev_is_active(fresh->watcher));
        EXPECT_THAT((std::array{fresh->disconnected, fresh->last_errno, fresh->last_read, fresh->state}),
                    ElementsAre(1, ECONNRESET, 0, 2));
        EXPECT_GE(fcntl(fresh->fd, F_GETFD), 0);
        EXPECT_EQ(fresh.heard(), callback == stopsAndDetaches ? "Stop" : "");
        if (fresh->pipes.first) {
            EXPECT_EQ(fresh.samples(), (Floats{1, 2}));
        }
    }
    EXPECT_THAT(errors.disconnects(), ElementsAre("ch"));
    EXPECT_EQ(raised, SIGHUP); // without a callback it is signalled and logged
    const std::pair line(12, "Channel 'ch' unexpectedly disconnected from the test.");
    EXPECT_THAT(log.lines(), ElementsAre(line));
}

TEST_F(Connection, ReadErrorsEndItAndNobodyUsesTheNumberAgain)
{
    for (const int error : {EAGAIN, ECONNRESET, EINTR, EINVAL}) {
        PairChannel fresh;
        fresh.sendMarker();
        fresh->last_errno = 5;
        bool failed = false;
        calls.read = [&](int fd, void *to, size_t size) {
            return fd == fresh.near && !std::exchange(failed, true) ? (errno = error, -1)
                                                                    : real_read(fd, to, size);
        };
        fresh.send(Bytes(8));
        calls.read = nullptr;
        const bool ends = error != EAGAIN, closes = ends && error != EINVAL;
        EXPECT_EQ(errors.critical().size(), ends);
        EXPECT_EQ(ev_is_active(fresh->watcher), !ends);
        EXPECT_THAT((std::array{fresh->disconnected, fresh->last_errno, fresh->last_read}),
                    ElementsAre(ends, ends ? error : 0, ends ? -1 : 0));
        EXPECT_EQ(fresh->fd, closes ? -1 : fresh.near);
        EXPECT_EQ(fcntl(fresh.near, F_GETFD) == -1, closes);
        proxyNode_Stop(fresh.node);
        EXPECT_EQ(fresh.heard(), closes ? "" : "Stop");
    }
}

// The socket of such a node stays readable, and must not keep the loop awake.
TEST_F(Connection, ARecordForWhichThereIsNoMemoryIsReportedOnceAndTheNodeRests)
{
    for (const uint32_t length : {100'000u, (1u << 31) - 8, (1u << 31) - 7, (1u << 31) - 4, (1u << 31) - 1}) {
        SCOPED_TRACE(length);
        PairChannel channel;
        channel.sendMarker();
        channel.send(sampleRecord<float>({1, 2}));
        if (length + 4 <= 1u << 31) // else nobody asks for so much
            memory.failAt(0);
        channel.send(Bytes().be(length));
        EXPECT_THAT(errors.texts(),
                    ElementsAre(testing::HasSubstr(fmt::format("(max_size={}) failed", length + 4))));
        memory.failNone();
        EXPECT_FALSE(ev_is_active(channel->watcher));
        EXPECT_EQ(channel.samples(), (Floats{1, 2}));
        EXPECT_EQ(channel->state, PROXY_NODE_RECORDS_FLOW);
        EXPECT_EQ(channel->inbuf.size, 4u);
        if (length > 100'000u)
            continue;
        ev_io_start(ev_default_loop(0), channel->watcher); // by a host that has made room
        channel.send(Bytes().zeros(length).add(sampleRecord<float>({3, 4})));
        EXPECT_EQ(channel->sample_count, 2 + (length - 8) / 4 + 2);
    }
}

TEST_F(Connection, NothingIsReadIntoNoRoom)
{
    PairChannel channel;
    channel.sendMarker();
    memory.failAt(0, 1'000'000);
    const Bytes data = sampleRecord(Floats(100, 1.0F));
    channel.send(data);
    EXPECT_EQ(channel->inbuf.size, channel->inbuf.capacity);
    EXPECT_EQ(errors.texts().size(), 2u); // room for more, and room for this record
    EXPECT_FALSE(ev_is_active(channel->watcher));
    channel->reader(channel.node); // whoever runs it all the same
    EXPECT_EQ(channel->disconnected, 0);
    EXPECT_EQ(errors.texts().size(), 2u);
    memory.failNone();
    ev_io_start(ev_default_loop(0), channel->watcher);
    channel.run();
    EXPECT_EQ(channel.samples(), Floats(100, 1.0F));
}

// What is asked in these builds at every event names each rule that a node can break.
TEST_F(Connection, EveryBrokenRuleOfANodeIsNamed)
{
    PairChannel channel;
    channel.sendMarker();
    channel.send(sampleRecord<float>({1}));
    ProxyNode &node = *channel.node;
    EXPECT_EQ(libvu::brokenNodeRule(node), nullptr);
    const auto names = [&node](auto &field, auto wrong, const char *part) {
        const auto right = std::exchange(field, wrong);
        EXPECT_THAT(libvu::brokenNodeRule(node), testing::HasSubstr(part));
        field = right;
    };
    names(node.inbuf.size, node.inbuf.capacity + 1, "within the buffer");
    names(node.parse_pos, 1u, "bytes in use");
    names(node.read_count, 1u, "bytes in use");
    node.inbuf.size = 1;
    names(node.parse_pos, 1u, "used up");
    node.inbuf.size = 0;
    names(node.clock.current_tick, 1, "next tick");
    names(node.sample_count, 2, "counted");
    names(node.frame->length, 2u, "not full");
    names(node.frame->refcount, int16_t{2}, "nobody else");
}

TEST_F(Connection, StopTriesTenTimes)
{
    PairChannel channel;
    const std::string fd = std::to_string(channel.near);
    for (const int last : {0, EPIPE, ECONNRESET, EBADF}) // the answer after so many times EAGAIN
        for (int waits = 0; waits <= 10; waits++) {
            LogTrap log;
            int sends = 0, sleeps = 0;
            calls.usleep = [&](useconds_t pause) { return sleeps += pause == 100, 0; };
            calls.send = [&](int, const void *, size_t size, int) {
                errno = sends++ < waits ? EAGAIN : last;
                return errno ? ssize_t{-1} : static_cast<ssize_t>(size);
            };
            proxyNode_Stop(channel.node);
            EXPECT_THAT((std::array{sends, sleeps}), ElementsAre(std::min(waits, 9) + 1, std::min(waits, 9)));
            const bool isLate = waits > 9 || (waits == 9 && last != 0);
            std::string said;
            for (const auto &[priority, text] : log.lines())
                said += text;
            EXPECT_EQ(said, isLate          ? "Stop send timeout " + fd
                            : last == EBADF ? "Unexpected write error on " + fd
                                            : "");
        }
    EXPECT_FALSE(ev_is_active(channel->watcher));
}

} // namespace
