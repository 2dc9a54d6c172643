#include <cmath>
#include <gmock/gmock.h>

#include "libvu/bus/can_set.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/gps/gps_signal.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"

using namespace vu::test;

namespace {

// A channel of a message kind with the empty sets that a host hangs on it.
struct MessageChannel : TestChannel {
    explicit MessageChannel(const std::string &kind, const std::string &more = "")
        : TestChannel(R"({"name":"m","connector":"c","data_type":"message_)" + kind + '"' + more + '}')
    {
        node->can_set = can_set_create();
        node->xcp_set = xcp_ip_set_create();
    }
    ~MessageChannel()
    {
        can_set_destroy(node->can_set);
        free(node->can_set);
        xcp_ip_set_destroy(node->xcp_set);
    }
};

constexpr int64_t kTime = 0x0102030405060708;
constexpr int64_t kNtpTime = 37867392040000000; // second 1 of 2000
constexpr uint8_t kTimeOnly = 0x20;
constexpr double kFine = 1.0 + 0x1p-40; // more than single precision holds

Bytes can(int64_t time, uint8_t flags = 0, bool big = true)
{
    return (big ? Bytes().be(time) : Bytes().le(time)).add("\x18\xFE\xF1\x02PAYLOAD.").be(flags);
}
const auto entry = [](int64_t time, auto value) { return Bytes().be(time).be(value); };
const auto element = [](int64_t time, auto value) {
    return Bytes().be(time).le(value);
}; // the time as it came
const auto ntp = [](uint32_t fraction, auto value) { return Bytes().be(1u).be(fraction).be(value); };
const auto behind8 = [](const Bytes &entries) { return Bytes().zeros(8).add(entries); };

enum Given { kPlain, kNobody = 1, kNoMemory = 2, kLittle = 4, kTwicePlusOne = 8, kLessTwo = 16 };
struct Case {
    const char *kind;
    int given;
    Bytes body;
    bool leaves; // the event ends behind the record
    int64_t start = 0;
    uint32_t capacity = 0, length = 0; // length 0: no frame
    Bytes data = {};
};

TEST(MessageRecords, BecomeFramesOrNotAndEndTheEventOrNot)
{
    const Bytes text = Bytes().be(kTime).add("$GPZDA"), raw = Bytes().le(14u).le(kTime).add("$GPZDA");
    const float nan = NAN;
    const Case cases[] = {
        {"raw", kPlain, text, false, kTime, 1, 1, raw},
        {"raw", kNobody, text, false},
        {"raw", kNoMemory, text, true},
        {"raw", kPlain, Bytes().zeros(7), false},
        {"nmea", kPlain, text, false, kTime, 1, 1, raw},
        {"nmea", kNobody, text, false},
        {"nmea", kNoMemory, text, false},
        {"xcp_ip", kPlain, Bytes().zeros(7), true},
        {"can", kPlain, can(-1).add(can(7)).add(can(8, kTimeOnly)).add(can(9, 1)), false, 0, 4, 2,
         can(7, 0, false).add(can(9, 1, false))},
        {"can", kPlain, Bytes().zeros(20), true},
        {"can", kPlain, can(1, kTimeOnly).add(can(-1)), true},
        {"can", kNobody, can(1), false},
        {"can", kNoMemory, can(1), true},
        {"float32", kPlain, entry(kTime, nan).add(entry(-7, 1.5f)).zeros(11), false, kTime, 2, 1,
         element(-7, 1.5f)},
        {"float32", kLittle, element(3, 1.5f), false, 3, 1, 1, element(3, 1.5f)},
        {"float32", kLessTwo, entry(3, 1.5f), false, 3, 1, 1, element(3, -0.5f)},
        {"float32", kPlain, entry(-1, 1.0f), false},
        {"float32", kPlain, entry(1, nan), false},
        {"float32", kNoMemory, entry(1, 1.0f), true},
        {"float64", kTwicePlusOne, entry(3, 3.0), false, 3, 1, 1, element(3, 7.0)},
        {"float64", kLessTwo, entry(3, kFine), false, 3, 1, 1, element(3, kFine - 2.0)},
        {"float32_ntp", kLittle | kTwicePlusOne, behind8(ntp(0, 3.0f).add(ntp(1, nan)).add(ntp(2000, 4.0f))),
         false, 0, 3, 2, Bytes().le(kNtpTime).le(7.0f).le(kNtpTime + 16).le(9.0f)},
        {"float32_ntp", kPlain, Bytes().zeros(3), false},
        {"float32_ntp", kNoMemory, behind8(ntp(0, 1.0f)), true},
        {"float64_ntp", kPlain, behind8(Bytes().be(836'000'000u).be(2000u).be(1.0)), false, 0, 1, 1,
         Bytes().le(int64_t{71307392000000000} + 16).le(1.0)}, // multiples of 8 ticks there
        {"float64_ntp", kPlain, behind8(ntp(0, kFine)), false, 0, 1, 1, Bytes().le(kNtpTime).le(kFine)},
        {"float64_ntp", kTwicePlusOne, behind8(ntp(0, kFine)), false, 0, 1, 1, Bytes().le(kNtpTime).le(3.0)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.kind + std::to_string(&c - cases));
        ErrorTrap errors;
        LogTrap log;
        AllocationFaults memory;
        const std::string kind = c.kind;
        MessageChannel channel(kind, c.given & kTwicePlusOne ? R"(,"scale":2.0,"offset":1.0)"
                                     : c.given & kLessTwo    ? R"(,"rezero_offset":2.0)"
                                                             : "");
        Pipe *pipe = c.given & kNobody ? nullptr : channel.listen();
        channel.sendMarker(!(c.given & kLittle));
        if (c.given & kNoMemory)
            memory.failAt(0);
        channel.send(record(c.body).add(record(c.body)));
        EXPECT_EQ(channel->read_count != 0, c.leaves);
        memory.failNone();
        channel.runLeftovers();
        EXPECT_EQ(channel->inbuf.size, 0u);

        const bool isBytes = kind == "raw" || kind == "nmea", isShort = isBytes && c.body.size() < 8;
        const bool counts = isBytes && c.given & kNobody;
        EXPECT_EQ(channel->sample_count, counts ? 2 * static_cast<int64_t>(c.body.size()) : 0);
        EXPECT_EQ(log.lines().size(), isShort ? 2u : 0u);
        EXPECT_EQ(errors.texts().size(), c.given & kNoMemory ? (kind == "can" ? 2u : 1u) : 0u);
        if (!pipe || c.given & kNoMemory)
            continue;
        const auto frames = takeFrames(pipe);
        EXPECT_EQ(frames.size(), c.length ? 2u : 0u);
        for (const FrameCopy &frame : frames) {
            EXPECT_EQ(std::tie(frame.start, frame.capacity, frame.length, frame.data),
                      std::tie(c.start, c.capacity, c.length, c.data));
            EXPECT_EQ(frame.aux, static_cast<float>(c.start));
        }
    }
}

TEST(MessageRecords, ReachTheSignalsWholeAndFirst)
{
    ErrorTrap errors;
    const std::string stanza = R"({"data_type":"float64","name":"s","scale":1,"offset":0,"pipe_rate":100,
        "sample_rate":100,"invalid_data_output_value":-1,"stale_data_expiration_time":10,"db_data_format":"ULSB",
        "db_bit_length":8,"db_bit_start":0,"db_msg_id":"18FEF102","xcp_data_type":"UBYTE","xcp_byte_order":"big"})";
    MessageChannel can_("can"), xcp("xcp_ip");
    CanSetSignal *signal = can_set_add_signal(can_->can_set, stanza.c_str());
    XcpMeasurement *measurement = xcp_ip_set_add_measurement(xcp->xcp_set, stanza.c_str());
    ASSERT_TRUE(signal && measurement);
    can_set_finalize(can_->can_set);
    Pipe *const streams[] = {pipeAttachPipe(&signal->pipes), pipeAttachPipe(&measurement->pipes)};
    can_.sendMarker();
    xcp.sendMarker();
    can_.send(record(can(0).add(can(4'000'000, kTimeOnly)))); // nobody listens to the channel itself
    xcp.send(record(Bytes().zeros(10).add("P")).add(record(Bytes().be(int64_t{4'000'000}).add("\xFF"))));
    for (Pipe *stream : streams)
        EXPECT_EQ(takeSamples<double>(stream), std::vector<double>(10, 'P'));
    releaseStream(signal->sequentializer);
    releaseStream(measurement->sequentializer);
    free(signal->name);
    free(measurement->name);
}

TEST(MessageRecords, ReachConsumersAsTheyCameThoughGpsSignalsCutThem)
{
    ErrorTrap errors;
    TestChannel channel(R"({"name":"m","connector":"gps","data_type":"message_raw"})");
    GpsSignal *signal = gpsSignalInit(channel.node, R"({"data_type":"message_float64","name":"s","scale":1,
        "offset":0,"connector":"ground_speed_knots","pipe_rate":100,"sample_rate":100,
        "invalid_data_output_value":-1,"stale_data_expiration_time":10})");
    ASSERT_TRUE(signal);
    channel->gps_set = signal;
    Pipe *pipe = channel.listen();
    const char *const text = "$GPRMC,101512.5,A,5230.5,N,01322.75,E,10.0,90.0,150324,2.0,E,A*6A\r\n";
    channel.sendMarker();
    channel.send(record(Bytes().be(int64_t{4}).add(text)));
    EXPECT_EQ(signal->sequentializer->value, 10.0);
    const auto frames = takeFrames(pipe);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, Bytes().le(8 + static_cast<uint32_t>(strlen(text))).le(int64_t{4}).add(text));
    releaseStream(signal->sequentializer);
    for (char *owned : {signal->json, signal->name, signal->source_database})
        free(owned);
    free(signal->extractor);
    free(signal);
}

} // namespace
