// Sequential sources: waveforms, sound files, tables of text. Every sample bit by bit.
#include <cmath>
#include <gmock/gmock.h>
#include <sndfile.hh>

#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

template <class T>
std::vector<T> replaySamples(const std::string &line, const std::string &endian = "little")
{
    return samplesOf<T>(replay(line + " --speed 0 --data-type sequential_float" +
                               (sizeof(T) == 4 ? "32" : "64") + " --endian " + endian));
}

TEST(KnownWaveform, EverySampleFollowsFromItsNumber)
{
    const std::pair<const char *, double (*)(double phase, uint64_t n)> shapes[] = {
        {"sine", [](double phase, uint64_t) { return 2.5 * std::sin(2 * M_PI * phase) - 0.25; }},
        {"ramp", [](double phase, uint64_t) { return 2.5 * phase - 0.25; }},
        {"square", [](double phase, uint64_t) { return phase < 0.5 ? 2.25 : -2.75; }},
        {"noise", [](double, uint64_t n) { return 2.5 * (2 * referenceUnit(11, n) - 1) - 0.25; }},
        {"counter", [](double, uint64_t n) { return static_cast<double>(n); }}};
    for (const auto &[name, at] : shapes) {
        const std::string line = "sim --frequency 7.3 --amplitude 2.5 --bias -0.25 --seed 11 --duration 1 "
                                 "--sample-rate 1234.5 --signal ";
        const auto wide = replaySamples<double>(line + name, "big");
        const auto narrow = replaySamples<float>(line + name);
        ASSERT_TRUE(wide.size() == 1234 && narrow.size() == 1234) << name;
        for (uint64_t n = 0; n < wide.size(); ++n) {
            const double expected = at(std::fmod(7.3 * static_cast<double>(n) / 1234.5, 1), n);
            ASSERT_EQ(wide[n], expected) << name << n;
            ASSERT_EQ(narrow[n], static_cast<float>(expected)) << name << n;
        }
    }
}

template <class T>
void expectBitForBit(int format)
{
    using Wire = std::conditional_t<std::is_same_v<T, float>, float, double>;
    using Limits = std::numeric_limits<T>;
    std::vector<T> samples = {
        T(0), T(1), T(-1), Limits::max(), Limits::lowest(), Limits::denorm_min(), Limits::infinity()};
    for (uint64_t n = 0; samples.size() < 3000; ++n)
        samples.push_back(static_cast<T>(30000.0 * (referenceUnit(5, n) - 0.5)));
    const TempDir folder;
    const std::string file = folder.path("a.wav");
    for (const bool big : {false, true})
        for (const size_t channel : {0, 1}) {
            SndfileHandle(file, SFM_WRITE, SF_FORMAT_WAV | format | (big ? SF_ENDIAN_BIG : SF_ENDIAN_LITTLE),
                          2, 8000)
                .writef(samples.data(), 1500);
            const auto got = replaySamples<Wire>("wav " + file + " --channel " + std::to_string(channel),
                                                 big ? "little" : "big");
            ASSERT_EQ(got.size(), 1500u);
            for (size_t i = 0; i < got.size(); ++i)
                ASSERT_EQ(got[i], static_cast<Wire>(samples[2 * i + channel])) << i;
        }
    if (std::is_integral_v<T>) { // the third of the first channel is the lowest number
        EXPECT_EQ(replaySamples<double>("wav " + file + " --normalise")[2], -1.0);
    }
}

TEST(SoundFile, OfEveryWidthComesThroughBitForBit)
{
    expectBitForBit<int16_t>(SF_FORMAT_PCM_16);
    expectBitForBit<int32_t>(SF_FORMAT_PCM_32);
    expectBitForBit<float>(SF_FORMAT_FLOAT);
    expectBitForBit<double>(SF_FORMAT_DOUBLE);
}

class Table : public ::testing::Test {
protected:
    std::string file(const std::string &text)
    {
        writeText(folder.path("t.csv"), text);
        return "csv " + folder.path("t.csv").string() + " --sample-rate 100 ";
    }
    std::vector<double> column(const std::string &text, const std::string &more = "")
    {
        return replaySamples<double>(file(text) + more);
    }
    TempDir folder;
};

TEST_F(Table, OfManyFormsIsRead)
{
    EXPECT_THAT(column("1\n2.5\n\n-3e2\n"), ElementsAre(1, 2.5, -300));
    EXPECT_THAT(column("a,b\r\n1, 2\r\n3,+4\r\n", "--column b"), ElementsAre(2, 4));
    EXPECT_THAT(column("a;b\n1,5;2,5\n3;4,25", "--column 1 --decimal ,"), ElementsAre(2.5, 4.25));
    EXPECT_THAT(column("junk\njunk\nx\ty\n1\t2\n", "--skip 2 --column y"), ElementsAre(2));
    EXPECT_THAT(column("1|2\n3|4\n", "--delimiter | --column 1"), ElementsAre(2, 4));
    EXPECT_THAT(column("7\n8\n", "--header yes"), ElementsAre(8));
    EXPECT_THAT(
        column("head\n***End_of_Header***\t\nmore\n***End_of_Header***\nX\tF\n\t5\n\t6\n", "--column F"),
        ElementsAre(5, 6));
    EXPECT_THAT(column("1e999\n-1e999\n1e-999\ninf\n"), ElementsAre(INFINITY, -INFINITY, 0, INFINITY));
}

TEST_F(Table, GivesTheNearestNumberOfEachWidth)
{
    // Read as double first, this text the first text would round twice and end one bit too high.
    const std::string text = "1.00000017881393432617187499999999999\n1.00000017881393432617187500000000001\n";
    EXPECT_THAT(replaySamples<float>(file(text)), ElementsAre(0x1.000002p0f, 0x1.000004p0f));
}

TEST_F(Table, IsServedUpToABadLine)
{
    std::string said;
    const Stream stream = replay(file("v\n1\n2\nthree\n4\n") + "--data-type sequential_float64", 2, &said);
    EXPECT_THAT(samplesOf<double>(stream), ElementsAre(1, 2));
    EXPECT_THAT(said, HasSubstr("t.csv:4: column 0: expected a number, got 'three'"));
}

} // namespace
} // namespace vu::test
