// Sequential sources: waveforms, sound files, tables of text. Every sample bit by bit.
#include <cmath>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <zlib.h>

#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Values;

using Words = std::vector<std::string>;

template <class T>
std::vector<T> replaySamples(Words words, const std::string &endian = "little")
{
    words.insert(words.end(), {"--speed", "0", "--endian", endian, "--data-type",
                               sizeof(T) == 4 ? "sequential_float32" : "sequential_float64"});
    return samplesOf<T>(replay(words));
}

struct Shape {
    const char *name;
    double (*at)(double turns, uint64_t n);
};

class KnownWaveform : public ::testing::TestWithParam<Shape> {};

TEST_P(KnownWaveform, EverySampleFollowsFromItsNumber)
{
    const Words words = {"sim",         "--signal",      GetParam().name, "--frequency", "7.3",
                         "--amplitude", "2.5",           "--bias",        "-0.25",       "--seed",
                         "11",          "--sample-rate", "1234.5",        "--duration",  "1"};
    const auto wide = replaySamples<double>(words, "big");
    const auto narrow = replaySamples<float>(words);
    ASSERT_EQ(wide.size(), 1234u);
    ASSERT_EQ(narrow.size(), 1234u);
    for (uint64_t n = 0; n < wide.size(); ++n) {
        const double expected = GetParam().at(7.3 * static_cast<double>(n) / 1234.5, n);
        ASSERT_EQ(wide[n], expected) << n;
        ASSERT_EQ(narrow[n], static_cast<float>(expected)) << n;
    }
}
INSTANTIATE_TEST_SUITE_P(
    Source, KnownWaveform,
    Values(Shape{"sine", [](double turns,
                            uint64_t) { return 2.5 * std::sin(2 * M_PI * std::fmod(turns, 1)) - 0.25; }},
           Shape{"ramp", [](double turns, uint64_t) { return 2.5 * std::fmod(turns, 1) - 0.25; }},
           Shape{"square", [](double turns, uint64_t) { return std::fmod(turns, 1) < 0.5 ? 2.25 : -2.75; }},
           Shape{"noise", [](double, uint64_t n) { return 2.5 * (2 * referenceUnit(11, n) - 1) - 0.25; }},
           Shape{"counter", [](double, uint64_t n) { return static_cast<double>(n); }}),
    [](const auto &instance) { return instance.param.name; });

// A sound file of either byte order, made here.
template <class T>
void writeWav(const std::filesystem::path &file, const std::vector<T> &samples, bool big, int channels)
{
    Bytes bytes;
    const auto text = [&](const char *letters) { bytes.insert(bytes.end(), letters, letters + 4); };
    const auto number = [&](auto value) {
        uint8_t parts[sizeof value];
        std::memcpy(parts, &value, sizeof value);
        if (big)
            std::reverse(parts, parts + sizeof value);
        bytes.insert(bytes.end(), parts, parts + sizeof value);
    };
    const auto size = static_cast<uint32_t>(samples.size() * sizeof(T));
    text(big ? "RIFX" : "RIFF");
    number(36 + size);
    text("WAVE");
    text("fmt ");
    number(uint32_t{16});
    number(uint16_t{std::is_floating_point_v<T> ? 3 : 1});
    number(static_cast<uint16_t>(channels));
    number(uint32_t{8000});
    number(static_cast<uint32_t>(8000 * channels) * uint32_t{sizeof(T)});
    number(static_cast<uint16_t>(channels * static_cast<int>(sizeof(T))));
    number(uint16_t{8 * sizeof(T)});
    text("data");
    number(size);
    for (const T sample : samples)
        number(sample);
    writeBytes(file, bytes);
}

template <class T>
class SoundFile : public ::testing::Test {
};
using SampleTypes = ::testing::Types<int16_t, int32_t, float, double>;
TYPED_TEST_SUITE(SoundFile, SampleTypes);

TYPED_TEST(SoundFile, ComesThroughBitForBit)
{
    using T = TypeParam;
    using Wire = std::conditional_t<std::is_same_v<T, float>, float, double>;
    std::vector<T> samples = {T(0), T(1), T(-1), std::numeric_limits<T>::max(),
                              std::numeric_limits<T>::lowest()};
    if constexpr (std::is_floating_point_v<T>)
        samples.insert(samples.end(),
                       {std::numeric_limits<T>::denorm_min(), -T(0), std::numeric_limits<T>::infinity()});
    else
        samples.push_back(T(12345));
    for (uint64_t n = 0; samples.size() < 3000; ++n)
        samples.push_back(static_cast<T>(30000.0 * (referenceUnit(5, n) - 0.5)));
    const TempDir folder;
    for (const bool big : {false, true})
        for (const int channel : {0, 1}) {
            writeWav(folder.path("a.wav"), samples, big, 2);
            const auto got = replaySamples<Wire>(
                {"wav", folder.path("a.wav"), "--channel", std::to_string(channel)}, big ? "little" : "big");
            ASSERT_EQ(got.size(), samples.size() / 2);
            for (size_t i = 0; i < got.size(); ++i) {
                const auto expected = static_cast<Wire>(samples[2 * i + static_cast<size_t>(channel)]);
                ASSERT_EQ(std::memcmp(&got[i], &expected, sizeof expected), 0) << i << ' ' << got[i];
            }
        }
    if constexpr (std::is_integral_v<T>) {
        const auto got = replaySamples<double>({"wav", folder.path("a.wav"), "--normalise"});
        EXPECT_EQ(got[1], -std::ldexp(1.0, 1 - 8 * static_cast<int>(sizeof(T))));
        EXPECT_EQ(got[2], -1.0); // the lowest number
    }
}

class Table : public ::testing::Test {
protected:
    std::vector<double> column(const std::string &text, Words words = {})
    {
        writeText(folder.path("t.csv"), text);
        words.insert(words.begin(), {"csv", folder.path("t.csv"), "--sample-rate", "100"});
        return replaySamples<double>(words);
    }
    TempDir folder;
};

TEST_F(Table, OfManyFormsIsRead)
{
    EXPECT_THAT(column("1\n2.5\n\n-3e2\n"), ElementsAre(1, 2.5, -300));
    EXPECT_THAT(column("a,b\r\n1, 2\r\n3,+4\r\n", {"--column", "b"}), ElementsAre(2, 4));
    EXPECT_THAT(column("a;b\n1,5;2,5\n3;4,25", {"--column", "1", "--decimal", ","}), ElementsAre(2.5, 4.25));
    EXPECT_THAT(column("junk\njunk\nx\ty\n1\t2\n", {"--skip", "2", "--column", "y"}), ElementsAre(2));
    EXPECT_THAT(column("1|2\n3|4\n", {"--delimiter", "|", "--column", "1"}), ElementsAre(2, 4));
    EXPECT_THAT(column("7\n8\n", {"--header", "yes"}), ElementsAre(8));
    EXPECT_THAT(
        column("head\n***End_of_Header***\t\nmore\n***End_of_Header***\nX\tF\n\t5\n\t6\n", {"--column", "F"}),
        ElementsAre(5, 6));
    EXPECT_THAT(column("1e999\n-1e999\n1e-999\ninf\n"), ElementsAre(INFINITY, -INFINITY, 0, INFINITY));
}

TEST_F(Table, GivesTheNearestNumberOfEachWidth)
{
    // Read as double first, this text the first text would round twice and end one bit too high.
    const std::string text = "1.00000017881393432617187499999999999\n1.00000017881393432617187500000000001\n";
    writeText(folder.path("t.csv"), text);
    EXPECT_THAT(replaySamples<float>({"csv", folder.path("t.csv"), "--sample-rate", "10"}),
                ElementsAre(0x1.000002p0f, 0x1.000004p0f));
}

TEST_F(Table, IsServedUpToABadLine)
{
    writeText(folder.path("t.csv"), "v\n1\n2\nthree\n4\n");
    std::string said;
    const Stream stream = replay({"csv", folder.path("t.csv"), "--sample-rate", "1000", "--speed", "0",
                                  "--data-type", "sequential_float64"},
                                 2, &said);
    EXPECT_THAT(samplesOf<double>(stream), ElementsAre(1, 2));
    EXPECT_THAT(said, HasSubstr("t.csv:4: column 0: expected a number, got 'three'"));
}

TEST(Recordings, OfSoundAndVibrationComeThroughExactly)
{
    SKIP_WITHOUT_RECORDINGS();
    std::map<std::pair<std::string, std::string>, std::vector<double>> expected;
    const std::filesystem::path sounds = recordings() / "samples_wav";
    const gzFile values = gzopen((sounds / "values.csv.gz").c_str(), "rb");
    char line[512];
    gzgets(values, line, sizeof line);
    while (gzgets(values, line, sizeof line)) {
        std::istringstream cells(line);
        std::string file, channel, index, value;
        std::getline(std::getline(std::getline(std::getline(cells, file, ','), channel, ','), index, ','),
                     value);
        expected[{file, channel}].push_back(std::stod(value));
    }
    gzclose(values);
    ASSERT_EQ(expected.size(), 8u);
    for (const auto &[key, samples] : expected)
        for (const char *endian : {"big", "little"})
            EXPECT_EQ(replaySamples<double>({"wav", sounds / key.first, "--channel", key.second}, endian),
                      samples)
                << key.first;

    std::ifstream stats(recordings() / "samples_vibration/stats.csv");
    std::string row, name, cell;
    std::getline(stats, row);
    while (std::getline(stats, row)) {
        std::istringstream cells(row);
        std::getline(std::getline(cells, name, ','), cell, ',');
        std::vector<double> numbers;
        while (std::getline(cells, cell, ','))
            numbers.push_back(std::stod(cell));
        const auto got =
            replaySamples<double>({"csv", recordings() / "samples_vibration/long_single_header_multi_ch.lvm",
                                   "--column", name, "--sample-rate", "1000"});
        ASSERT_EQ(static_cast<double>(got.size()), numbers[0]) << name;
        const auto [least, most] = std::minmax_element(got.begin(), got.end());
        EXPECT_THAT((std::vector{*least, *most, got.front(), got.back()}),
                    ElementsAre(numbers[1], numbers[2], numbers[3], numbers[4]));
    }
}

} // namespace
} // namespace vu::test
