// Receivers: logs with and without times, the live line, the simulation.
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/split.h"
#include "tests/vu/source_process.h"
#include "vu/source/nmea_live.h"
#include "vu/source/nmea_log.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int64_t kSecond = 40'000'000;
constexpr int64_t kQuarter = kSecond / 4;

// Every record without its line end.
std::vector<Timed> eventsOf(const Stream &stream)
{
    std::vector<Timed> events;
    for (const Bytes &body : stream.records) {
        std::string text(body.begin() + 8, body.end());
        EXPECT_TRUE(!text.starts_with("#hb") || body.size() == 13);
        text.erase(text.find_last_not_of("\r\n") + 1);
        events.emplace_back(numberAt<int64_t>(body, 0), text);
    }
    return events;
}

// The sentences, after a look at what came between them: heartbeats a third of a second apart that never
// overtake a value, and, where `pulses`, one at each whole second ahead of what came after it.
std::vector<Timed> sentencesOf(const std::vector<Timed> &events, bool pulses)
{
    std::vector<Timed> sentences;
    int64_t pulse = 0, told = -kQuarter, latest = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        const auto &[ticks, text] = events[i];
        if (text == "#pps") {
            EXPECT_TRUE(pulses);
            EXPECT_EQ(ticks, pulse);
            pulse += kSecond;
        } else if (text == "#hb") {
            EXPECT_GT(ticks, told);
            EXPECT_LE(ticks - told,
                      i + 1 < events.size() ? kSecond / 3 + 1 : kSecond * 2); // the last: the end
            told = ticks;
        } else {
            EXPECT_GE(ticks, told + kQuarter);
            latest = std::max(latest, ticks);
            EXPECT_TRUE(!pulses || pulse > latest - kSecond);
            sentences.push_back(events[i]);
        }
    }
    EXPECT_TRUE(!events.empty() && events.back().second == "#hb");
    return sentences;
}

TEST(NmeaLine, IsASentenceWithAFittingChecksumOrNone)
{
    using Kind = NmeaLine::Kind;
    const std::string sound = "$GPZDA,000000.70,01,08,2014,,*6F";
    const std::tuple<Kind, int64_t, Strings> table[] = {
        {Kind::Sentence, -1, {sound, "  $GPZDA,000000.70,01,08,2014,,*6f \r", "$GPGSA,A,3"}},
        {Kind::Sentence, 1406851200 * kSecond + 32'560'000, {"2014-08-01T00:00:00.814000Z " + sound}},
        {Kind::Sentence, kSecond * 25 / 2, {"12.5 " + sound}},
        {Kind::Bad, -1, {"2014-13-01T00:00:00Z " + sound, "$GPZDA,000000.71,01,08,2014,,*6F", sound + "F"}},
        {Kind::Bad, -1, {"$GPGSA*", "$", "$GP\x01GSA", "GPGSA,A,3"}},
        {Kind::Blank, -1, {"", "   \r", "# Name: a receiver"}}};
    for (const auto &[kind, arrival, lines] : table)
        for (const std::string &line : lines) {
            const NmeaLine got = parseNmeaLine(line);
            EXPECT_EQ(got.kind, kind) << line;
            EXPECT_EQ(got.arrival.value_or(-1), arrival) << line;
            EXPECT_EQ(got.sentence.starts_with('$'), kind == Kind::Sentence) << line;
        }
}

TEST(FixTimes, FollowTheTimesOfDay)
{
    FixTimes fixes;
    std::vector<double> seconds;
    for (const std::string &sentence : words(
             "$GPGSA,A,1 $GPRMC,,V $GPGGA,, $GPRMC,,V $GPRMC,235957.5,A $GPGLL,1,2 $GNGGA,235957.50, "
             "$GPZDA,235958.000 $GPRMC,235959.9,A $GPRMC,000000,A $PRTLT,000000.25 $GPRMC,010000,A $GPRMC,,V "
             "$GPGGA,, $GPRMC,,V $GPRMC,010002.5,A $GPRMC,005000,A $GPGSV,1 $GPRMC,005001,A $GPRMC,256000,A"))
        seconds.push_back(static_cast<double>(fixes.of(sentence)) / kSecond);
    EXPECT_THAT(seconds, ElementsAre(0, 0, 0, 1, 2.5, 2.5, 2.5, 3, 4.9, 5, 5.25, 3605, 3606, 3606, 3607,
                                     3607.5, 3608, 3608, 3609, 3610));
}

class ReceiverLog : public ::testing::Test {
protected:
    std::vector<Timed> play(const std::string &text, const std::string &more = "--pps")
    {
        const TempDir folder;
        const std::string log = folder.path("a.nmea");
        writeText(log, text);
        return eventsOf(replay("nmea --speed 0 " + log + ' ' + more, 0, &said));
    }
    std::string said;
};

TEST_F(ReceiverLog, OfBareSentencesIsPacedByThem)
{
    const std::string log = "# a comment\n$GPRMC,120000.000,A\n$GPGGA,120000.000,1\n"
                            "$GPRMC,120000.500,A*00\n$GPRMC,120001.500,A\n";
    const auto events = play(log, "--pps --latency 0.2 --tail 0.4");
    EXPECT_THAT(sentencesOf(events, true), ElementsAre(Timed(kSecond / 5, "$GPRMC,120000.000,A"),
                                                       Timed(kSecond / 5, "$GPGGA,120000.000,1"),
                                                       Timed(kSecond * 17 / 10, "$GPRMC,120001.500,A")));
    EXPECT_EQ(events.back(), (Timed(kSecond * 21 / 10, "#hb")));
    EXPECT_EQ(events.front(), (Timed(0, "#pps")));
    EXPECT_THAT(said, HasSubstr("a.nmea:4: '$GPRMC,120000.500,A*00'"));
    sentencesOf(play(log, ""), false);
}

TEST_F(ReceiverLog, OfTimedSentencesIsPacedByTheirArrival)
{
    EXPECT_THAT(sentencesOf(play("2014-08-01T00:00:59.75Z $GPGSA,A\n2014-08-01T00:01:01.5Z $GPGSA,B\n"
                                 "2014-08-01T00:01:01.45Z $GPGSA,C\n$GPGSA,D\n"),
                            true),
                ElementsAre(Timed(kSecond * 3 / 4, "$GPGSA,A"), Timed(kSecond * 5 / 2, "$GPGSA,B"),
                            Timed(kSecond * 49 / 20, "$GPGSA,C"), Timed(kSecond * 5 / 2, "$GPGSA,D")));
}

// The wires of a receiver, played by a script.
class ScriptedReceiver : public ReceiverPort {
public:
    std::deque<Timed> pieces; // characters as they come
    std::deque<int64_t> pulses;
    int64_t now = 7'000'000'000;
    int descriptor() const override { return -1; }
    bool hasPulses() const override { return true; }
    int64_t nowTicks() override { return now; }
    std::optional<size_t> read(std::span<char> to) override
    {
        if (pieces.empty())
            return std::nullopt;
        if (pieces.front().first > now)
            return 0;
        const std::string text = pieces.front().second;
        pieces.pop_front();
        return text.copy(to.data(), to.size());
    }
    std::optional<int64_t> pulseTicks() override
    {
        std::optional<int64_t> latest;
        for (; !pulses.empty() && pulses.front() <= now; pulses.pop_front())
            latest = pulses.front();
        return latest;
    }
};

TEST(LiveReceiver, StampsSentencesByTheirBeginningAndPulsesByTheirOwn)
{
    auto port = std::make_unique<ScriptedReceiver>();
    ScriptedReceiver &script = *port;
    const int64_t start = script.now;
    const auto at = [&](double seconds) { return start + static_cast<int64_t>(seconds * kSecond); };
    script.pulses = {at(-0.5), at(0.5), at(1.5)};
    script.pieces = {{at(0), "half a sentence*00\r"},
                     {at(0.6), "\n$GPGSA"},
                     {at(0.7), ",A\r\n$GPGSV,1\r\nnoise\r\n"},
                     {at(1.6), "$GPGSA,B"},
                     {at(1.7), "\r\n$GPGSA"}};
    LiveReceiver receiver(std::move(port), "/dev/receiver");
    receiver.start();
    WireWriter wire;
    int64_t wake = 0;
    while (receiver.take(wire, wake))
        script.now = std::max(script.now + 1, start + wake);
    std::vector<std::string> got;
    for (const auto &[ticks, text] : eventsOf(cut(wire))) {
        got.push_back(
            fmt::format("{:.2f} {}", std::floor(static_cast<double>(ticks) / kSecond * 20) / 20, text));
        EXPECT_TRUE(text != "#pps" || ticks % kSecond == kSecond / 2); // to the tick
    }
    EXPECT_THAT(got, ElementsAre("0.05 #hb", "0.50 #pps", "0.35 #hb", "0.60 $GPGSA,A", "0.70 $GPGSV,1",
                                 "0.75 #hb", "1.05 #hb", "1.50 #pps", "1.35 #hb", "1.60 $GPGSA,B"));
    EXPECT_THAT(receiver.notes(), ElementsAre(HasSubstr("left out: 1"), HasSubstr("/dev/receiver: 'noise'")));
}

TEST(SimulatedReceiver, PassesMidnightAndLosesThePulsesItIsToldTo)
{
    const Stream stream = replay(
        "sim --data-type message_raw --connector gps --receiver tracker --rate 10 --utc 2024-02-28T23:59:58 "
        "--latency 0.05 --jitter 0.04 --lost-pulses 1:3 --signal ramp --frequency 0.25 --duration 4 --speed "
        "0");
    std::vector<int64_t> pulses;
    int fixes = 0;
    for (const auto &[ticks, text] : eventsOf(stream)) {
        if (text == "#pps")
            pulses.push_back(ticks / kSecond);
        EXPECT_EQ(parseNmeaLine(text).kind == NmeaLine::Kind::Sentence, text[0] == '$') << text;
        if (!text.starts_with("$GPRMC"))
            continue;
        const int second = (58 + fixes / 10) % 60;
        EXPECT_THAT(text, HasSubstr(fmt::format("{}{:02}.{}00,A,48", fixes < 20 ? "2359" : "0000", second,
                                                fixes % 10)));
        EXPECT_THAT(text, HasSubstr(fixes < 20 ? ",280224," : ",290224,"));
        EXPECT_THAT(text, HasSubstr(fmt::format(",E,{:.3f},", 0.25 * fixes / 10)));
        const double latency = static_cast<double>(ticks) / kSecond - fixes / 10.0;
        EXPECT_TRUE(latency >= 0.0099 && latency <= 0.0901) << latency;
        ++fixes;
    }
    EXPECT_THAT(pulses, ElementsAre(0, 3));
    EXPECT_EQ(fixes, 40);
}

} // namespace
} // namespace vu::test
