// CAN traffic: logs of both forms, the live interface, the simulation.
#include <bit>
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <zlib.h>

#include "tests/vu/source_process.h"
#include "vu/source/can_live.h"
#include "vu/source/candump_line.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char *kTimeOnly = "0 20 0000000000000000";
constexpr int64_t kTenMilliseconds = 400'000;

struct Raw {
    int64_t ticks;
    std::string frame; // identifier, flags and payload
    bool operator==(const Raw &) const = default;
};

std::vector<Raw> rawOf(const std::vector<Bytes> &records)
{
    std::vector<Raw> all;
    for (const Bytes &body : records) {
        EXPECT_TRUE(body.size() % 21 == 0 && !body.empty());
        for (size_t at = 0; at < body.size(); at += 21)
            all.push_back({numberAt<int64_t>(body, at),
                           fmt::format("{:X} {:02X} {:016X}", numberAt<uint32_t>(body, at + 8), body[at + 20],
                                       numberAt<uint64_t>(body, at + 12))});
    }
    return all;
}

// The messages, after a look at the time told in between: it never stands still for more than 10 ms.
std::vector<Raw> messagesOf(const std::vector<Raw> &all)
{
    std::vector<Raw> messages;
    int64_t told = 0;
    for (const Raw &raw : all) {
        EXPECT_LE(raw.ticks - told, kTenMilliseconds);
        told = std::max(told, raw.ticks);
        if (raw.frame != kTimeOnly)
            messages.push_back(raw);
        else
            EXPECT_EQ(raw.ticks, told);
    }
    EXPECT_TRUE(!all.empty() && all.back().frame == kTimeOnly);
    return messages;
}

// "ticks identifier flags payload", as the raw record has them.
std::string shown(const CandumpLine &line)
{
    WireWriter wire;
    wire.beginRecord();
    writeCan(wire, line.ticks.value_or(-1), line.frame);
    wire.endRecord();
    const Raw raw = rawOf(cut(wire).records).front();
    return fmt::format("{} {}", raw.ticks, raw.frame);
}

TEST(CandumpLine, OfEveryFormIsTakenOrToldApart)
{
    const std::pair<const char *, const char *> frames[] = {
        {"(1436509052.249713) vcan0 044#2A366C2BBA", "57460362089988520 44 05 2A366C2BBA000000"},
        {"  vcan0  044   [5]  2A 36 6C 2B BA", "-1 44 05 2A366C2BBA000000"},
        {" (0.000001)  can1  00000044   [1]  ff   '.'", "40 44 81 FF00000000000000"},
        {"(2024-02-29 23:59:59.500000)  can0  7FF   [0]", "68370047980000000 7FF 00 0000000000000000"},
        {"  can0  RX - -  1FFFFFFF   [2]  01 02", "-1 1FFFFFFF 82 0102000000000000"},
        {"(1.5) can0 123#R", "60000000 123 10 0000000000000000"},
        {"(1.5) can0 123#R8 T", "60000000 123 18 0000000000000000"},
        {"  can0  123   [3]  remote request", "-1 123 13 0000000000000000"},
        {"(1.00000009) can0 123#11.22", "40000003 123 02 1122000000000000"},
        {"(1) can0 123#1122334455667788_F", "40000000 123 08 1122334455667788"},
    };
    for (const auto &[line, expected] : frames) {
        EXPECT_EQ(parseCandumpLine(line).kind, CandumpLine::Kind::Frame) << line;
        EXPECT_EQ(shown(parseCandumpLine(line)), expected) << line;
    }
    const std::pair<CandumpLine::Kind, std::vector<const char *>> others[] = {
        {CandumpLine::Kind::Fd, {"(1.5) can0 123##0112233", "  can0  123  [08]  01 02 03 04 05 06 07 08"}},
        {CandumpLine::Kind::Error,
         {"(1.5) can0 20000080#0000000000000000", "  can0  20000004   [2]  00 04   ERRORFRAME"}},
        {CandumpLine::Kind::Blank, {"", " \t ", "# note"}},
        {CandumpLine::Kind::Bad,
         {"(1.5) can0 800#", "(1.5) can0 0123#", "(1.5) can0 123#1", "(1.5) can0 123#112233445566778899",
          "(1.5) can0 123#GG", "(1.5) can0 -12#", "(1.5) can0", "(-1.5) can0 123#", "(1.5 can0 123#",
          "(123456789012.0) can0 123#", "(x) can0 123#", "  can0  123   [3]  01 02", "  can0  123   [9]  01",
          "  can0  123   3  01 02 03", "can0"}},
    };
    for (const auto &[kind, lines] : others)
        for (const char *line : lines)
            EXPECT_EQ(parseCandumpLine(line).kind, kind) << line;
}

// Random traffic with silences, bursts and steps back, as a log and as what must come of it.
struct RandomLog {
    std::string text;
    std::vector<Raw> expected;

    explicit RandomLog(int frames)
    {
        uint64_t n = 0;
        const auto random = [&](uint64_t below) {
            return static_cast<uint64_t>(referenceUnit(42, n++) * static_cast<double>(below));
        };
        const uint64_t first = 1'600'000'000'000'000;
        uint64_t time = first; // in microseconds
        for (int i = 0; i < frames; ++i) {
            const bool extended = random(2) != 0;
            const auto id = static_cast<uint32_t>(random(extended ? 0x20000000 : 0x800));
            std::string payload;
            for (uint64_t bytes = random(9); bytes > 0; --bytes)
                payload += fmt::format("{:02X}", random(256));
            text += fmt::format("({}.{:06}) can0 {:0{}X}#{}{}\n", time / 1'000'000, time % 1'000'000, id,
                                extended ? 8 : 3, payload, i % 50 == 7 ? "\r\nrubbish" : "");
            expected.push_back({static_cast<int64_t>(time - first) * 40,
                                fmt::format("{:X} {:02X} {:0<16}", id,
                                            payload.size() / 2 + (extended ? 0x80 : 0), payload)});
            time += random(10) == 0 ? random(70'000) : random(700);
            if (random(100) == 0)
                time -= 300;
        }
    }
};

class CandumpLog : public ::testing::Test {
protected:
    std::vector<Raw> play(const std::filesystem::path &log, int status = 0)
    {
        const Stream stream = replay("candump --speed 0 " + log.string(), status, &said);
        EXPECT_TRUE(stream.rest.empty());
        return messagesOf(rawOf(stream.records));
    }
    TempDir folder;
    std::string said;
};

TEST_F(CandumpLog, BringsEveryFrameAtItsTimePlainOrCompressed)
{
    const RandomLog log(5000);
    writeText(folder.path("a.log"), log.text);
    EXPECT_EQ(play(folder.path("a.log")), log.expected);
    EXPECT_THAT(said, HasSubstr("lines that are no frame left out: 100"));
    EXPECT_THAT(said, HasSubstr("a.log:9: 'rubbish'"));

    const gzFile packed = gzopen(folder.path("a.gz").c_str(), "wb");
    gzwrite(packed, log.text.data(), static_cast<unsigned>(log.text.size()));
    gzclose(packed);
    EXPECT_EQ(play(folder.path("a.gz")), log.expected);

    Bytes bytes = readBytes(folder.path("a.gz"));
    bytes[bytes.size() * 3 / 4] ^= 0x40; // what can be unpacked before the damage is kept
    writeBytes(folder.path("bad.gz"), bytes);
    const std::vector<Raw> whole = play(folder.path("bad.gz"), 2);
    EXPECT_THAT(said, HasSubstr("bad.gz:"));
    EXPECT_GT(whole.size(), 1000u);
    EXPECT_TRUE(std::equal(whole.begin(), whole.begin() + 1000, log.expected.begin()));
}

TEST_F(CandumpLog, WithoutTimesHasItsFramesEvenlySpaced)
{
    writeText(folder.path("a.log"),
              "  can0  001   [1]  01\n  can0  002   [1]  02\n  can0  003  [12]  01\n  can0  004   [0]\n");
    const Stream stream =
        replay("candump --speed 0 --spacing 0.02 --tail 0.03 " + folder.path("a.log").string(), 0, &said);
    const std::vector<Raw> all = rawOf(stream.records);
    std::vector<int64_t> times;
    for (const Raw &raw : messagesOf(all))
        times.push_back(raw.ticks);
    EXPECT_THAT(times, ElementsAre(0, 800'000, 1'600'000));
    EXPECT_EQ(all.back().ticks, 2'800'000);
    EXPECT_THAT(said, HasSubstr("FD frames left out: 1"));
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
    CanFrame frame;
    frame.id = 0x18FEF100;
    frame.extended = true;
    frame.length = 3;
    frame.data = {1, 2, 3};
    std::vector<Raw> expected;
    script.arrivals.push_back({CanArrival::Kind::Frame, frame, start - 5, 0}); // before the reader came
    for (int64_t k = 0; k < 3000; ++k) {
        const int64_t at = start + 100 + k * 7919 + (k / 1000) * 3'000'000; // with two silences
        const auto kind = k % 100 == 50   ? CanArrival::Kind::Fd
                          : k % 100 == 51 ? CanArrival::Kind::Error
                                          : CanArrival::Kind::Frame;
        script.arrivals.push_back({kind, frame, at, static_cast<uint64_t>(k / 1000)});
        if (kind == CanArrival::Kind::Frame)
            expected.push_back({at - start, "18FEF100 83 0102030000000000"});
    }
    LiveCan can(std::move(port));
    can.start();
    WireWriter wire;
    int64_t wake = 0;
    for (bool more = true; more; script.now = std::max(script.now, start + wake)) {
        more = !script.arrivals.empty();
        ASSERT_TRUE(can.take(wire, wake));
    }
    EXPECT_EQ(messagesOf(rawOf(cut(wire).records)), expected);
    EXPECT_THAT(can.notes(), ElementsAre("FD frames left out: 30", "error frames left out: 30",
                                         "frames lost in the kernel, which had no room for them: 2"));
}

TEST(SimulatedCan, HasItsSignalsInEveryForm)
{
    const Stream stream =
        replay("sim --data-type message_can --can-ids 0x100,18FEF100 --rate 30 --signal noise "
               "--amplitude 400 --seed 3 --duration 2 --speed 0");
    std::vector<Raw> expected;
    for (size_t i = 0; i < 120; ++i) {
        const double value = 400 * (2 * referenceUnit(3, i / 2) - 1) + static_cast<double>(i % 2);
        const auto hundredths =
            static_cast<uint16_t>(std::lround(std::clamp(value * 100, -32768.0, 32767.0)));
        expected.push_back(
            {std::lround(static_cast<double>(i / 2) * 4e7 / 30),
             fmt::format("{} {:04X}{:04X}{:08X}", i % 2 ? "18FEF100 88" : "100 08",
                         __builtin_bswap16(hundredths), hundredths,
                         __builtin_bswap32(std::bit_cast<uint32_t>(static_cast<float>(value))))});
    }
    EXPECT_EQ(messagesOf(rawOf(stream.records)), expected);
}

} // namespace
} // namespace vu::test
