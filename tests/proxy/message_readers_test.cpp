#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "libvu/bus/can_set.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/gps/gps_signal.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"
#include "tests/support/split.h"
#include "tests/support/temp_dir.h"

using namespace vu::test;

namespace {

// A channel of a message kind, and a signal of each sort that a host may hang on it.
struct MessageChannel : TestChannel {
    MessageChannel(const std::string &kind, const std::string &more, const std::string &connector)
        : TestChannel(stanza("message_" + kind, more, connector))
    {
        const char *const signal = R"({"name":"s","data_type":"message_float64","scale":1,"offset":0,
            "sample_rate":100,"pipe_rate":100,"stale_data_expiration_time":10,"invalid_data_output_value":-1,
            "db_data_format":"ULSB","db_bit_start":0,"db_bit_length":8,"db_msg_id":"49443032",
            "xcp_data_type":"UBYTE","xcp_byte_order":"big","connector":"ground_speed_knots"})";
        can = can_set_add_signal(node->can_set = can_set_create(), signal);
        xcp = xcp_ip_set_add_measurement(node->xcp_set = xcp_ip_set_create(), signal);
        gps = node->gps_set = connector == "gps" ? gpsSignalInit(node, signal) : nullptr;
        can_set_finalize(node->can_set);
    }
    ~MessageChannel()
    {
        releaseSignal(can);
        releaseSignal(xcp);
        can_set_destroy(node->can_set);
        xcp_ip_set_destroy(node->xcp_set);
        free(node->can_set);
        if (gps) {
            releaseSignal(gps);
            for (void *owned :
                 std::initializer_list<void *>{gps->json, gps->source_database, gps->extractor, gps})
                free(owned);
        }
    }
    CanSetSignal *can;
    XcpMeasurement *xcp;
    GpsSignal *gps;
};

// The bytes that the words stand for.
Bytes bytesOf(std::span<const std::string> words)
{
    Bytes bytes;
    for (const std::string &word : words) {
        const std::string digits = word.substr(0, word.size() - 1);
        const auto put = [&](auto value) { std::isupper(word.back()) ? bytes.le(value) : bytes.be(value); };
        switch (std::tolower(word.back())) {
        case 'q': put(int64_t{std::stoll(digits, nullptr, 0)}); break;
        case 'w': put(static_cast<uint32_t>(std::stoul(digits))); break;
        case 'b': put(static_cast<uint8_t>(std::stoul(digits))); break;
        case 'd': put(std::stod(digits)); break;
        case 'f': put(std::stof(digits)); break;
        case 'z': bytes.zeros(std::stoul(digits)); break;
        default: bytes.add(word);
        }
    }
    return bytes;
}

void play(const std::string &line)
{
    ErrorTrap errors;
    LogTrap log;
    AllocationFaults memory;
    const size_t end = line.find(" > ");
    const Strings words = split(line.substr(0, end), ' '), wanted = split(line.substr(end + 3), ' ');
    const std::string &kind = words[0];
    const auto given = [&](const char *what) { return words[1].find(what) != std::string::npos; };
    const Bytes body = bytesOf(std::span(words).subspan(2));
    MessageChannel channel(kind,
                           given("twice_plus_one") ? R"("scale":2.0,"offset":1.0)"
                           : given("less_two")     ? R"("rezero_offset":2.0)"
                                                   : "",
                           given("gps") ? "gps" : "c");
    Pipe *pipe = given("nobody") ? nullptr : channel.listen();
    channel.sendMarker(!given("little"));
    if (given("no_memory"))
        memory.failAt(0);
    channel.send(record(body).add(record(body)));
    EXPECT_EQ(channel->read_count != 0, wanted[0] == "leaves");
    memory.failNone();
    channel.runLeftovers();
    EXPECT_EQ(channel->inbuf.size, 0u);

    const bool isBytes = kind == "raw" || kind == "nmea", isShort = isBytes && body.size() < 8;
    EXPECT_EQ(channel->sample_count, isBytes && !pipe ? 2 * static_cast<int64_t>(body.size()) : 0);
    EXPECT_EQ(log.lines().size(), isShort ? 2u : 0u);
    EXPECT_EQ(errors.texts().size(), given("no_memory") ? (kind == "can" ? 2u : 1u) : 0u);
    if (wanted[0] == "hears") {
        const auto *stream = given("gps")    ? channel.gps->sequentializer
                             : kind == "can" ? channel.can->sequentializer
                                             : channel.xcp->sequentializer;
        EXPECT_EQ(fmt::format("hears {} {}", stream->value, stream->sample_count), line.substr(end + 3));
    }
    if (!pipe || given("no_memory") || wanted[0] == "hears")
        return;
    const auto frames = takeFrames(pipe);
    EXPECT_EQ(frames.size(), wanted.size() > 3 ? 2u : 0u);
    for (const FrameCopy &frame : frames) {
        EXPECT_EQ(fmt::format("{} {} {}", frame.start, frame.capacity, frame.length),
                  fmt::format("{}", fmt::join(std::span(wanted).first(3), " ")));
        EXPECT_EQ(frame.data, bytesOf(std::span(wanted).subspan(3)));
        EXPECT_EQ(frame.aux, static_cast<float>(frame.start));
    }
}

TEST(MessageRecords, BecomeFramesAndReachSignalsAndEndTheEventOrNot)
{
    const Strings lines = split(readText(VU_SOURCE_DIR "/tests/proxy/messages.txt"), '\n');
    ASSERT_FALSE(lines.empty());
    for (const std::string &line : lines) {
        SCOPED_TRACE(line);
        if (!line.empty() && !line.starts_with("//"))
            play(line);
    }
}

// A module's node has no byte_swap, whoever reads its channel.
TEST(MessageRecords, StayAsTheyCameOnANodeWithoutByteSwap)
{
    ErrorTrap errors;
    for (const auto reader :
         {proxyNode_ProxyReaderMessageRaw, proxyNode_ProxyReaderMessageNMEA,
          proxyNode_ProxyReaderMessageFloat, proxyNode_ProxyReaderSequentializedMessage}) {
        TestChannel channel(stanza("message_float32",
                                   R"("sample_rate":1000,"stale_data_expiration_time":1,)"
                                   R"("invalid_data_output_value":-1)",
                                   "pd806h"),
                            500);
        channel->main_reader = reader;
        Pipe *const pipe = channel.listen();
        channel.sendMarker();
        channel.send(record(Bytes().be(int64_t{20'000}).le(1.5F).be(int64_t{60'000}).le(2.5F)));
        EXPECT_EQ(channel->inbuf.size, 0u);
        const auto frames = takeFrames(pipe);
        ASSERT_EQ(frames.size(), 1u);
        const Bytes end(frames[0].data.end() - 4, frames[0].data.end());
        EXPECT_EQ(end, Bytes().le(reader == proxyNode_ProxyReaderSequentializedMessage ? 1.5F : 2.5F));
    }
}

} // namespace
