// A stanza becomes a node: kinds, sizes, refusals, and memory that runs out.
#include <clocale>
#include <cstdlib>
#include <dlfcn.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <map>

#include "libvu/stream/stream_signal.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/node_fixture.h"
#include "tests/support/split.h"
#include "tests/support/temp_dir.h"

using namespace vu::test;
using ::testing::PrintToString;

namespace {

// What an exported function is called, without what the names of its room begin with.
template <typename Function>
std::string nameOf(Function *function)
{
    Dl_info info{};
    if (!function || !dladdr(reinterpret_cast<void *>(function), &info) || !info.dli_sname)
        return function ? "?" : "-";
    std::string name = info.dli_sname;
    for (const std::string room : {"proxyNode_", "ProxyReader", "streamProcessCANSignal"})
        if (name.starts_with(room))
            name.erase(0, room.size());
    return name;
}

std::string describe(const ProxyNode &node)
{
    std::string aux = node.message_channel ? "message" : "-";
    if (node.main_reader == proxyNode_ProxyReaderZNTStream) {
        const auto *slots = static_cast<const StreamSlot *>(node.channel_aux);
        EXPECT_EQ(slots[15].handler, nullptr);
        EXPECT_EQ(slots[16].handler, slots[2047].handler);
        aux = nameOf(slots[16].handler);
    } else if (node.channel_aux) {
        aux += " receiver";
    }
    if (node.is_logical)
        aux += " logical";
    EXPECT_EQ(node.reader, proxyNode_ProxyReaderMarker);
    return fmt::format("{} {}/{} {} {} {}", nameOf(node.main_reader), node.record_size,
                       node.element_size == UINT32_MAX ? "?" : std::to_string(node.element_size),
                       nameOf(node.byte_swap), nameOf(node.apply), aux);
}

TEST(ProxyNodeCreate, EveryKindGetsItsFieldsOrIsRefused)
{
    ErrorTrap errors;
    std::map<std::string, std::string> shorthand = {
        {"-", ""},
        {"hold", R"("sample_rate":100,"stale_data_expiration_time":1,"invalid_data_output_value":-1)"}};
    const auto lines = split(readText(VU_SOURCE_DIR "/tests/proxy/kinds.txt"), '\n');
    ASSERT_FALSE(lines.empty());
    for (const std::string &line : lines) {
        std::istringstream words(line);
        std::string json, connector, keys, wanted;
        if (words >> json; json == "//")
            continue;
        if (json[0] != '{') {
            words >> connector >> keys;
            json = stanza(json, shorthand.contains(keys) ? shorthand[keys] : keys, connector);
        }
        std::getline(words >> std::ws, wanted);
        const TestChannel channel(json);
        EXPECT_EQ(channel.node ? describe(*channel.node) : PrintToString(errors.texts()), wanted) << line;
    }
}

TEST(ProxyNodeCreate, SizesStandAnyRate)
{
    ErrorTrap errors;
    std::istringstream rows(readText(VU_SOURCE_DIR "/tests/proxy/sizes.txt"));
    std::string type, rate, pipeRate, wanted;
    std::getline(rows, wanted);
    while (rows >> type >> rate >> pipeRate >> wanted) {
        const TestChannel channel(stanza(type, R"("sample_rate":)" + rate), std::stod(pipeRate));
        EXPECT_EQ(
            fmt::format("{}/{}/{}", channel->frame_length, channel->inbuf.capacity, channel->half_period),
            wanted)
            << type << " " << rate;
    }
    EXPECT_EQ(rate, "0") << "the last one";
    const std::string rest = R"("sample_rate":1,"invalid_data_output_value":7,"stale_data_expiration_time":)";
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "0.5"))->stale_ticks, 19'999'999);
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "1e300"))->stale_ticks, INT64_MAX - 1);
    EXPECT_EQ(TestChannel(stanza("message_float64", rest + "-1e400"))->held_value, 7.0);
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
    ProxyNode node{};
    std::istringstream rows(readText(VU_SOURCE_DIR "/tests/proxy/start_times.txt"));
    std::string text;
    std::getline(rows, text);
    for (int64_t wanted; rows >> text >> wanted;) {
        proxyNode_SetStartTime(&node, text.c_str());
        EXPECT_EQ(node.start_time, wanted) << text;
    }
    EXPECT_EQ(text, "2026-03-15") << "the last one";
    proxyNode_SetStartTime(&node, nullptr);
    EXPECT_EQ(node.start_time, INT64_MAX);
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
