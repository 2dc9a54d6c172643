// The road from a source to its reader: nothing lost, nothing cut, whatever either does.
#include <bit>
#include <csignal>
#include <gmock/gmock.h>
#include <numeric>
#include <unistd.h>

#include "tests/support/cases.h"
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
    std::iota(numbers.begin(), numbers.end(), 0.0f);
    return numbers;
}

TEST(SourceConnection, ASlowReaderLosesNothing)
{
    for (const auto &[socket, endian] : {std::pair(Socket::Unix, "little"), {Socket::Tcp, "big"}}) {
        // Far more than socket and queue hold, read late and in pieces that fit no record.
        Source source(counting("--sample-rate 1000000 --endian ") + endian, socket);
        Bytes all;
        usleep(200000);
        for (Bytes piece = source.read(7777); !piece.empty(); piece = source.read(7777))
            all.insert(all.end(), piece.begin(), piece.end());
        EXPECT_EQ(source.end(), 0);
        const Stream stream = cut(all);
        EXPECT_EQ(stream.bigEndian, socket == Socket::Tcp);
        EXPECT_EQ(samplesOf<float>(stream), count(2'000'000));
    }
}

TEST(SourceConnection, EndsWithAWholeRecordWhenItIsAskedTo)
{
    for (const int number : {0, SIGTERM, SIGINT}) { // 0: by "Stop", in pieces
        Source source(counting("", kEndless, "1"));
        Bytes all = source.read(100);
        if (number == 0) {
            source.say("xSt");
            usleep(20000);
            source.say("op");
        } else {
            source.signal(number);
        }
        const Bytes more = source.read();
        all.insert(all.end(), more.begin(), more.end());
        EXPECT_EQ(source.end(), 0) << source.err();
        const Stream stream = cut(all);
        EXPECT_TRUE(stream.rest.empty());
        EXPECT_EQ(samplesOf<float>(stream), count(stream.records.size() * 10));
    }
    Source blocked(counting("", kEndless)); // nobody reads: "Stop" comes against a full socket
    usleep(100000);
    blocked.say("Stop");
    EXPECT_EQ(blocked.wait(), 0);
}

TEST(SourceConnection, AReaderThatLeavesEarlyIsAFailure)
{
    for (const char *seconds : {kEndless, "0.5"}) { // the shorter is sent whole, but not read
        Source gone(counting("", seconds));
        gone.read(100);
        usleep(100000);
        EXPECT_EQ(gone.end(), 1);
        EXPECT_THAT(gone.err(), HasSubstr("the reader left before the data ended")) << seconds;
    }
}

TEST(SourceConnection, TheNameOfADeadSocketIsTakenOver)
{
    const TempDir folder;
    const std::filesystem::path where = folder.path("socket");
    const auto arguments = words("source " + counting("--listen unix:" + where.string()));
    writeText(where, "precious");
    const CommandResult refused = runVu(arguments);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("Address already in use"));
    EXPECT_EQ(readText(where), "precious");
    std::filesystem::remove(where);

    RunningVu killed(arguments); // while nobody has come: from then on the socket has no name
    for (int tries = 0; tries < 5000 && !exists(where); tries++)
        usleep(2000);
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.wait(), -SIGKILL);
    ASSERT_TRUE(exists(where));
    Source next(counting(), Socket::Unix, where);
    EXPECT_EQ(samplesOf<float>(cut(next.read())), count(2000));
    EXPECT_EQ(next.end(), 0);
    EXPECT_FALSE(exists(where));

    RunningVu alone(arguments); // ended before anybody comes
    while (!exists(where))
        usleep(1000);
    alone.signal(SIGTERM);
    EXPECT_EQ(alone.wait(), 0);
}

TEST(SourceFaults, AreWhatTheyAreToldToBe)
{
    const Stream clean = replay(counting());
    ASSERT_EQ(clean.records.size(), 200u);
    for (size_t i = 0; i < 200; ++i) // the time of the first sample, so that what was dropped leaves a gap
        ASSERT_EQ(numberAt<int64_t>(clean.records[i], 0), static_cast<int64_t>(i) * 400'000);

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
    EXPECT_EQ(replay(counting("--faults garble=4")).records, garbled.records);

    const Stream closed = replay(counting("--faults close=5"), 1, &said);
    EXPECT_THAT(said, HasSubstr("closed by --faults after 5 records"));
    EXPECT_EQ(closed.records.size(), 5u);
    EXPECT_EQ(closed.rest.size(), 26u); // half of the sixth
}

TEST(SourceUsage, MistakesAreToldInOneLineBeforeAnybodyListens)
{
    for (const Strings &parts : cases("vu/source_mistakes.txt")) {
        const std::string address =
            parts[0].find("--listen") < parts[0].size() ? "" : " --listen unix:/proc/none";
        const CommandResult result = runVu(words("source " + parts[0] + address));
        EXPECT_EQ(result.status, 2) << parts[0];
        EXPECT_THAT(result.err, HasSubstr(parts[1]));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

} // namespace
} // namespace vu::test
