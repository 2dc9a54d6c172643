// Simulated message channels and module streams, each value and time recomputed from its number.
#include <cmath>
#include <ctime>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <map>

#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;

double noise(uint64_t n)
{
    return 2 * referenceUnit(9, n) - 1;
}

std::string noisy(const std::string &more)
{
    return "sim --speed 0 --signal noise --seed 9 " + more;
}

// Seconds from 2026-03-15 10:15:30.5 local time to an NTP time.
double sinceStart(uint32_t seconds, uint32_t fraction)
{
    std::tm parts{};
    strptime("2026-03-15T10:15:30", "%Y-%m-%dT%H:%M:%S", &parts);
    parts.tm_isdst = -1;
    return static_cast<double>(seconds - (std::mktime(&parts) - 946684800)) + std::ldexp(fraction, -32) - 0.5;
}

// The times shake by a millisecond; an NTP record begins with a number that is not read.
template <class T>
void expectFloats(const std::string &type, bool ntp, bool big)
{
    const Stream stream = replay(
        noisy("--rate 250 --jitter 0.001 --duration 2 --start-time 2026-03-15T10:15:30.5 --data-type " +
              type + (ntp ? "_ntp" : "") + " --endian " + (big ? "big" : "little")));
    uint64_t n = 0;
    for (const Bytes &body : stream.records)
        for (size_t at = ntp ? 8 : 0; at < body.size(); at += 8 + sizeof(T), ++n) {
            const int64_t shift = std::lround(0.001 * (2 * referenceUnit(10, n) - 1) * 4e7);
            const int64_t ticks = std::max(0L, std::lround(static_cast<double>(n) / 250 * 4e7) + shift);
            if (ntp)
                ASSERT_NEAR(sinceStart(numberAt<uint32_t>(body, at), numberAt<uint32_t>(body, at + 4)),
                            static_cast<double>(ticks) / 4e7, 25e-9);
            else
                ASSERT_EQ(numberAt<int64_t>(body, at), ticks);
            // An NTP value is big-endian for a little-endian marker too.
            ASSERT_EQ(numberAt<T>(body, at + 8, big || ntp), static_cast<T>(noise(n)));
        }
    EXPECT_EQ(n, 500u);
}

TEST(SimulatedMessages, FollowFromTheirNumbers)
{
    for (const auto &[ntp, big] : {std::pair(false, false), {false, true}, {true, false}}) {
        expectFloats<float>("message_float32", ntp, big);
        expectFloats<double>("message_float64", ntp, big);
    }
    const Stream raw = replay("sim --speed 0 --data-type message_raw --size 3 --rate 200 --duration 2");
    ASSERT_EQ(raw.records.size(), 400u);
    for (uint64_t n = 0; n < 400; ++n) {
        const auto byte = [&](uint64_t i) { return static_cast<uint8_t>((n + i) % 256); };
        EXPECT_EQ(numberAt<int64_t>(raw.records[n], 0), static_cast<int64_t>(n * 200'000));
        EXPECT_THAT(Bytes(raw.records[n].begin() + 8, raw.records[n].end()),
                    ElementsAre(byte(0), byte(1), byte(2)));
    }
}

TEST(SimulatedXcp, HasAnEntryForEachMeasurement)
{
    for (const bool big : {false, true}) {
        const Stream stream =
            replay(noisy("--data-type message_xcp_ip --amplitude 1000 --rate 50 --duration 1 "
                         "--xcp-types SWORD,UBYTE,FLOAT64_IEEE,A_INT64,FLOAT32_IEEE --xcp-byte-order ") +
                   (big ? "big" : "little"));
        uint64_t n = 0;
        int64_t told = 0;
        for (const Bytes &body : stream.records) {
            const auto ticks = numberAt<int64_t>(body, 0);
            EXPECT_LE(ticks - told, 400'000);
            told = std::max(told, ticks);
            if (body.size() == 9) {
                EXPECT_EQ(body[8], 0xFF);
                continue;
            }
            ASSERT_EQ(body.size(), 8u + 5 * 2 + 2 + 1 + 8 + 8 + 4);
            const double value = 1000 * noise(n);
            EXPECT_EQ(ticks, static_cast<int64_t>(n * 800'000));
            EXPECT_EQ(numberAt<int16_t>(body, 10, big), std::lround(value));
            EXPECT_EQ(numberAt<uint16_t>(body, 12), 1);
            EXPECT_EQ(body[14], std::clamp(std::lround(value + 1), 0L, 255L));
            EXPECT_EQ(numberAt<double>(body, 17, big), value + 2);
            EXPECT_EQ(numberAt<int64_t>(body, 27, big), std::llround(value + 3));
            EXPECT_EQ(numberAt<uint16_t>(body, 35), 4);
            EXPECT_EQ(numberAt<float>(body, 37, big), static_cast<float>(value + 4));
            ++n;
        }
        EXPECT_EQ(n, 50u);
        EXPECT_EQ(told, 40'000'000);
    }
}

struct ModuleStream {
    std::string metainfo; // "number text", a line each
    std::map<uint32_t, Bytes> samples;

    ModuleStream(std::span<const uint8_t> left)
    {
        for (left = left.subspan(2); !left.empty();) {
            const auto header = numberAt<uint32_t>(left, 0);
            const uint32_t number = header & 0xFFFFF, inside = (header >> 20) & 0xFF;
            const auto size = inside != 0 ? inside : numberAt<uint32_t>(left, 4);
            const auto payload = left.subspan(inside != 0 ? 4 : 8, size);
            left = left.subspan((inside != 0 ? 4 : 8) + size);
            if ((header >> 28) == 2) {
                metainfo += fmt::format("{} {}\n", number, std::string(payload.begin() + 4, payload.end()));
                continue;
            }
            EXPECT_TRUE(inside != 0 || size > 255);
            EXPECT_EQ(count(fmt::format(R"({} {{"method":"data")", number)), 1) << "data before its layout";
            samples[number].insert(samples[number].end(), payload.begin(), payload.end());
        }
    }
    int count(const std::string &text) const
    {
        int times = 0;
        for (size_t at = 0; (at = metainfo.find(text, at)) != std::string::npos; ++at)
            ++times;
        return times;
    }
};

TEST(SimulatedStream, BehavesAsAModuleDoes)
{
    for (const bool big : {true, false}) {
        Source source(noisy("--names oil,water --numbers 2047,5000 --rate 3000 --duration 3 --fill 50,80,98 "
                            "--no-value-every 10 --start-time 2026-03-15T10:15:30.5 --connector ") +
                      (big ? "ch_pd806h" : "ch_pd806k"));
        const Bytes bytes = source.read();
        EXPECT_EQ(source.end(), 0);
        const ModuleStream stream(bytes);
        const std::pair<const char *, int> told[] = {{R"(2047 {"method":"subscribe","params":["oil"]})", 1},
                                                     {R"(5000 {"method":"subscribe","params":["water"]})", 1},
                                                     {big ? R"("endian":"big")" : R"("endian":"little")", 2},
                                                     {R"({"samples":3000)", 2},
                                                     {R"("alive")", 3},
                                                     {R"("fill","params":[80.0])", 1},
                                                     {"firmwareNotice", 1}};
        for (const auto &[text, times] : told)
            EXPECT_EQ(stream.count(text), times) << text;
        for (const auto &[number, extra] : {std::pair(2047u, 0.0), {5000u, 1.0}}) {
            const auto &samples = stream.samples.at(number);
            ASSERT_EQ(samples.size(), 9000u * 12);
            for (uint64_t n = 0; n < 9000; ++n) {
                const auto word = [&](size_t at) { return numberAt<uint32_t>(samples, n * 12 + at, big); };
                ASSERT_NEAR(sinceStart(word(big ? 0 : 4), word(big ? 4 : 0)), static_cast<double>(n) / 3000,
                            25e-9);
                if (n % 10 == 9)
                    ASSERT_EQ(word(8), 0x58E35FA9u);
                else
                    ASSERT_EQ(numberAt<float>(samples, n * 12 + 8, big), static_cast<float>(noise(n) + extra))
                        << n;
            }
        }
    }
}

} // namespace
} // namespace vu::test
