// A stanza becomes a node: kinds, sizes, refusals, and memory that runs out.
#include <clocale>
#include <fmt/format.h>

#include "libvu/stream/metainfo.h"
#include "tests/proxy/proxy_fixture.h"

using namespace vu::test;

namespace {

std::string shownOf(const ProxyNode &node, const std::string &pattern)
{
    using fmt::arg;
    return fmt::format(fmt::runtime(pattern), arg("record", node.record_size),
                       arg("element", static_cast<int32_t>(node.element_size)),
                       arg("message", node.message_channel), arg("logical", node.is_logical),
                       arg("frame", node.frame_length), arg("inbuf", node.inbuf.capacity),
                       arg("half", node.half_period), arg("stale", node.stale_ticks),
                       arg("held", node.held_value), arg("start", node.start_time), arg("scale", node.scale));
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
        EXPECT_EQ(channel.node ? shownOf(*channel.node, shown) : testing::PrintToString(errors.texts()),
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

// A parser's tree is freed level by level: 262,000 levels need more stack than there is.
TEST_F(ProxyNodes, JsonNestedDeeperThan64LevelsIsNotParsed)
{
    const auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    const std::string deep = nested(262'000), open(262'000, '{');
    const std::pair<std::string, bool> rows[] = {
        {R"("x":)" + nested(63), true},
        {R"("x":)" + nested(64), false},
        {R"("x":)" + deep, false},
        {R"("x":)" + open, false},
        {R"("x":")" + deep + R"(\")" + deep + '"', true}, // in a string
        {R"("x":")" + std::string(R"(\\",)") + R"("y":)" + deep, false},
        {"/*" + deep + R"(*/"x":1)", true}, // in a comment
        {"/*\"*/\"x\":" + deep, false},     // the quote is in the comment
        {"//\"\n\"x\":" + deep, false},     // and here
        {R"("x":)" + nested(60) + R"(,"y":)" + nested(60), true},
    };
    const TestChannel module(stanza("x", "", "pd806h"));
    for (const auto &[keys, isParsed] : rows) {
        const std::string json = stanza("message_can", keys).substr(0, 300) + "..";
        EXPECT_EQ(TestChannel(stanza("message_can", keys)).node != nullptr, isParsed) << json;
        const std::string why = "nested deeper than 64 levels";
        using Texts = std::vector<std::string>;
        EXPECT_EQ(errors.texts(), isParsed ? Texts() : Texts{"Unable to parse JSON for proxy node:  " + why});
        const std::string metainfo = R"({"method":"time",)" + keys + "}";
        process_metainfo(module.node, 16, metainfo.data(), static_cast<uint32_t>(metainfo.size()));
        EXPECT_EQ(errors.texts(),
                  isParsed ? Texts() : Texts{"process_channel_metainfo():  Parse Error - " + why});
    }
}

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
