#include "tests/stream/stream_fixture.h"
#include "tests/support/cases.h"

using namespace vu::test;

namespace {

// Takes off the line what follows the mark.
std::string cutBehind(std::string &line, const std::string &mark)
{
    const size_t at = std::min(line.rfind(mark), line.size());
    const std::string part = line.substr(std::min(at + mark.size(), line.size()));
    line.resize(at);
    return part;
}

TEST(Metainfo, SaysWhatIsWrongAndBindsTheFirstSignalWhoseStanzaHoldsTheName)
{
    StreamChannel channel;
    for (const Case &row : cases("stream/metainfo.txt")) {
        std::string line = row.text;
        const std::string bound = cutBehind(line, " @ "), report = cutBehind(line, " # ");
        const auto number = static_cast<uint32_t>(std::stoul(line));
        std::string said;
        for (const std::string &text : channel.process(number, line.substr(line.find(' ') + 1)))
            said += text;
        for (const auto &[priority, text] : channel.log.lines())
            said += std::to_string(priority) + ": " + text;
        std::replace(said.begin(), said.end(), '\n', '~');
        EXPECT_EQ(report.ends_with('?') ? said.substr(0, report.size() - 1) + '?' : said, report);
        if (!bound.empty()) {
            const CanSignalNode *signal = channel.bound(number);
            EXPECT_EQ(signal ? signal->name : "none", bound);
        }
    }
}

TEST(Metainfo, KeepsItsTextBufferAndItsTimer)
{
    StreamChannel channel;
    AllocationFaults memory;
    const std::string alive = R"({"method":"alive"})";
    const auto allocations = [&](size_t length, const Texts &wanted = {}) {
        const int64_t before = memory.count();
        std::string text = R"({"method":"connect"})";
        text.resize(length, ' ');
        EXPECT_EQ(channel.process(16, text), wanted);
        return memory.count() - before;
    };
    EXPECT_EQ(allocations(3000), 1);
    EXPECT_EQ(allocations(3000) + allocations(100), 0);
    memory.failAt(0);
    EXPECT_GE(allocations(400'000, {"Failed to allocate (grow) JSON buffer to 400001 byte(s)"}), 1);
    EXPECT_EQ(allocations(100), 1); // the buffer went before the growth
    EXPECT_EQ(channel.process(16, R"({"method":"connect"})" + std::string("\0rest", 5)), Texts{});
    memory.failAt(0);
    EXPECT_EQ(channel.process(16, "1"),
              Texts{"Unable to allocate memory for the text of a metainfo failure"});
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
