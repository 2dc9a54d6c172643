// What is said of a recording, and where: events and the system log, whatever others send.
#include <cstring>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include "tests/support/running_vu.h"
#include "vu/record/file/events.h"
#include "vu/record/system_log.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;

TEST(Events, StandInTheOrderOfTheirTimes)
{
    Events events;
    for (const double time : {3.0, 1.0, 2.0, 1.0, 0.5})
        events.add("range", "ch", std::to_string(events.list().size()), {}, time);
    std::string order;
    for (const Event &event : events.list())
        order += event.text;
    EXPECT_EQ(order, "41320");
    EXPECT_FALSE(events.anyLoss());
}

TEST(Events, AFloodIsCountedAndNotKept)
{
    Events events;
    for (int i = 0; i < 100'000; i++)
        events.add("error", "ch", "a long beginning that is always the same " + std::to_string(i));
    events.add("source_lost", "ch", "gone\n\x1b[2J" + std::string(1'000'000, 'x'));
    events.giveCounts(true);
    uint64_t errors = 0;
    for (const Event &event : events.list()) {
        EXPECT_LT(event.text.size(), Events::kLongestText + 100);
        EXPECT_EQ(event.text.find_first_of("\n\x1b"), std::string::npos);
        errors += event.kind != "error" ? 0 : event.text[0] == 'a' ? 1 : std::stoull(event.text);
    }
    EXPECT_EQ(errors, 100'000u) << "one by one or in counts";
    EXPECT_LT(events.list().size(), 20u);
    // Of all different kinds, too; what is beyond the number still makes a loss and still ends the list.
    for (int i = 0; i < 20'000; i++)
        events.add("zero", "ch", std::to_string(i));
    events.giveCounts(true);
    EXPECT_THAT(events.list(), SizeIs(Events::kMost + 1));
    EXPECT_THAT(events.list().back().text, HasSubstr("events more were not kept"));
    EXPECT_TRUE(events.anyLoss());
}

class Log : public ::testing::Test {
protected:
    Log() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    ~Log() override { close(socket_); }
    std::string line() const
    {
        char bytes[2048];
        const ssize_t got = recv(socket_, bytes, sizeof bytes, 0);
        return {bytes, static_cast<size_t>(std::max<ssize_t>(got, 0))};
    }
    static void write(SystemLog &log, const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        log.write(LOG_USER | LOG_WARNING, format, arguments);
        va_end(arguments);
    }

    TempDir folder;
    const std::string path = folder.path("log");
    int socket_;
};

// Nobody reads: a log that waited would end this test by its timeout.
TEST_F(Log, ADaemonThatHangsStopsNobody)
{
    static char formats[3000][8];
    SystemLog log(path);
    for (char(&format)[8] : formats)
        write(log, strcpy(format, "x\n%s"), "y\r");
    EXPECT_GT(log.sent(), 0u);
    EXPECT_GT(log.dropped(), 0u);
    EXPECT_EQ(log.sent() + log.dropped(), 3000u);
    EXPECT_THAT(line(), HasSubstr("<12>"));
    EXPECT_THAT(line(), HasSubstr(": x y "));
}

TEST_F(Log, LinesThatRepeatAreCounted)
{
    SystemLog log(path);
    for (int i = 0; i < 100'000; i++)
        write(log, "a record of %d bytes", i);
    EXPECT_LT(log.sent(), 20u);
    EXPECT_GT(log.repeated(), 99'000u);
    EXPECT_EQ(log.dropped(), 0u);
}

TEST_F(Log, TheLibrarysLinesGoTheSameWay)
{
    setenv("VU_SYSTEM_LOG", path.c_str(), 1);
    runVu({"--version"});
    unsetenv("VU_SYSTEM_LOG");
    EXPECT_THAT(line(), HasSubstr("Using release version of libvu"));
}

} // namespace
} // namespace vu::test
