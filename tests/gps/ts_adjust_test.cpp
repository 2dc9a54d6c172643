// Times of sentences, moved from their arrival back to their pulse.
#include <random>

#include "tests/gps/receiver.h"
#include "tests/support/temp_dir.h"

namespace vu::test {
namespace {

int64_t ticks(const std::string &seconds)
{
    return std::llround(std::stod(seconds) * kSecond);
}

// One event of a script.
int64_t adjusted(const std::string &what, int64_t arrival)
{
    const std::string text = what == "gsa"           ? "$GPGSA,A,3,1.0,1.0,1.0*00\r\n"
                             : what == "pulse"       ? "#pps"
                             : what == "hb"          ? "#hb"
                             : std::isdigit(what[0]) ? "$GPRMC," + what + ",A,,,,,,,,,*00\r\n"
                                                     : what;
    return gpsAdjustNmeaTimestamp(arrival, text.c_str());
}

class TimestampAdjustment : public Gps {
protected:
    TimestampAdjustment() { gpsReinitNmeaTSAdjust(); }
};

TEST_F(TimestampAdjustment, Scripts)
{
    for (const std::string &script : split(readText(VU_SOURCE_DIR "/tests/gps/times.txt"), '\n')) {
        if (script[0] == '/')
            continue;
        gpsReinitNmeaTSAdjust();
        for (const std::string &step : split(script, ' ')) {
            const Strings parts = split(step, '@'), times = split(parts[1], '=');
            const int64_t answer = adjusted(parts[0], ticks(times[0]));
            if (times.size() == 1 || times[1] == "!")
                EXPECT_EQ(answer, times.size() == 1 ? ticks(times[0]) : -1) << step << " of " << script;
            else
                EXPECT_NEAR(answer, ticks(times[1]), 1) << step << " of " << script;
        }
    }
}

TEST_F(TimestampAdjustment, CountsOnForAHundredSeconds)
{
    adjusted("pulse", 11 * kSecond);
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
        const double second = static_cast<double>(pulse) / kSecond,
                     utc = 36000.0 + static_cast<double>(i % 60);
        const std::string time = "$GPRMC," + std::to_string(100000 + i % 60);
        gpsReinitNmeaTSAdjust();
        gpsAdjustNmeaTimestamp(pulse, "#pps");
        EXPECT_EQ(gpsAdjustNmeaTimestamp(pulse + kSecond / 10, (time + ",").c_str()),
                  static_cast<int64_t>(((utc + second) - utc) * 40000000.0));
        EXPECT_EQ(gpsAdjustNmeaTimestamp(pulse + kSecond * 3 / 10, (time + ".25,").c_str()),
                  static_cast<int64_t>(((second + (utc + 0.25)) - utc) * 40000000.0));
    }
}

TEST_F(TimestampAdjustment, HostsOwnState)
{
    const std::string head = "$GPRMC,";
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, nullptr), -1);
    EXPECT_EQ(gpsAdjustNmeaTimestamp(-1, "#pps"), -1);
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, (head + std::string(4076, 'x') + ",").c_str()), 5);
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, (head + std::string(4077, 'x') + ",").c_str()), -1); // out of sight
    EXPECT_EQ(gpsAdjustNmeaTimestamp(INT64_MAX, "$GPGLL,,"), INT64_MAX);
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, "$GPGLL,,"), -1); // would run backwards
    gpsReinitNmeaTSAdjust();
    EXPECT_EQ(gpsAdjustNmeaTimestamp(5, "$GPGLL,,"), 5);
    memory.failAt(0);
    EXPECT_EQ(gpsInitializeTsAdjust(), nullptr);
}

// A receiver whose sentences are late by 50 to 240 ms, and a stream with a sample for every fix.
struct Drive {
    Drive(int fixesPerSecond, int64_t phaseTicks) : rate(fixesPerSecond), phase(phaseTicks) {}
    void second(int64_t number, int64_t timeOfDay)
    {
        const int64_t pulse = number * kSecond + phase;
        receiver.feed("#pps\r", pulse);
        for (int fix = 0; fix < rate; fix++) {
            char text[80];
            snprintf(text, sizeof text, "$GPGGA,%02d%02d%02d.%d,,,,,1,,,%ld\r", int(timeOfDay / 3600 % 24),
                     int(timeOfDay / 60 % 60), int(timeOfDay % 60), fix * 10 / rate, number * rate + fix);
            const auto latency = static_cast<int64_t>(kSecond / 20 + random() % (kSecond * 19 / 100));
            arrival = std::max(arrival + 1, pulse + fix * kSecond / rate + latency);
            receiver.feed(text, arrival);
        }
        for (const double sample : drain(pipe, next))
            misplaced += sample != static_cast<double>(checked++);
    }

    int rate;                   // fixes per second
    int64_t phase, arrival = 0; // of the pulse and of the latest sentence, ticks
    int64_t checked = 0, misplaced = 0, next = 0;
    std::mt19937_64 random{2};
    Receiver receiver;
    Pipe *pipe = pipeAttachPipe(&receiver.listen({{"connector", "altitude"}, {"sample_rate", rate}})->pipes);
};

// Two channels at once, across midnight.
TEST_F(TimestampAdjustment, EveryFixOfADayLandsOnItsSample)
{
    const int64_t seconds = 86400;
    Drive drives[] = {{10, 0}, {1, kSecond / 80}};
    for (int64_t second = 0; second < seconds; second++)
        for (Drive &drive : drives)
            drive.second(second, 23 * 3600 + 1800 + second);
    for (const Drive &drive : drives) {
        EXPECT_EQ(drive.misplaced, 0);
        EXPECT_GT(drive.checked, (seconds - 2) * drive.rate);
    }
}

} // namespace
} // namespace vu::test
