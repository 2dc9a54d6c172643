// CAN traffic: logs of both forms, the live interface, the simulation.
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <zlib.h>

#include "tests/support/cases.h"
#include "tests/vu/source_process.h"
#include "vu/source/can/can_live.h"
#include "vu/source/can/candump_line.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int64_t kTenMilliseconds = 400'000;

// Every record with its identifier, flags and payload.
std::vector<Timed> rawOf(const Stream &stream)
{
    std::vector<Timed> all;
    for (const Bytes &body : stream.records) {
        EXPECT_TRUE(body.size() % 21 == 0 && !body.empty());
        for (size_t at = 0; at < body.size(); at += 21)
            all.emplace_back(numberAt<int64_t>(body, at),
                             fmt::format("{:X} {:02X} {:016X}", numberAt<uint32_t>(body, at + 8),
                                         body[at + 20], numberAt<uint64_t>(body, at + 12)));
    }
    return all;
}

// The messages, after a look at the times sent in between: they never pause for more than 10 ms.
std::vector<Timed> messagesOf(const Stream &stream, int64_t end = -1)
{
    constexpr const char *kTimeOnly = "0 20 0000000000000000";
    std::vector<Timed> messages;
    Timed last;
    int64_t told = 0;
    for (const auto &[ticks, frame] : rawOf(stream)) {
        EXPECT_LE(ticks - told, kTenMilliseconds);
        told = std::max(told, ticks);
        last = {ticks, frame};
        if (frame != kTimeOnly)
            messages.push_back(last);
        else
            EXPECT_EQ(ticks, told);
    }
    EXPECT_TRUE(last.second == kTimeOnly && (end < 0 || last.first == end)) << last.first;
    return messages;
}

std::string shown(const CandumpLine &line)
{
    static constexpr const char *kOthers[] = {"", "blank", "comment", "FD", "too long", "error", "bad"};
    if (line.kind != CandumpLine::Kind::Frame)
        return kOthers[static_cast<size_t>(line.kind)];
    WireWriter wire;
    wire.beginRecord();
    writeCan(wire, line.ticks.value_or(-1), line.frame);
    wire.endRecord();
    const auto [ticks, frame] = rawOf(cut(wire)).front();
    return fmt::format("{} {}", ticks, frame);
}

TEST(CandumpLine, OfEveryFormIsTakenOrToldApart)
{
    for (const Strings &parts : cases("vu/candump_lines.txt"))
        EXPECT_EQ(shown(parseCandumpLine(parts[0])), parts[1]) << parts[0];
}

class CandumpLog : public ::testing::Test {
protected:
    std::vector<Timed> play(const std::string &log, int status = 0, int64_t end = -1)
    {
        return messagesOf(replay("candump --speed 0 " + folder.path().string() + '/' + log, status, &said),
                          end);
    }
    TempDir folder;
    std::string said;
};

TEST_F(CandumpLog, BringsEveryFrameAtItsTimePlainOrCompressed)
{
    std::string text;
    std::vector<Timed> expected;
    for (int64_t i = 0, time = 0; i < 5000; ++i) { // in microseconds, with silences and steps back
        const auto id = static_cast<uint32_t>(referenceUnit(42, static_cast<uint64_t>(i)) * 0x800);
        text += fmt::format("({}.{:06}) can0 {:03X}#{:02X}\n{}", 1'600'000'000 + time / 1'000'000,
                            time % 1'000'000, id, i % 256, i % 50 == 7 ? "rubbish\r\n" : "");
        expected.emplace_back(time * 40, fmt::format("{:X} 01 {:02X}00000000000000", id, i % 256));
        time += i % 100 == 50 ? -300 : i % 10 == 9 ? 70'000 : 700;
    }
    writeText(folder.path("a.log"), text);
    EXPECT_EQ(play("a.log"), expected);
    EXPECT_THAT(said, HasSubstr("lines that cannot be read left out: 100"));
    EXPECT_THAT(said, HasSubstr("a.log:9: 'rubbish'"));

    const gzFile packed = gzopen(folder.path("a.gz").c_str(), "wb");
    gzwrite(packed, text.data(), static_cast<unsigned>(text.size()));
    gzclose(packed);
    EXPECT_EQ(play("a.gz"), expected);

    std::string bytes = readText(folder.path("a.gz"));
    bytes[bytes.size() * 3 / 4] ^= 0x40; // what can be unpacked before the damage is kept
    writeText(folder.path("bad.gz"), bytes);
    const std::vector<Timed> whole = play("bad.gz", 2);
    EXPECT_THAT(said, HasSubstr("bad.gz:"));
    EXPECT_GT(whole.size(), 1000u);
    EXPECT_TRUE(std::equal(whole.begin(), whole.begin() + 1000, expected.begin()));

    bytes = readText(folder.path("a.gz")); // a file that is cut comes to an end like any other
    writeText(folder.path("cut.gz"), bytes.substr(0, bytes.size() * 3 / 4));
    EXPECT_GT(play("cut.gz", 2).size(), 1000u);
    EXPECT_THAT(said, HasSubstr("ends in the middle of its compressed data"));
    EXPECT_THAT(said, HasSubstr("pieces that are cut off left out: 1"));
}

// A log that is no single channel is refused before anybody listens, and at a trial too.
TEST_F(CandumpLog, OfSeveralBusesOrWithoutATimeAxisIsRefused)
{
    for (const Strings &parts : cases("vu/candump_logs.txt")) {
        writeText(folder.path("a.log"), parts[1]);
        const std::string line = "source candump --try --listen unix:any " + folder.path("a.log").string();
        const CommandResult tried = runVu(words(line + ' ' + parts[0]));
        EXPECT_EQ(tried.status, parts[2].empty() ? 0 : 2) << tried.err;
        EXPECT_THAT(tried.err, HasSubstr(parts[2]));
    }
    std::string late; // the other bus comes after the part that is looked at beforehand
    for (int i = 0; i < 200'010; i++)
        late += fmt::format("({}.{:03}) can{} 123#\n", i / 1000, i % 1000, i > 200'005 ? 1 : 0);
    writeText(folder.path("late.log"), late);
    EXPECT_EQ(play("late.log", 2).size(), 200'006u);
    EXPECT_THAT(said, HasSubstr("late.log:200007: frames of the bus can1 follow those of can0"));
}

TEST_F(CandumpLog, WithoutTimesHasItsFramesEvenlySpaced)
{
    writeText(folder.path("a.log"),
              "  can0  001   [1]  01\n  can0  002   [1]  02\n  can0  003  [12]  01\n  can0  004   [0]\n");
    EXPECT_THAT(play("a.log --spacing 0.02 --tail 0.03", 0, 2'800'000),
                ElementsAre(Timed(0, "1 01 0100000000000000"), Timed(800'000, "2 01 0200000000000000"),
                            Timed(1'600'000, "4 00 0000000000000000")));
    EXPECT_THAT(said, HasSubstr("FD frames with more than 8 bytes left out: 1"));
}

// The kernel, played by a script: what arrives at which moment.
class ScriptedCan : public CanPort {
public:
    std::deque<CanArrival> arrivals;
    int64_t now = 1'000'000'000;
    int descriptor() const override { return -1; }
    int64_t nowTicks() override { return now; }
    std::optional<CanArrival> receive() override
    {
        if (arrivals.empty() || arrivals.front().ticks > now)
            return std::nullopt;
        const CanArrival next = arrivals.front();
        arrivals.pop_front();
        return next;
    }
};

TEST(LiveCan, BringsFramesWithKernelTimesAndTellsTimeBetween)
{
    auto port = std::make_unique<ScriptedCan>();
    ScriptedCan &script = *port;
    const int64_t start = script.now;
    const CanFrame frame = parseCandumpLine("(0) can0 18FEF100#010203").frame;
    std::vector<Timed> expected;
    script.arrivals.push_back({CanArrival::Kind::Frame, frame, start - 5, 0}); // before the reader came
    for (int64_t k = 0; k < 3000; ++k) {
        const int64_t at = 100 + k * 7919 + (k / 1000) * 3'000'000; // with two silences
        const auto kind = k % 100 == 50   ? CanArrival::Kind::Fd
                          : k % 100 == 51 ? CanArrival::Kind::Error
                                          : CanArrival::Kind::Frame;
        script.arrivals.push_back({kind, frame, start + at, static_cast<uint64_t>(k / 1000)});
        if (kind == CanArrival::Kind::Frame)
            expected.emplace_back(at, "18FEF100 83 0102030000000000");
    }
    LiveCan can(std::move(port));
    can.start();
    WireWriter wire;
    int64_t wake = 0;
    for (bool more = true; more; script.now = std::max(script.now, start + wake)) {
        more = !script.arrivals.empty();
        ASSERT_TRUE(can.take(wire, wake));
    }
    EXPECT_EQ(messagesOf(cut(wire)), expected);
    const std::map<std::string, uint64_t> leftOut = {
        {"can_fd", 30}, {"error_frames", 30}, {"lost_in_kernel", 2}};
    EXPECT_EQ(can.account().leftOut(), leftOut);
    EXPECT_EQ(can.account().readSoFar(), 3002u);
    EXPECT_EQ(can.account().wroteSoFar(), 2940u);
}

} // namespace
} // namespace vu::test
