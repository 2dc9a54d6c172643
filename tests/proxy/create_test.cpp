// A stanza becomes a node: kinds, sizes, refusals, and memory that runs out.
#include <clocale>
#include <dlfcn.h>
#include <fmt/format.h>

#include "libvu/stream/stream_signal.h"
#include "tests/proxy/proxy_fixture.h"

using namespace vu::test;

namespace {

// What an exported function is called.
template <typename Function>
std::string nameOf(Function *function)
{
    Dl_info info{};
    const bool isKnown = function && dladdr(reinterpret_cast<void *>(function), &info) && info.dli_sname;
    return isKnown ? info.dli_sname : "-";
}

std::string told(const ProxyNode &node, const std::string &pattern)
{
    using fmt::arg;
    const bool isStream = node.main_reader == proxyNode_ProxyReaderZNTStream;
    const auto *slots = isStream ? static_cast<const StreamSlot *>(node.channel_aux) : nullptr;
    return fmt::format(
        fmt::runtime(pattern), arg("reader", nameOf(node.main_reader)), arg("record", node.record_size),
        arg("element", static_cast<int32_t>(node.element_size)), arg("swap", nameOf(node.byte_swap)),
        arg("kernel", nameOf(node.apply)), arg("slot", slots ? nameOf(slots[16].handler) : "-"),
        arg("aux", node.channel_aux != nullptr), arg("message", node.message_channel),
        arg("logical", node.is_logical), arg("frame", node.frame_length), arg("inbuf", node.inbuf.capacity),
        arg("half", node.half_period), arg("stale", node.stale_ticks), arg("held", node.held_value),
        arg("start", node.start_time), arg("scale", node.scale));
}

// In the host's locale, whatever its decimal point.
class ProxyNodeCreate : public Channels, public testing::WithParamInterface<const char *> {};

TEST_P(ProxyNodeCreate, EveryStanzaBecomesItsNodeOrIsRefused)
{
    if (!setlocale(LC_ALL, GetParam()))
        GTEST_SKIP() << "no such locale on this machine";
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    const char *const hold =
        R"("sample_rate":100,"stale_data_expiration_time":1,"invalid_data_output_value":-1)";
    std::string shown;
    for (const Case &row : cases("proxy/nodes.txt")) {
        const std::string &line = row.text;
        if (line.starts_with("show ")) {
            shown = line.substr(5);
            continue;
        }
        const size_t end = line.find(" > ");
        std::string json = line.substr(0, end), rate = "10";
        if (json[0] != '{') {
            const Strings words = split(json, ' '), connector = split(words[1] + "@10", '@');
            const std::string &keys = words[2];
            json = stanza(words[0], keys == "-" ? "" : keys == "hold" ? hold : keys, connector[0]);
            rate = connector[1];
        }
        const TestChannel channel(json, std::stod(rate));
        EXPECT_EQ(channel.node ? told(*channel.node, shown) : testing::PrintToString(errors.texts()),
                  line.substr(end + 3))
            << line;
        EXPECT_TRUE(!channel.node || channel->reader == proxyNode_ProxyReaderMarker);
    }
    unsetenv("TZ");
    setlocale(LC_ALL, "C");
    ProxyNode node{};
    proxyNode_SetStartTime(&node, nullptr);
    EXPECT_EQ(node.start_time, INT64_MAX);
}
INSTANTIATE_TEST_SUITE_P(, ProxyNodeCreate, testing::Values("C", "de_DE.UTF-8"));

class ProxyNodes : public Channels {};

TEST_F(ProxyNodes, ReportEveryFailedAllocationAndLeaveNothing)
{
    for (const auto &json :
         {stanza("sequential_float32"), stanza("message_raw", "", "gps"), stanza("x", "", "pd806h")}) {
        bool made = false;
        for (int nth = 0; !made; nth++) {
            memory.failAt(nth);
            made = TestChannel(json).node != nullptr;
            EXPECT_EQ(errors.texts().empty(), made) << nth;
            ASSERT_LT(nth, 20);
        }
    }
}

} // namespace
