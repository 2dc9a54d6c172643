// What is between a channel's socket and the library's reader: nothing is changed by it, and nothing that
// a peer sends makes it work long or hold much.
#include <map>
#include <random>

#include "libvu/bus/can_set.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/node_fixture.h"
#include "vu/record/intake.h"

namespace vu::test {
namespace {

Channel described(const std::string &type, double rate = 0.0)
{
    static const std::map<std::string, ChannelKind> kKinds{{"sequential_float32", ChannelKind::kSequential},
                                                           {"message_can", ChannelKind::kCan},
                                                           {"message_float64", ChannelKind::kFloats},
                                                           {"message_raw", ChannelKind::kBytes}};
    Channel channel;
    channel.name = "ch";
    channel.kind = kKinds.at(type);
    channel.values = type == "message_float64" ? ValueType::kFloat64 : ValueType::kFloat32;
    channel.sample_rate = rate;
    return channel;
}

// A node that is read through an intake, and the loop's rounds for it.
struct Guarded : TestChannel {
    Guarded(const Channel &channel, const std::string &stanza) : TestChannel(stanza)
    {
        node->can_set = can_set_create();
        if (!channel.signals.empty() && !channel.signals[0].stanza.empty())
            signal = can_set_add_signal(node->can_set, channel.signals[0].stanza.c_str());
        can_set_finalize(node->can_set);
        std::vector<Sequentializer *> streams;
        if (signal)
            streams.push_back(signal->sequentializer);
        intake.emplace(*node, channel, streams);
        pipe = listen();
    }
    ~Guarded()
    {
        pipeDetachPipe(&node->pipes, pipe);
        frameDelete(std::exchange(node->frame, nullptr));
        if (signal)
            releaseSignal(signal);
        intake.reset();
        can_set_destroy(node->can_set);
        std::free(node->can_set);
    }
    void round()
    {
        Intake::beginRound(1e-3);
        ev_run(ev_default_loop(0), EVRUN_NOWAIT);
        intake->work();
        most_produced = std::max(most_produced, intake->takeProduced());
    }
    void deliver(
        std::span<const uint8_t> bytes, const std::function<void()> &each = [] {})
    {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(far, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            bytes = bytes.subspan(static_cast<size_t>(std::max<ssize_t>(sent, 0)));
            round();
            each();
        }
        for (pollfd asked{near, POLLIN, 0}; intake->isBusy() || poll(&asked, 1, 0) == 1;) {
            round();
            each();
        }
    }

    ErrorTrap errors;
    CanSetSignal *signal = nullptr;
    std::optional<Intake> intake;
    Pipe *pipe = nullptr;
    uint64_t most_produced = 0; // by one round
};

std::vector<uint8_t> contents(Pipe *pipe)
{
    std::vector<uint8_t> all;
    for (const FrameCopy &frame : takeFrames(pipe))
        all.insert(all.end(), frame.data.begin(), frame.data.end());
    return all;
}

Bytes canRecord(int64_t ticks, uint32_t id = 0x100)
{
    return Bytes().be(ticks).be(id).zeros(8).be(uint8_t{0});
}

TEST(Intake, WhatComesThroughIsWhatTheReaderMakesByItself)
{
    std::mt19937 random(15);
    for (const std::string type : {"sequential_float32", "message_can", "message_float64", "message_raw"}) {
        SCOPED_TRACE(type);
        const std::string text = stanza(type, type[0] == 's' ? R"("sample_rate":5000)" : "");
        Guarded guarded(described(type, type[0] == 's' ? 5000 : 0), text);
        TestChannel plain(text);
        plain->can_set = guarded->can_set;
        Pipe *reference = plain.listen();
        Bytes wire{0xFE, 0xED};
        for (int i = 0; i < 60; i++) {
            // Short ones, now and then one that no buffer holds, and some with bytes that are no entry.
            const uint32_t size = i % 20 == 7 ? 300'000 + random() % 400'000 : random() % 3000;
            wire.be(size);
            for (uint32_t at = 0; at < size; at++)
                wire.push_back(static_cast<uint8_t>(at % 21 == 0 ? 0 : random() % 0x7F));
        }
        for (size_t at = 0; at < wire.size();) {
            const size_t piece = std::min<size_t>(wire.size() - at, at == 0 ? 2 : 1 + random() % 90'000);
            guarded.deliver(std::span(wire).subspan(at, piece));
            plain.send(std::span(wire).subspan(at, piece));
            plain.runLeftovers();
            at += piece;
        }
        EXPECT_EQ(guarded->sample_count, plain->sample_count);
        const auto got = contents(guarded.pipe), expected = contents(reference);
        ASSERT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == expected);
        EXPECT_GT(got.size(), 900'000u);
        EXPECT_LE(guarded->inbuf.capacity, 128u << 10);
    }
}

TEST(Intake, AMessageTooLongToHoldIsLeftOutAndTheNextOneArrives)
{
    Guarded channel(described("message_raw"), stanza("message_raw"));
    Bytes wire{0xFE, 0xED};
    const auto message = [&](uint32_t size) { wire.be(size).be(int64_t{1}).zeros(size - 8); };
    message(Intake::kLongestMessage + 1);
    message(Intake::kLongestMessage);
    message(100u << 20);
    message(9);
    channel.deliver(std::span(wire).first(2));
    channel.deliver(std::span(wire).subspan(2));
    EXPECT_EQ(channel.intake->tooLong(), 2u);
    EXPECT_EQ(takeFrames(channel.pipe).size(), 2u);
    EXPECT_LE(channel.most_produced, Intake::kLongestMessage + (512u << 10));
    EXPECT_EQ(channel.intake->brokenBytes(), 0u);
}

// Each step alone could be true; together they would fill twenty times the credit.
// Such a record never comes completely, and only from 2^31 on the library gives the channel up.
TEST(Intake, ARecordOfNearly2GigabytesHarmsNobody)
{
    for (const std::string type : {"sequential_float32", "message_can", "message_float64", "message_raw"})
        for (const uint32_t length : {0x7FFFFFF7u, 0x7FFFFFF8u, 0x7FFFFFF9u, 0x7FFFFFFFu, 0x80000000u}) {
            SCOPED_TRACE(fmt::format("{} {:x}", type, length));
            Guarded guarded(described(type, type[0] == 's' ? 5000 : 0),
                            stanza(type, type[0] == 's' ? R"("sample_rate":5000)" : ""));
            guarded.deliver(Bytes{0xFE, 0xED}.be(length).zeros(100));
            const bool givenUp = length > INT32_MAX;
            EXPECT_EQ(guarded->state == PROXY_NODE_DISCARDS, givenUp);
            EXPECT_EQ(guarded.errors.texts().size(), givenUp ? 1u : 0u);
        }
}

TEST(Intake, GapsAreFilledInPortionsAndOnlyAsFarAsTheCreditGoes)
{
    Channel description = described("message_can");
    Signal signal;
    signal.sample_rate = 10000;
    signal.stanza =
        R"({"name":"s","db_msg_id":"100","db_data_format":"SLSB","db_bit_start":0,"db_bit_length":16,
        "data_type":"float64","sample_rate":10000,"pipe_rate":10,"scale":1,"offset":0,"invalid_data_output_value":-1,
        "stale_data_expiration_time":1})";
    description.signals.push_back(signal);
    Guarded channel(description, stanza("message_can"));
    ASSERT_NE(channel.signal, nullptr);
    Pipe *filled = pipeAttachPipe(&channel.signal->pipes);
    uint64_t samples = 0;
    const auto drain = [&] {
        int64_t waiting = filled->queued;
        EXPECT_LE(waiting * 8, 2 << 20) << "in one round";
        samples += static_cast<uint64_t>(waiting);
        pipeFlushFrames(filled);
    };
    Bytes wire{0xFE, 0xED};
    for (int64_t i = 1; i <= 20; i++)
        wire.add(record(canRecord(i * 10'000 * 40'000'000)));
    channel.deliver(std::span(wire).first(2));
    channel.deliver(std::span(wire).subspan(2), drain);
    EXPECT_EQ(samples, 100'000'000u) << "one gap of 800 MB, and no credit for another";
    EXPECT_EQ(channel.intake->guard().cut(), 19u);
    EXPECT_EQ(channel.signal->sequentializer->clock->current_tick / 40'000'000, 10'000);
    pipeDetachPipe(&channel.signal->pipes, filled);
}

// Garbage of some megabytes in one record: the work grows with its bytes and not with their square.
TEST(Intake, EntriesOfAbsurdTimesInOneLongRecordAreLeftOutOneByOne)
{
    Channel description = described("message_can");
    description.signals.push_back({});
    description.signals[0].sample_rate = 1000;
    Guarded channel(description, stanza("message_can"));
    Bytes body;
    for (int64_t i = 0; i < 200'000; i++)
        body.add(canRecord(i % 4 == 3 ? i : int64_t{1} << 61));
    channel.deliver(Bytes{0xFE, 0xED});
    channel.deliver(record(body));
    EXPECT_EQ(channel.intake->guard().cut(), 150'000u);
    EXPECT_EQ(contents(channel.pipe).size(), 50'000u * 21);
}

TEST(Intake, APeriodicChannelIsReadWithoutAnyAllocation)
{
    Guarded channel(described("sequential_float32", 1000),
                    stanza("sequential_float32", R"("sample_rate":1000)"));
    channel.deliver(Bytes{0xFE, 0xED});
    const Bytes wire = sampleRecord(std::vector<float>(70, 1.0f));
    AllocationFaults allocations;
    for (int i = 0; i < 1000; i++) {
        if (i == 100)
            allocations.reset();
        channel.deliver(wire);
        if (channel.pipe->queued > 500)
            pipeFlushFrames(channel.pipe);
    }
    EXPECT_EQ(allocations.count(), 0);
    EXPECT_EQ(channel->sample_count, 70'000);
}

TEST(SequenceCheck, FindsWhatIsMissing)
{
    for (const Case &row : cases("vu/sequences.txt")) {
        ASSERT_EQ(row.size(), 3u);
        SequenceCheck check(std::stod(row[0]));
        double now = 0.0;
        for (const std::string &entry : split(row[1], ' ')) {
            const Strings parts = split(entry, '/'); // ticks, samples, seconds until it comes
            now += parts.size() > 2 ? std::stod(parts[2]) : std::stod(parts[1]) / std::stod(row[0]);
            check.record(std::stoll(parts[0]), std::stoull(parts[1]), now);
        }
        EXPECT_EQ(
            fmt::format("{} {} {} {}", check.gaps(), check.missing(), check.overlaps(), check.isOffRate()),
            row[2]);
    }
}

} // namespace
} // namespace vu::test
