// Receivers: logs with and without times, the live line, the simulation.
#include <cmath>
#include <deque>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/support/cases.h"
#include "tests/vu/source_process.h"
#include "vu/source/gps/nmea_live.h"
#include "vu/source/gps/nmea_log.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int64_t kSecond = 40'000'000;

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

TEST(NmeaLine, IsASentenceWithAFittingChecksumOrNone)
{
    const char *const kinds[] = {"sentence", "blank", "comment", "checksum", "bad"};
    for (const Strings &parts : cases("vu/nmea_lines.txt")) {
        const std::string line = nlohmann::json::parse(parts[0]);
        const NmeaLine got = parseNmeaLine(line);
        const std::string arrival = got.arrival ? fmt::format(" {}", *got.arrival) : "";
        EXPECT_EQ(kinds[static_cast<size_t>(got.kind)] + arrival, parts[1]) << line;
        EXPECT_EQ(got.sentence.starts_with('$'), got.kind == NmeaLine::Kind::Sentence) << line;
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

TEST(ReceiverSource, BringsWhatTheFileSays)
{
    const TempDir folder;
    const std::string log = folder.path("a.nmea");
    for (const Strings &parts : cases("vu/receiver_events.txt")) {
        writeText(log, parts[1]);
        std::string line = parts[0] + " --speed 0", said, got;
        if (const size_t at = line.find('@'); at < line.size())
            line.replace(at, 1, log);
        for (const auto &[ticks, text] : eventsOf(replay(line, 0, &said)))
            got +=
                fmt::format("{}{} {}", got.empty() ? "" : "\n", static_cast<double>(ticks) / kSecond, text);
        EXPECT_EQ(got, parts[2]) << parts[0];
        EXPECT_EQ(said.find("a.nmea:4: '$GPRMC,120000.500,A*00'") < said.size(),
                  parts[1].find('*') < parts[1].size())
            << said;
    }
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
                     {at(0.7), ",A\r\n$GNGSV,1*56\r\nnoise\r\n$GPGSV,1*00\r\n"},
                     {at(1.6), "$GPGSA,B"},
                     {at(1.7), "\r\n$GPGSA"}};
    LiveReceiver receiver(std::move(port), "/dev/receiver", Talkers("GN"));
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
    EXPECT_THAT(got, ElementsAre("0.05 #hb", "0.50 #pps", "0.35 #hb", "0.60 $GPGSA,A", "0.70 $GPGSV,1*48",
                                 "0.75 #hb", "1.05 #hb", "1.50 #pps", "1.35 #hb", "1.60 $GPGSA,B"));
    EXPECT_THAT(receiver.account().lines(),
                ElementsAre(HasSubstr("/dev/receiver: sentences of the talker GN are taken as those of GP"),
                            HasSubstr("checksum is wrong left out: 1"), HasSubstr("$GPGSV,1*00"),
                            HasSubstr("left out: 1"), HasSubstr("/dev/receiver: 'noise'")));
}

} // namespace
} // namespace vu::test
