#include <fmt/ranges.h>

#include "libvu/bus/can_set.h"
#include "libvu/bus/xcp_set.h"
#include "tests/gps/receiver.h"
#include "tests/proxy/proxy_fixture.h"

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
        if (gps)
            release(gps);
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
    const std::string &kind = words[0], &setting = words[1];
    const auto given = [&](const char *what) { return setting.find(what) != std::string::npos; };
    const Bytes body = bytesOf(std::span(words).subspan(2));
    MessageChannel channel(kind, given(":") ? setting.substr(setting.find('"')) : "",
                           given("gps") ? "gps" : "c");
    Pipe *pipe = given("nobody") ? nullptr : channel.listen();
    channel.sendMarker(!given("little"));
    if (given("no_swap"))
        channel->byte_swap = nullptr;
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
    for (const Case &row : cases("proxy/messages.txt")) {
        const std::string &line = row.text;
        play(line);
    }
}

} // namespace
