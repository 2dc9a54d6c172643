#include <ev.h>
#include <sstream>

#include "tests/stream/stream_fixture.h"

using namespace vu::test;
using testing::ElementsAre;
using testing::Pair;

namespace {

// A text, and what is reported of it; ~ stands for a line end.
const char kReports[] = R"(
{"method":5} # process_channel_metainfo():  key 'method' not found in JSON '{"method":5}'
{"method":"subscribes"} #
{"method":"disconnect","params":0} #
{"method":"subscribe"} # handle_subscribe():  Key 'params' not found in JSON
{"method":"subscribe","params":[]} #
{"method":"subscribe","params":["rpm","%n"]} # handle_subscribe():  %n not found in cs_list~
{"method":"subscribe","params":["rpm",7,"speed"]} # handle_subscribe():  Parameter 1 is not a string
{"method":"signalRate","params":{}} # handle_signal_rate():  Can not find key 'samples' in JSON
{"method":"signalRate","params":{"samples":1e400}} # handle_signal_rate():  Key 'samples' is not a JSON object
{"method":"signalRate","params":{"samples":100}} #
{"method":"data"} # handle_data():  Key 'pattern' does not exist
{"method":"data","params":{"pattern":"V"}} # handle_data():  Data type 'V' NYI
{"method":"data","params":{"pattern":"TVX"}} # handle_data():  Key 'pattern' value is unknown value 'TVX'
{"method":"data","params":{"pattern":"TV","endian":1}} # handle_data():  Key 'endian' does not exist
{"method":"data","params":{"pattern":"TV","endian":"Big"}} # handle_data():  Key 'endian' value is not expected value Big -> big|little
{"method":"data","params":{"pattern":"TV","endian":"big"}} # handle_data():  Key 'valueType' does not exist
{"method":"data","params":{"pattern":"TV","endian":"little","valueType":"real64"}} # handle_data():  Key 'valueType' value is not expected value real64 -> real32
{"method":"data","params":{"pattern":"TV","endian":"big","valueType":"real32","time":"ntp"}} # handle_data():  Key 'type' does not exist
{"method":"data","params":{"pattern":"TV","endian":"big","valueType":"real32","time":{"type":"utc"}}} # handle_data():  Key 'time' value is not expected value utc -> ntp
{"method":"data","params":{"pattern":"TV","endian":"little","valueType":"real32","time":{"type":"ntp"}}} #
{"method":"fill","params":75} # handle_fill():  Key 'params' not found in JSON
{"method":"fill","params":[]} # handle_fill():  Unexpected array length
{"method":"fill","params":["80"]} # handle_fill():  Parameter is not double
{"method":"fill","params":[75.0]} #
{"method":"fill","params":[97.5]} # PD Stream buffers are full
)";

TEST(Metainfo, SaysWhatIsWrong)
{
    StreamChannel channel;
    std::istringstream table(kReports + 1);
    for (std::string line; std::getline(table, line);) {
        const size_t bar = line.find(" #");
        std::string report = line.substr(std::min(bar + 3, line.size()));
        std::replace(report.begin(), report.end(), '~', '\n');
        EXPECT_EQ(channel.process(20, line.substr(0, bar)), report.empty() ? Texts{} : Texts{report}) << line;
    }
    EXPECT_THAT(channel.process(20, "{"),
                ElementsAre(testing::StartsWith("process_channel_metainfo():  Parse Error - ")));
    EXPECT_EQ(channel.bound(20), nullptr);
    EXPECT_THAT(channel.log.lines(), ElementsAre());
    channel.process(20, R"({"method":"fill","params":[80]})");
    channel.process(20, R"({"method":"fill","params":[97.0]})");
    EXPECT_THAT(channel.log.lines(), ElementsAre(Pair(12, "PD Stream buffers are filling (80%)"),
                                                 Pair(12, "PD Stream buffers are filling (97%)")));
}

TEST(Metainfo, BindsTheFirstSignalWhoseStanzaHoldsTheName)
{
    StreamChannel channel;
    const struct {
        uint32_t number;
        const char *names;
        Texts reports;
        CanSignalNode *signal;
    } cases[] = {
        {2047, R"("torque")", {}, channel.torque},
        {2047, R"("speed\"")", {}, channel.speed}, // bound anew; found anywhere in the text
        {17, R"("speed")", {}, channel.rawSpeed},
        {16, R"("rpm","torque",0)", {"handle_subscribe():  rpm not found in cs_list\n"}, channel.torque},
        {16, R"(0,"speed")", {"handle_subscribe():  Parameter 0 is not a string"}, channel.torque},
        {15, R"("rpm")", {"handle_subscribe():  rpm not found in cs_list\n"}, nullptr},
        {15, R"("rpm","")", {"handle_subscribe():  Signal number 15 has no slot"}, nullptr}};
    for (const auto &c : cases) {
        EXPECT_EQ(channel.process(c.number, subscribe(c.names)), c.reports) << c.names;
        channel.process(c.number, R"({"method":"unsubscribe"})");
        EXPECT_EQ(channel.bound(c.number), c.signal) << c.names;
    }
    EXPECT_THAT(channel.process(2048, subscribe(R"("speed")")), ElementsAre(testing::HasSubstr("2048")));
    EXPECT_THAT(channel.process(UINT32_MAX, subscribe(R"("speed")")),
                ElementsAre(testing::HasSubstr("4294967295")));
    channel->cs_list = nullptr;
    EXPECT_EQ(channel.process(0, subscribe(R"("speed")")), Texts{});
}

TEST(Metainfo, KeepsItsTextBufferAndItsTimer)
{
    StreamChannel channel;
    AllocationFaults memory;
    Texts grown;
    const auto allocations = [&](size_t length) {
        const int64_t before = memory.count();
        std::string text = R"({"method":"connect"})";
        text.resize(length, ' ');
        grown = channel.process(16, text);
        return memory.count() - before;
    };
    EXPECT_EQ(allocations(3000), 1);
    EXPECT_EQ(allocations(3000) + allocations(100), 0);
    memory.failAt(0);
    EXPECT_GE(allocations(400'000), 1); // the report's own text counts too
    EXPECT_EQ(grown, Texts{"Failed to allocate (grow) JSON buffer to 400001 byte(s)"});
    EXPECT_EQ(allocations(100), 1); // the buffer went before the growth
    EXPECT_EQ(channel.process(16, std::string_view("{\"method\":\"connect\"}\0rest", 25)), Texts{});
    memory.failAt(0);
    EXPECT_EQ(channel.process(16, "1"),
              Texts{"Unable to allocate memory for the text of a metainfo failure"});

    const char alive[] = R"({"method":"alive"})";
    memory.failAt(0);
    EXPECT_EQ(channel.process(16, alive), Texts{"Unable to allocate HB watcher for proxy node"});
    channel.process(16, alive);
    ev_timer *const timer = channel->heartbeat;
    channel.process(16, alive);
    EXPECT_EQ(channel->heartbeat, timer);
    EXPECT_TRUE(ev_is_active(timer));
    EXPECT_NEAR(ev_timer_remaining(ev_default_loop(0), timer), 3.0, 0.5);
}

} // namespace
