// Receivers: logs with and without times, the live line, the simulation.
#include <deque>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <map>

#include "tests/vu/source_process.h"
#include "vu/source/nmea_live.h"
#include "vu/source/nmea_log.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int64_t kSecond = 40'000'000;
constexpr int64_t kQuarter = kSecond / 4;

struct Event {
    int64_t ticks;
    std::string text; // without its line end
    bool operator==(const Event &) const = default;
};
void PrintTo(const Event &event, std::ostream *out)
{
    *out << static_cast<double>(event.ticks) / kSecond << ' ' << event.text;
}

std::vector<Event> eventsOf(const std::vector<Bytes> &records)
{
    std::vector<Event> events;
    for (const Bytes &body : records) {
        std::string text(body.begin() + 8, body.end());
        if (text.starts_with("#hb")) {
            EXPECT_EQ(body.size(), 13u);
        }
        text.erase(text.find_last_not_of("\r\n") + 1);
        events.push_back({numberAt<int64_t>(body, 0), text});
    }
    return events;
}

// The sentences, after a look at what came between them: heartbeats a third of a second apart that never
// overtake a value, and, where `pulses`, one at each whole second ahead of what came after it.
std::vector<Event> sentencesOf(const std::vector<Event> &events, bool pulses)
{
    std::vector<Event> sentences;
    int64_t pulse = 0, told = -kQuarter, latest = 0;
    for (size_t i = 0; i < events.size(); ++i) {
        const auto &[ticks, text] = events[i];
        if (text == "#pps") {
            EXPECT_TRUE(pulses);
            EXPECT_EQ(ticks, pulse);
            pulse += kSecond;
        } else if (text == "#hb") {
            EXPECT_GT(ticks, told);
            EXPECT_LE(ticks - told, kSecond / 3 + kSecond + 1) << "only the last may be later than a third";
            if (i + 1 < events.size()) {
                EXPECT_LE(ticks - told, kSecond / 3 + 1);
            }
            told = ticks;
        } else {
            EXPECT_GE(ticks, told + kQuarter);
            latest = std::max(latest, ticks);
            if (pulses) {
                EXPECT_GT(pulse, latest - kSecond);
            }
            sentences.push_back(events[i]);
        }
    }
    EXPECT_TRUE(!events.empty() && events.back().text == "#hb");
    return sentences;
}

TEST(NmeaLine, IsASentenceWithAFittingChecksumOrNone)
{
    using enum NmeaLine::Kind;
    const std::tuple<const char *, NmeaLine::Kind, int64_t> table[] = {
        {"$GPGSA,A,3*31", Bad, -1},
        {"$GPZDA,000000.70,01,08,2014,,*6F", Sentence, -1},
        {"  $GPZDA,000000.70,01,08,2014,,*6f \r", Sentence, -1},
        {"$GPGSA,A,3", Sentence, -1},
        {"2014-08-01T00:00:00.814000Z $GPZDA,000000.70,01,08,2014,,*6F", Sentence,
         1406851200 * kSecond + 32'560'000},
        {"12.5 $GPZDA,000000.70,01,08,2014,,*6F", Sentence, kSecond * 25 / 2},
        {"2014-13-01T00:00:00Z $GPGSA", Bad, -1},
        {"$GPZDA,000000.71,01,08,2014,,*6F", Bad, -1},
        {"$GPZDA,000000.70,01,08,2014,,*6", Bad, -1},
        {"$GPZDA,000000.70,01,08,2014,,*6FF", Bad, -1},
        {"$", Bad, -1},
        {"$GP\x01GSA", Bad, -1},
        {"GPGSA,A,3", Bad, -1},
        {"", Blank, -1},
        {"   \r", Blank, -1},
        {"# Name: a receiver", Blank, -1},
    };
    for (const auto &[line, kind, arrival] : table) {
        const NmeaLine got = parseNmeaLine(line);
        EXPECT_EQ(got.kind, kind) << line;
        EXPECT_EQ(got.arrival.value_or(-1), arrival) << line;
        EXPECT_EQ(got.sentence.starts_with('$'), kind == Sentence) << line;
    }
}

TEST(FixTimes, FollowTheTimesOfDay)
{
    FixTimes fixes;
    const std::pair<const char *, double> table[] = {
        {"$GPGSA,A,1", 0},
        {"$GPRMC,,V", 0},
        {"$GPGGA,,", 0},
        {"$GPRMC,,V", 1},
        {"$GPRMC,235957.5,A", 2.5},
        {"$GPGLL,1,2", 2.5},
        {"$GNGGA,235957.50,", 2.5},
        {"$GPZDA,235958.000", 3},
        {"$GPRMC,235959.9,A", 4.9},
        {"$GPRMC,000000,A", 5},
        {"$PRTLT,000000.25", 5.25},
        {"$GPRMC,010000,A", 3605},
        {"$GPRMC,,V", 3606},
        {"$GPGGA,,", 3606},
        {"$GPRMC,,V", 3607},
        {"$GPRMC,010002.5,A", 3607.5},
        {"$GPRMC,005000,A", 3608},
        {"$GPGSV,1", 3608},
        {"$GPRMC,005001,A", 3609},
        {"$GPRMC,256000,A", 3610},
    };
    int row = 0;
    for (const auto &[sentence, seconds] : table)
        EXPECT_EQ(static_cast<double>(fixes.of(sentence)) / kSecond, seconds) << ++row << ' ' << sentence;
}

class ReceiverLog : public ::testing::Test {
protected:
    std::vector<Event> play(const std::string &text, std::vector<std::string> words = {})
    {
        const TempDir folder;
        writeText(folder.path("a.nmea"), text);
        words.insert(words.begin(), {"nmea", folder.path("a.nmea"), "--speed", "0"});
        return eventsOf(replay(words, 0, &said).records);
    }
    std::string said;
};

TEST_F(ReceiverLog, OfBareSentencesIsPacedByThem)
{
    const std::string log =
        "# a "
        "comment\n$GPRMC,120000.000,A\n$GPGGA,120000.000,1\n$GPRMC,120000.500,A*00\n$GPRMC,120001.500,A\n";
    const auto events = play(log, {"--pps", "--latency", "0.2", "--tail", "0.4"});
    EXPECT_THAT(sentencesOf(events, true), ElementsAre(Event{kSecond / 5, "$GPRMC,120000.000,A"},
                                                       Event{kSecond / 5, "$GPGGA,120000.000,1"},
                                                       Event{kSecond * 17 / 10, "$GPRMC,120001.500,A"}));
    EXPECT_EQ(events.back(), (Event{kSecond * 21 / 10, "#hb"}));
    EXPECT_EQ(events.front(), (Event{0, "#pps"}));
    EXPECT_THAT(said, HasSubstr("a.nmea:4: '$GPRMC,120000.500,A*00'"));
    sentencesOf(play(log), false);
}

TEST_F(ReceiverLog, OfTimedSentencesIsPacedByTheirArrival)
{
    const auto sentences =
        sentencesOf(play("2014-08-01T00:00:59.75Z $GPGSA,A\n2014-08-01T00:01:01.5Z $GPGSA,B\n"
                         "2014-08-01T00:01:01.45Z $GPGSA,C\n$GPGSA,D\n",
                         {"--pps"}),
                    true);
    EXPECT_THAT(sentences,
                ElementsAre(Event{kSecond * 3 / 4, "$GPGSA,A"}, Event{kSecond * 5 / 2, "$GPGSA,B"},
                            Event{kSecond * 49 / 20, "$GPGSA,C"}, Event{kSecond * 5 / 2, "$GPGSA,D"}));
}

TEST_F(ReceiverLog, OfARealReceiverIsWhole)
{
    SKIP_WITHOUT_RECORDINGS();
    std::map<std::string, int> lost = {{"foretrex-201.log", 0}, {"garmin48.log", 1}}; // a wrong checksum
    for (const auto &entry : std::filesystem::directory_iterator(recordings() / "nmea_gpsd")) {
        if (entry.path().extension() != ".log")
            continue;
        const std::string text = readText(entry.path());
        const auto sentences = sentencesOf(play(text, {"--pps"}), true);
        const auto expected = std::count(text.begin(), text.end(), '$') - lost[entry.path().filename()];
        EXPECT_EQ(static_cast<long>(sentences.size()), expected) << entry.path();
        for (const Event &sentence : sentences)
            EXPECT_THAT(text, HasSubstr(sentence.text));
    }
    const auto timed =
        sentencesOf(play(readText(recordings() / "nmea_timed/NBP1406_seap-2014-08-01.txt"), {"--pps"}), true);
    ASSERT_EQ(timed.size(), 5000u);
    EXPECT_EQ(timed.front(), (Event{32'560'000, "$GPZDA,000000.70,01,08,2014,,*6F"}));
    for (const Event &sentence : timed) // the log's own clock: a fix is 110 to 123 ms old when it arrives
        if (sentence.text.starts_with("$GPGGA")) {
            const std::string &text = sentence.text;
            const double fix = std::stod(text.substr(7, 2)) * 3600 + std::stod(text.substr(9, 2)) * 60 +
                               std::stod(text.substr(11));
            EXPECT_NEAR(static_cast<double>(sentence.ticks) / kSecond - fix, 0.117, 0.008);
        }
}

// The wires of a receiver, played by a script.
class ScriptedReceiver : public ReceiverPort {
public:
    std::deque<Event> pieces; // characters as they come
    std::deque<int64_t> pulses;
    int64_t now = 7'000'000'000;
    bool wired = true;
    int descriptor() const override { return -1; }
    bool hasPulses() const override { return wired; }
    int64_t nowTicks() override { return now; }
    std::optional<size_t> read(std::span<char> to) override
    {
        if (pieces.empty())
            return std::nullopt;
        if (pieces.front().ticks > now)
            return 0;
        const std::string text = pieces.front().text;
        pieces.pop_front();
        return text.copy(to.data(), to.size());
    }
    std::optional<int64_t> pulseTicks() override
    {
        std::optional<int64_t> latest;
        while (!pulses.empty() && pulses.front() <= now) {
            latest = pulses.front();
            pulses.pop_front();
        }
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
    Bytes all = {0xFE, 0xED};
    all.insert(all.end(), wire.bytes().begin(), wire.bytes().end());
    std::vector<Event> others;
    std::vector<int64_t> heartbeats;
    for (const Event &event : eventsOf(cut(all).records))
        if (event.text == "#hb")
            heartbeats.push_back(event.ticks);
        else
            others.push_back(event);
    ASSERT_EQ(others.size(), 5u);
    const std::pair<double, const char *> expected[] = {
        {0.5, "#pps"}, {0.6, "$GPGSA,A"}, {0.7, "$GPGSV,1"}, {1.5, "#pps"}, {1.6, "$GPGSA,B"}};
    for (size_t i = 0; i < others.size(); ++i) {
        EXPECT_EQ(others[i].text, expected[i].second);
        const double late = static_cast<double>(others[i].ticks) / kSecond - expected[i].first;
        EXPECT_TRUE(late >= 0 && late <= (others[i].text == "#pps" ? 0 : 0.02)) << others[i].text << late;
    }
    EXPECT_THAT(heartbeats,
                ElementsAre(kSecond / 3 - kQuarter, kSecond * 2 / 3 - kQuarter, kSecond - kQuarter,
                            kSecond * 4 / 3 - kQuarter, kSecond * 5 / 3 - kQuarter));
    EXPECT_THAT(receiver.notes(), ElementsAre(HasSubstr("left out: 1"), HasSubstr("/dev/receiver: 'noise'")));
}

TEST(SimulatedReceiver, PassesMidnightAndLosesThePulsesItIsToldTo)
{
    const Stream stream = replay({"sim",
                                  "--data-type",
                                  "message_raw",
                                  "--connector",
                                  "gps",
                                  "--rate",
                                  "10",
                                  "--utc",
                                  "2024-02-28T23:59:58",
                                  "--latency",
                                  "0.05",
                                  "--jitter",
                                  "0.04",
                                  "--lost-pulses",
                                  "1:3",
                                  "--signal",
                                  "ramp",
                                  "--frequency",
                                  "0.25",
                                  "--duration",
                                  "4",
                                  "--speed",
                                  "0",
                                  "--receiver",
                                  "tracker"});
    std::vector<int64_t> pulses;
    int fixes = 0;
    for (const auto &[ticks, text] : eventsOf(stream.records)) {
        if (text == "#pps")
            pulses.push_back(ticks / kSecond);
        if (text.starts_with('$')) {
            EXPECT_EQ(parseNmeaLine(text).kind, NmeaLine::Kind::Sentence) << text;
        }
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
