#include <algorithm>
#include <bit>
#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/command.h"
#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;

// A channel whose samples count from 0, 10 in a record, so that what is missing shows.
std::string counting(const std::string &more = "", const std::string &seconds = "2",
                     const std::string &speed = "0")
{
    return "sim --data-type sequential_float32 --signal counter --speed " + speed + " --duration " + seconds +
           ' ' + more;
}
constexpr const char *kEndless = "0";

std::vector<float> count(size_t samples)
{
    std::vector<float> numbers(samples);
    for (size_t i = 0; i < samples; ++i)
        numbers[i] = static_cast<float>(i % (1u << 24));
    return numbers;
}

TEST(SourceConnection, OfEveryKindBringsTheMarkerAndEverySample)
{
    for (const auto socket : {Source::Socket::Unix, Source::Socket::Tcp})
        for (const std::string endian : {"big", "little"}) {
            const Stream stream = replay(counting("--endian " + endian), 0, nullptr, socket);
            EXPECT_EQ(stream.bigEndian, endian == "big");
            EXPECT_EQ(samplesOf<float>(stream), count(2000));
            EXPECT_TRUE(stream.rest.empty());
        }
}

TEST(SourceConnection, ASlowReaderLosesNothing)
{
    // Far more than socket and queue hold, read late and in pieces that fit no record.
    Source source(counting("--sample-rate 1000000"));
    Bytes all;
    usleep(200000);
    for (Bytes piece = source.read(7777); !piece.empty(); piece = source.read(7777))
        all.insert(all.end(), piece.begin(), piece.end());
    source.leave();
    EXPECT_EQ(source.status(), 0);
    EXPECT_EQ(samplesOf<float>(cut(all)), count(2'000'000));
}

TEST(SourceConnection, StopEndsItEvenWhenItComesInPieces)
{
    Source source(counting("", kEndless, "1"));
    EXPECT_FALSE(source.read(100).empty());
    source.write("xSt");
    usleep(20000);
    source.write("op");
    source.read();
    EXPECT_EQ(source.status(), 0) << source.said();
    EXPECT_FALSE(exists(source.path));

    Source blocked(counting("", kEndless)); // nobody reads: "Stop" comes against a full socket
    usleep(100000);
    blocked.write("Stop");
    EXPECT_EQ(blocked.status(), 0);
}

TEST(SourceConnection, TerminationLeavesWholeRecords)
{
    for (const int number : {SIGTERM, SIGINT}) {
        Source source(counting("", kEndless, "1"));
        Bytes all = source.read(100);
        source.signal(number);
        const Bytes more = source.read();
        all.insert(all.end(), more.begin(), more.end());
        source.leave();
        EXPECT_EQ(source.status(), 0);
        const Stream stream = cut(all);
        EXPECT_TRUE(stream.rest.empty());
        EXPECT_EQ(samplesOf<float>(stream), count(stream.records.size() * 10));
    }
    Source alone(counting(), Source::Socket::Unix, {}, false);
    while (!exists(alone.path))
        usleep(1000);
    alone.signal(SIGTERM);
    EXPECT_EQ(alone.status(), 0);
}

TEST(SourceConnection, AReaderThatLeavesEarlyIsAFailure)
{
    Source gone(counting("", kEndless));
    gone.read(1000);
    gone.leave();
    EXPECT_EQ(gone.status(), 1);
    EXPECT_THAT(gone.said(), HasSubstr("the reader left before the data ended"));

    Source unread(counting("", "0.5")); // all of it was sent, but not read
    unread.read(100);
    usleep(100000);
    unread.leave();
    EXPECT_EQ(unread.status(), 1);
}

TEST(SourceConnection, TheNameOfADeadSocketIsTakenOver)
{
    const TempDir folder;
    const std::filesystem::path where = folder.path("socket");
    writeText(where, "precious");
    const CommandResult refused = runVu(words("source " + counting("--listen unix:" + where.string())));
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("Address already in use"));
    EXPECT_EQ(readText(where), "precious");
    std::filesystem::remove(where);

    Source killed(counting("", kEndless), Source::Socket::Unix, where);
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.status(), -SIGKILL);
    ASSERT_TRUE(exists(where));
    Source next(counting(), Source::Socket::Unix, where);
    EXPECT_EQ(samplesOf<float>(cut(next.read())), count(2000));
}

TEST(SourceFaults, AreWhatTheyAreToldToBe)
{
    const Stream clean = replay(counting());
    ASSERT_EQ(clean.records.size(), 200u);

    std::string said;
    const Stream dropped = replay(counting("--faults drop=7,split=5,stall=0.05@0.5"), 0, &said);
    EXPECT_THAT(said, HasSubstr("28 of 200 records dropped"));
    ASSERT_EQ(dropped.records.size(), 172u);
    for (size_t i = 0; i < dropped.records.size(); ++i)
        ASSERT_EQ(dropped.records[i], clean.records[i + i / 6]) << i;

    const Stream garbled = replay(counting("--faults garble=4"));
    ASSERT_EQ(garbled.records.size(), 200u);
    for (size_t i = 0; i < 200; ++i) {
        int bits = 0;
        for (size_t k = 0; k < clean.records[i].size(); ++k)
            bits += std::popcount(static_cast<unsigned>(clean.records[i][k] ^ garbled.records[i].at(k)));
        ASSERT_EQ(bits, i % 4 == 3 ? 1 : 0) << i;
    }
    const Stream again = replay(counting("--faults garble=4"));
    EXPECT_EQ(again.records, garbled.records);

    const Stream closed = replay(counting("--faults close=5"), 1, &said);
    EXPECT_THAT(said, HasSubstr("closed by --faults after 5 records"));
    EXPECT_EQ(closed.records.size(), 5u);
    EXPECT_EQ(closed.rest.size(), 26u); // half of the sixth
}

TEST(SourceUsage, MistakesAreToldInOneLineBeforeAnybodyListens)
{
    // Words, and what standard error must name.
    const std::pair<const char *, const char *> table[] = {
        {"sim --data-type message_jpeg", "'message_jpeg' can not be simulated"},
        {"sim --data-type sequential_float32 --signal sinus", "expected sine, ramp, square"},
        {"sim --data-type sequential_float32 --sample-rate -1", "--sample-rate"},
        {"sim --data-type sequential_float32 --speed -1", "--speed"},
        {"sim --data-type sequential_float32 --faults drop=0", "'drop=0'"},
        {"sim --data-type sequential_float32 --faults split=1,melt=2", "'melt=2'"},
        {"sim --data-type message_can --can-ids 800", "got '800'"},
        {"sim --data-type message_xcp_ip --xcp-types UWORD,LONG", "'LONG' is no xcp_data_type"},
        {"sim --data-type message_nmea --lost-pulses 7", "expected FROM:TO"},
        {"sim --connector pd806h --names a,b --numbers 16", "one for each of the 2 names"},
        {"sim --data-type message_float32_ntp --start-time noon", "--start-time"},
        {"wav /dev/null", "/dev/null: "},
        {"candump /dev/null", "there is no CAN frame in it"},
        {"candump /dev/null --tail 61", "expected 0 to 60 seconds"},
        {"nmea nowhere.log", "nowhere.log: No such file"},
        {"can nosuchcan0", "nosuchcan0: "},
    };
    for (const auto &[line, expected] : table) {
        const CommandResult result =
            runVu(words("source " + std::string(line) + " --listen unix:/proc/none"));
        EXPECT_EQ(result.status, 2) << line;
        EXPECT_THAT(result.err, HasSubstr(expected));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    for (const char *address : {"unix:", "tcp:127.0.0.1", "tcp:127.0.0.1:65536", "tcp::5", "pipe:x"})
        EXPECT_EQ(runVu(words("source " + counting("--listen ") + address)).status, 2) << address;
}

} // namespace
} // namespace vu::test
