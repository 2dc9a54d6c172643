// A stanza becomes a node: kinds, sizes, refusals, and memory that runs out.
#include <clocale>
#include <cstdlib>
#include <gmock/gmock.h>

#include "libvu/proxy/calibration.h"
#include "libvu/stream/stream_signal.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/node_fixture.h"

using namespace vu::test;
using ::testing::ElementsAre;

namespace {

const std::string kHold =
    R"("sample_rate":100,"stale_data_expiration_time":1,"invalid_data_output_value":-1)";
const std::string kPrerun = R"("do_prerun_zero":true)";
constexpr uint32_t kVaries = UINT32_MAX;

TEST(ProxyNodeCreate, EveryKindGetsItsFields)
{
    ErrorTrap errors;
    const auto expect = [](const char *type, const char *connector, const std::string &more,
                           void (*reader)(ProxyNode *), uint32_t record, uint32_t element,
                           void (*swap)(ProxyNode *, void *), int message,
                           void (*apply)(ProxyNode *, Frame *) = nullptr) {
        SCOPED_TRACE(std::string(type) + " " + connector + " " + more);
        const TestChannel channel(stanza(type, more, connector));
        ASSERT_TRUE(channel.node);
        EXPECT_EQ(channel->main_reader, reader);
        EXPECT_EQ(channel->reader, proxyNode_ProxyReaderMarker);
        EXPECT_EQ(channel->byte_swap, swap);
        EXPECT_EQ(channel->apply, apply);
        EXPECT_THAT((std::array{channel->record_size, channel->element_size}), ElementsAre(record, element));
        EXPECT_EQ(channel->message_channel, message);
        const bool hasAux = connector == std::string("my_gps") || reader == proxyNode_ProxyReaderZNTStream;
        EXPECT_EQ(channel->channel_aux != nullptr, hasAux);
    };
    const auto plain = proxyNode_ProxyReaderSequentialNoScaling,
               scaling = proxyNode_ProxyReaderSequentialScaling, nmea = proxyNode_ProxyReaderMessageNMEA,
               held = proxyNode_ProxyReaderSequentializedMessage,
               heldNtp = proxyNode_ProxyReaderSequentializedNTPMessage,
               stream = proxyNode_ProxyReaderZNTStream;
    const auto swap4 = proxyNode_swapFloatSamples, swap8 = proxyNode_swapDoubleSamples,
               none = proxyNode_swapNone, value4 = proxyNode_swapFloatValue,
               value8 = proxyNode_swapDoubleValue;
    const auto apply4 = proxyNode_applyFloatScaleOffset, apply8 = proxyNode_applyDoubleScaleOffset,
               prerun4 = proxyNode_applyPrerunZeroFloatScaleOffset,
               prerun8 = proxyNode_applyPrerunZeroDoubleScaleOffset;
    expect("sequential_float32", "a", "", plain, 4, 4, swap4, 0);
    expect("my_sequential_float64", "a", R"("scale":2)", scaling, 8, 8, swap8, 0, apply8);
    expect("sequential_float32", "a", R"("purpose":"")", scaling, 4, 4, swap4, 0, apply4);
    expect("sequential_float32", "a", R"("rezero_offset":3)", scaling, 4, 4, swap4, 0, apply4);
    expect("sequential_float32", "hls_1", R"("rezero_offset":3)", plain, 4, 4, swap4, 0);
    expect("sequential_float64", "a", kPrerun, scaling, 8, 8, swap8, 0, prerun8);
    expect("sequential_float64", "a", kPrerun + R"(,"purpose":"x")", scaling, 8, 8, swap8, 0, apply8);
    expect("sequential_float32", "a", R"("do_prerun_zero":false)", plain, 4, 4, swap4, 0);
    expect("sequential_float32", "brg_1", kPrerun, plain, 4, 4, swap4, 0);
    expect("sequential_float32", "brg_1", kPrerun + R"(,"scale":2)", scaling, 4, 4, swap4, 0, prerun4);
    expect("message_raw", "a", "", proxyNode_ProxyReaderMessageRaw, 1, kVaries, none, 1);
    expect("message_raw", "my_gps", "", nmea, 1, kVaries, none, 1);
    expect("message_nmea", "gps", "", nmea, 1, kVaries, none, 1);
    expect("message_can", "a", "", proxyNode_ProxyReaderMessageCAN, 21, 21, none, 1);
    expect("message_xcp_ip", "a", "", proxyNode_ProxyReaderMessageXCPIP, 1, kVaries, none, 1);
    expect("message_float32", "a", "", proxyNode_ProxyReaderMessageFloat, 12, 12, value4, 1);
    expect("message_float32", "a", kHold, held, 12, 4, value4, 1);
    expect("message_float64", "a", "", proxyNode_ProxyReaderMessageDouble, 16, 16, value8, 1);
    expect("message_float64", "a", kHold, held, 16, 8, value8, 1);
    expect("message_float32_ntp", "a", "", proxyNode_ProxyReaderMessageNTPFloat, 12, 12, none, 1);
    expect("message_float32_ntp", "a", kHold, heldNtp, 12, 4, none, 1);
    expect("message_float64_ntp", "a", "", proxyNode_ProxyReaderMessageNTPDouble, 16, 16, none, 1);
    expect("message_float64_ntp", "a", kHold, heldNtp, 16, 8, none, 1);
    expect("whatever", "x_pd806h", "", stream, 4, 4, nullptr, 0);
    expect("message_float64", "pd806k", kHold, stream, 4, 8, nullptr, 0);
}

TEST(ProxyNodeCreate, StreamHandlersFollowCalibrationAndByteOrder)
{
    ErrorTrap errors;
    const auto handlerOf = [](const char *connector, const char *more) {
        const TestChannel channel(stanza("x", more, connector));
        const auto *slots = static_cast<const StreamSlot *>(channel->channel_aux);
        EXPECT_EQ(slots[15].handler, nullptr);
        EXPECT_EQ(slots[16].handler, slots[2047].handler);
        return slots[16].handler;
    };
    EXPECT_EQ(handlerOf("pd806h", ""), streamProcessCANSignalNoScaling);
    EXPECT_EQ(handlerOf("pd806k", ""), streamProcessCANSignalNoScalingLE);
    EXPECT_EQ(handlerOf("pd806h", R"("offset":1)"), streamProcessCANSignalScaleOffset);
    EXPECT_EQ(handlerOf("pd806k pd806h", R"("purpose":"x")"), streamProcessCANSignalScaleOffsetLE);
}

TEST(ProxyNodeCreate, SizesStandAnyRate)
{
    ErrorTrap errors;
    const auto expect = [](const char *type, const std::string &rate, double pipeRate, int64_t length,
                           uint32_t capacity, int64_t halfPeriod = 0) {
        const TestChannel channel(stanza(type, R"("sample_rate":)" + rate), pipeRate);
        EXPECT_EQ(channel->frame_length, length) << rate;
        EXPECT_EQ(channel->inbuf.capacity, capacity) << rate;
        EXPECT_EQ(channel->half_period, halfPeriod) << rate;
    };
    expect("sequential_float32", "1000", 10, 100, 4096);
    expect("sequential_float64", "0.5", 10, 1, 8);
    expect("sequential_float32", "1e10", 1, INT32_MAX, 64 << 20);
    expect("sequential_float32", "1e400", 0, 1, 64 << 20);
    expect("sequential_float32", "-3", NAN, 1, 4);
    expect("message_can", "1000", 10, 1, 8192);
    expect("message_float32", "-1", 10, 1, 8192, -20'000'000);
    expect("message_float32", "0", 10, 1, 8192, INT64_MAX);
    const std::string rest = R"("sample_rate":1,"invalid_data_output_value":7,"stale_data_expiration_time":)";
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "0.5"))->stale_ticks, 19'999'999);
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "1e300"))->stale_ticks, INT64_MAX - 1);
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "-1e400"))->held_value, 7.0);
    EXPECT_EQ(TestChannel(stanza("message_can", R"("is_logical":"TRUE")"))->is_logical, 1);
    EXPECT_EQ(TestChannel(stanza("message_can", R"("is_logical":true)"))->is_logical, 1);
    EXPECT_EQ(TestChannel(stanza("message_can", R"("is_logical":"true")"))->is_logical, 0);
}

TEST(ProxyNodeCreate, SaysWhatItMisses)
{
    ErrorTrap errors;
    const auto refuses = [&](const std::string &json, const char *message) {
        EXPECT_FALSE(TestChannel(json).node);
        EXPECT_THAT(errors.texts(), ElementsAre(::testing::StartsWith(message)));
    };
    const std::string live = R"("sample_rate":100,"stale_data_expiration_time":1)";
    refuses("{", "Unable to parse JSON for proxy node:  ");
    refuses(R"({"name":3,"data_type":"message_can"})", "Can not find 'name' in proxy node stanza");
    refuses(R"({"name":"n","connector":"a"})", "Can not find 'data_type' in proxy node stanza");
    refuses(R"({"name":"n","data_type":"message_can"})", "Can not find 'connector' in proxy node stanza");
    refuses(stanza("message_canx"), "Unknown data_type: message_canx\n");
    refuses(stanza("message_float32", R"("sample_rate":100)"), "Unable to get 'stale_data_expiration_time'");
    refuses(stanza("message_float32", live), "Unable to get 'invalid_data_output_value'");
    refuses(stanza("message_floaty", kHold, "pd806h"),
            "Expected 'message_floatXX' data type, got 'message_floaty'");
    refuses(stanza("message_float32", R"("sample_rate":1e400)"), "Invalid sample rate: inf");
}

TEST(ProxyNodeCreate, EveryFailedAllocationIsReportedAndLeavesNothing)
{
    ErrorTrap errors;
    AllocationFaults faults;
    const std::string sequential = stanza("sequential_float32"), gps = stanza("message_raw", "", "gps");
    for (const std::string &json : {sequential, gps, stanza("x", "", "pd806h")}) {
        bool made = false;
        for (int nth = 0; !made; nth++) {
            faults.failAt(nth);
            made = TestChannel(json).node != nullptr;
            EXPECT_EQ(errors.texts().empty(), made) << nth;
            ASSERT_LT(nth, 20);
        }
    }
}

TEST(StartTime, IsLocalAndExact)
{
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    const auto ticks = [](const char *text) {
        ProxyNode node{};
        proxyNode_SetStartTime(&node, text);
        return node.start_time;
    };
    constexpr int64_t kSecond = 40'000'000, kWinter = 1'773'566'130 * kSecond;
    EXPECT_EQ(ticks("2026-03-15T10:15:30"), kWinter);
    EXPECT_EQ(ticks("2026-07-01T12:00:00"), 1'782'900'000 * kSecond);
    EXPECT_EQ(ticks("2026-03-15T10:15:30.5"), kWinter + kSecond / 2);
    EXPECT_EQ(ticks("2026-03-15T10:15:30.5e300"), INT64_MAX);
    for (const char *ignored : {".5Z", ",5", "."})
        EXPECT_EQ(ticks((std::string("2026-03-15T10:15:30") + ignored).c_str()), kWinter) << ignored;
    EXPECT_EQ(ticks("9564-03-15T10:15:30"), INT64_MAX);
    EXPECT_EQ(ticks("2026-03-15"), 0);
    EXPECT_EQ(ticks(nullptr), INT64_MAX);
    unsetenv("TZ");
}

TEST(StartTime, DoesNotFollowTheHostsDecimalComma)
{
    ErrorTrap errors;
    if (!setlocale(LC_ALL, "de_DE.UTF-8") && !setlocale(LC_ALL, "fr_FR.UTF-8"))
        GTEST_SKIP() << "no locale with a decimal comma on this machine";
    const std::string more = R"("scale":2.5,"start_time":"1970-01-02T00:00:00.5")";
    const TestChannel channel(stanza("message_can", more));
    setlocale(LC_ALL, "C");
    EXPECT_EQ(channel->scale, 2.5);
    EXPECT_EQ(channel->start_time % 40'000'000, 20'000'000);
}

} // namespace
