// Sequential sources: waveforms, sound files, tables of text. Every sample bit by bit.
#include <cmath>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sndfile.hh>

#include "tests/support/cases.h"
#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;

template <class T>
std::vector<T> replaySamples(const std::string &line, const std::string &endian = "little",
                             const std::string &complaint = "")
{
    std::string said;
    const Stream stream = replay(line + " --speed 0 --data-type sequential_float" +
                                     (sizeof(T) == 4 ? "32" : "64") + " --endian " + endian,
                                 complaint.empty() ? 0 : 2, &said);
    EXPECT_THAT(said, ::testing::HasSubstr(complaint));
    return samplesOf<T>(stream);
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
    for (const int order : {SF_ENDIAN_BIG, SF_ENDIAN_LITTLE})
        for (const size_t channel : {0, 1}) {
            SndfileHandle(file, SFM_WRITE, SF_FORMAT_WAV | format | order, 2, 8000)
                .writef(samples.data(), 1500);
            std::vector<Wire> expected;
            for (size_t i = channel; i < samples.size(); i += 2)
                expected.push_back(static_cast<Wire>(samples[i]));
            EXPECT_EQ(replaySamples<Wire>("wav " + file + " --channel " + std::to_string(channel)), expected);
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

TEST(Table, OfManyFormsIsReadUpToABadLine)
{
    const TempDir folder;
    const std::string file = folder.path("t.csv"), source = "csv " + file + " --sample-rate 100 ";
    for (const Strings &parts : cases("vu/csv_files.txt")) {
        writeText(file, nlohmann::json::parse(parts[0]));
        std::vector<double> expected;
        for (const std::string &number : words(parts[2]))
            expected.push_back(std::strtod(number.c_str(), nullptr));
        EXPECT_EQ(replaySamples<double>(source + parts[1], "big", parts.size() > 3 ? parts[3] : ""), expected)
            << parts[0];
    }
    // Read as double first, the first of these would round twice and end one bit too high.
    writeText(file, "1.00000017881393432617187499999999999\n1.00000017881393432617187500000000001\n");
    EXPECT_THAT(replaySamples<float>(source), ElementsAre(0x1.000002p0f, 0x1.000004p0f));
}

} // namespace
} // namespace vu::test
