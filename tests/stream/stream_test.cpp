#include <cmath>
#include <random>

#include "tests/stream/stream_fixture.h"
#include "tests/support/effort.h"
#include "tests/support/streams.h"

using namespace testing;
using namespace vu::test;

namespace {

constexpr uint32_t kNoValue = 0x58E35FA9;

struct Form {
    const char *connector, *settings, *rate;
    uint32_t bytes; // of an output sample
    bool little, scaled;
};
const Form kForms[] = {{"pd806h", "", "100", 8, false, false},
                       {"pd806k", "", "30", 4, true, false},
                       {"pd806h", R"(,"scale":2.5,"offset":0.1)", "60", 4, false, true},
                       {"x_pd806h_pd806k", R"(,"purpose":"p")", "70", 8, true, true}};

Bytes sample(bool little, const uint32_t (&time)[2], float value)
{
    return little ? Bytes().le(time[1]).le(time[0]).le(value) : Bytes().be(time[0]).be(time[1]).be(value);
}

TEST(StreamRecords, AreTheSameWhereverTheyAreCut)
{
    const Bytes bind = metainfo(20, kBindTorque);
    const auto value = [](float number) { return sample(false, {kStartSecond, 0}, number); };
    Bytes stream = Bytes(bind).add(streamRecord(1, 20, value(7.0f))).add(streamRecord(0, 21, value(8.0f)));
    stream.add(streamRecord(3, STREAM_SLOTS, value(9.0f))).add(streamRecord(kMetainfo, 0, Bytes().zeros(3)));
    stream.add(metainfo(16, R"({"method":"fill","params":[99]})" + std::string(300, ' ')));
    for (size_t cut = 0; cut <= stream.size() && !HasFailure(); cut++) {
        StreamChannel channel;
        channel.send(std::span(stream).first(cut));
        channel.send(std::span(stream).subspan(cut));
        EXPECT_THAT(std::tuple(channel.torque->sequentializer->value, channel.speed->sequentializer->value,
                               channel->inbuf.size, channel.errors.texts(), channel.log.lines()),
                    FieldsAre(7.0, -5.0, 0, ElementsAre("PD Stream buffers are full"),
                              ElementsAre(Pair(12, HasSubstr("metainfo of 3 bytes")))))
            << cut;
    }
    for (const uint32_t type : {0u, kMetainfo}) { // an empty payload leaves the rest to the next event
        StreamChannel channel;
        channel.send(Bytes(bind).add(streamRecord(type, 20, {})).add(streamRecord(0, 20, value(3.0f))));
        EXPECT_EQ(channel.torque->sequentializer->value, -5.0);
        channel->reader(channel.node); // reads nothing
        EXPECT_EQ(channel.torque->sequentializer->value, 3.0);
    }
}

TEST(StreamRecords, OfImpossibleSizeEndTheStreamAndNothingElse)
{
    for (const uint32_t size : {0x80000000u, 0xFFFFFFFFu, 0x7FFFFFF0u}) {
        StreamChannel channel;
        AllocationFaults memory;
        const bool isPossible = size < 0x80000000; // but no memory can be had for it
        if (isPossible)
            memory.failAt(0);
        channel.send(Bytes().be(16u).be(size).zeros(100));
        EXPECT_THAT(channel.errors.texts(),
                    ElementsAre(HasSubstr(isPossible ? "realloc()" : std::to_string(size))));
        EXPECT_EQ(channel->state, isPossible ? PROXY_NODE_RECORDS_FLOW : PROXY_NODE_DISCARDS);
        EXPECT_EQ(channel->disconnected, 0);
    }
}

TEST(StreamSamples, AZeroedValueIsFormedFromWhatTheCallbackLeaves)
{
    static CanSignalNode *asked;
    StreamChannel channel("pd806h", R"(,"scale":2,"offset":1)");
    channel.process(20, kBindTorque);
    asked = channel.torque;
    asked->rezero_pending = 1;
    libvuRezeroCallback = [](const char *, double zero) {
        EXPECT_EQ(zero, 3.0);
        asked->rezero_offset = 0.5;
        return 1;
    };
    channel.send(streamRecord(0, 20, sample(false, {kStartSecond, 0}, 3.0f)));
    EXPECT_EQ(asked->sequentializer->value, 6.5);
}

TEST(StreamSignals, WithoutMemoryForTheRecordTheStanzaOrTheNameAreReportedAndNotMade)
{
    ErrorTrap errors;
    AllocationFaults memory;
    const std::string stanza = signalStanza("torque");
    for (int nth = 0; nth < 3; nth++) {
        memory.failAt(nth);
        EXPECT_EQ(streamCANSignalInit(stanza.c_str()), nullptr);
        EXPECT_THAT(errors.texts(), ElementsAre("Unable to allocate can signal node"))
            << "allocation " << nth;
    }
}

// Every call that the samples make, made once more, by a slow reference, on a Sequentializer of its own.
TEST(StreamSamples, AgreeWithTheSlowWayAndAllocateNothing)
{
    for (const Form &form : kForms) {
        SCOPED_TRACE(form.connector);
        StreamChannel channel(form.connector, form.settings,
                              signalStanza("torque", form.rate, form.bytes == 8 ? "float64" : "float32"));
        channel.process(16, kBindTorque);
        CanSignalNode *signal = channel.torque;
        Sequentializer *stream = signal->sequentializer,
                       *slow = createSequentializer(form.bytes, 5, std::stod(form.rate), 0.02, -5);
        PipeList list{};
        slow->pipes = &list;
        slow->stale_ticks = stream->stale_ticks = 400'000; // at 100 a second on a sample
        Pipe *const pipes[] = {pipeAttachPipe(&signal->pipes), pipeAttachPipe(&list)};
        const auto onZero = libvuRezeroCallback;
        const AllocationFaults memory;
        std::mt19937 random(5);
        double time = -0.5, zero = 0;
        int64_t next = 0, slowNext = 0;
        for (int64_t batch = 0; batch < effort(20'000, 2'000) && !HasFailure(); batch++) {
            signal->rezero_pending = random() % 8 == 0;
            libvuRezeroCallback = random() % 2 ? onZero : nullptr;
            Bytes payload, times;
            for (uint32_t i = 0, count = 1 + random() % 4; i < count; i++) {
                time += static_cast<double>(random() % 30'000) * 1e-6;
                const uint32_t words[2] = {static_cast<uint32_t>(kStartSecond + int64_t(std::floor(time))),
                                           static_cast<uint32_t>((time - std::floor(time)) * 0x1p32)};
                const bool isZero = form.scaled && i == 0 && signal->rezero_pending && libvuRezeroCallback;
                const auto odd = isZero || random() % 2 ? std::bit_cast<float>(kNoValue) : NAN;
                const auto value = random() % 8 ? static_cast<float>(random()) * 1e-6f : odd;
                payload.add(sample(form.little, words, value));
                times.le(words[0]).le(words[1]);

                const bool isValue = std::bit_cast<uint32_t>(value) != kNoValue;
                if (isZero)
                    zero = isValue ? double{value} : std::exchange(slow->invalid_value, 0.0);
                const double ticks = std::trunc(ntp_to_ts(words) - double(kStart));
                const auto offset = static_cast<float>(double(static_cast<float>(channel->offset)) - zero);
                const float scaled = fmaf(value, static_cast<float>(channel->scale), offset);
                if (isValue)
                    sequentialize_value(slow, ticks, form.scaled ? scaled : value);
                else
                    sequentialize(slow, ticks);
            }
            channel.send(streamRecord(random() % 2, 16, payload.zeros(random() % 12)));
            // Seconds first, in host order, after a word of head.
            for (size_t i = 0; i < times.size() / 8; i++)
                EXPECT_EQ(std::memcmp(channel->inbuf.buf + 4 + 12 * i, &times[8 * i], 8), 0);
            EXPECT_EQ(std::tuple(signal->rezero_offset, stream->invalid_value, stream->last_target),
                      std::tuple(zero, slow->invalid_value, slow->last_target));
            EXPECT_THAT(drain(pipes[0], next), Pointwise(NanSensitiveDoubleEq(), drain(pipes[1], slowNext)));
        }
        EXPECT_EQ(channel.errors.rezeros().empty(), !form.scaled);
        EXPECT_EQ(memory.count(), 0);
        EXPECT_GT(next, 1000);
        releaseStream(slow);
    }
}

} // namespace
