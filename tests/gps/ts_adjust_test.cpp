// Times of sentences, moved from their arrival back to their pulse.
#include <fmt/format.h>
#include <random>

#include "tests/gps/receiver.h"
#include "tests/support/cases.h"
#include "tests/support/error_trap.h"
#include "tests/support/streams.h"

namespace vu::test {
namespace {

class TimestampAdjustment : public testing::Test {
protected:
    TimestampAdjustment() { gpsReinitNmeaTSAdjust(); }

    // One event of a script.
    static int64_t adjusted(const std::string &what, int64_t arrival)
    {
        const std::string text = std::isdigit(what[0]) ? "$GPRMC," + what + ",A,,,,,,,,,*00\r\n" : what;
        return gpsAdjustNmeaTimestamp(arrival, text.c_str());
    }
    ErrorTrap errors;
};

TEST_F(TimestampAdjustment, TiesSentencesToTheirPulseOrLeavesOrDropsThem)
{
    const auto ticks = [](const std::string &seconds) { return std::llround(std::stod(seconds) * kSecond); };
    for (const Strings &script : cases("gps/times.txt")) {
        gpsReinitNmeaTSAdjust();
        for (const std::string &step : split(script[0], ' ')) {
            const Strings parts = split(step, '@'), times = split(parts[1], '=');
            const int64_t answer = adjusted(parts[0], ticks(times[0]));
            const bool exact = times.size() == 1 || times[1] == "!";
            EXPECT_NEAR(answer, times.back() == "!" ? -1 : ticks(times.back()), !exact)
                << step << " of " << script[0];
        }
    }
}

// A host finds what was read of a record that was dropped in the channel's state.
TEST_F(TimestampAdjustment, ADroppedSentenceLeavesWhatWasReadOfIt)
{
    Receiver receiver;
    receiver.listen(json::object());
    const GpsTsMessage &message = static_cast<GpsTsAdjust *>(receiver.channel.channel_aux)->message;
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"$GPRMC,120000", "$GPRMC", ""},             // no second comma
        {"$GPZZZ,120000.5,A", "$GPZZZ", "120000.5"}, // not a known sentence
        {"$GPGSA,A,3", "$GPGSA", ""},                // its field is no time
        {"$GPRMC,120000.50000001,", "$GPRMC", "120000.50000001"},
        {"$GPRMC,120000.500000001,", "$GPRMC", ""}, // too long for a time
        {"$ABCDEFGHIJKLMN,1,", "$ABCDEFGHIJKLMN", "1"},
        {"$ABCDEFGHIJKLMNO,1,", "", ""},
        {"$GPRMC", "", ""},
    };
    for (const auto &[text, id, time] : rows) {
        receiver.feed(text, kSecond);
        EXPECT_STREQ(message.sentence_id, id) << text;
        EXPECT_STREQ(message.utc_field, time) << text;
        EXPECT_EQ(message.message_time, 1.0) << text;
    }
}

TEST_F(TimestampAdjustment, CountsOnForAHundredSeconds)
{
    adjusted("#pps", 11 * kSecond);
    for (int second = 0; second <= 101; second++) {
        const int64_t arrival = (11 + second) * kSecond + kSecond / 8;
        const std::string time = std::to_string(120000 + second / 60 * 100 + second % 60);
        EXPECT_EQ(adjusted(time, arrival), second <= 100 ? arrival - kSecond / 8 : arrival) << second;
    }
}

// A pulse goes through seconds and the time of day and back, and is rounded on the way as it always has been.
TEST_F(TimestampAdjustment, RoundsAsItAlwaysHas)
{
    std::mt19937_64 random(1);
    for (int i = 0; i < 20000; i++) {
        const auto pulse = static_cast<int64_t>(random() % (100'000 * kSecond));
        const double second = static_cast<double>(pulse) / kSecond, utc = 36000.0 + i % 60;
        const std::string time = std::to_string(100000 + i % 60);
        gpsReinitNmeaTSAdjust();
        adjusted("#pps", pulse);
        EXPECT_EQ(adjusted(time, pulse + kSecond / 10), int64_t(((utc + second) - utc) * kSecond));
        EXPECT_EQ(adjusted(time + ".25", pulse + kSecond * 3 / 10),
                  int64_t(((second + (utc + 0.25)) - utc) * kSecond));
    }
}

TEST_F(TimestampAdjustment, LooksNoFurtherThan4084Characters)
{
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, nullptr), -1);
    EXPECT_EQ(adjusted("$GPRMC," + std::string(4076, 'x') + ",", 5), 5);
    EXPECT_EQ(adjusted("$GPRMC," + std::string(4077, 'x') + ",", 5), -1);
}

// A receiver whose sentences are late by 50 to 240 ms, and a stream with a sample for every fix.
struct Drive {
    void second(int64_t number)
    {
        const int64_t pulse = number * kSecond + phase, day = (number + 84600) % 86400; // from half past 23
        receiver.feed("#pps\r", pulse);
        for (int fix = 0; fix < rate; fix++) {
            const auto latency = static_cast<int64_t>(kSecond / 20 + random() % (kSecond * 19 / 100));
            arrival = std::max(arrival + 1, pulse + fix * kSecond / rate + latency);
            receiver.feed(fmt::format("$GPGGA,{:02}{:02}{:02}.{},,,,,1,,,{}\r", day / 3600, day / 60 % 60,
                                      day % 60, fix * 10 / rate, number * rate + fix),
                          arrival);
        }
        receiver.feed("#hb", arrival); // only one of five characters moves the streams on
        for (const double sample : drain(pipe, next))
            misplaced += sample != static_cast<double>(checked++);
    }

    const int rate;      // fixes per second
    const int64_t phase; // of the pulses, ticks
    int64_t arrival = 0, misplaced = 0, checked = 0, next = 0;
    std::mt19937_64 random{2};
    Receiver receiver = {};
    Pipe *pipe = pipeAttachPipe(&receiver.listen({{"connector", "altitude"}, {"sample_rate", rate}})->pipes);
};

// Two channels at once, across midnight.
TEST_F(TimestampAdjustment, EveryFixOfADayLandsOnItsSample)
{
    Drive drives[] = {{10, 0}, {1, kSecond / 80}};
    for (int64_t second = 0; second < 86400; second++)
        for (Drive &drive : drives)
            drive.second(second);
    for (const Drive &drive : drives) {
        EXPECT_EQ(drive.misplaced, 0);
        EXPECT_GT(drive.checked, 86398 * drive.rate);
    }
}

} // namespace
} // namespace vu::test
