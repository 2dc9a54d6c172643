// Channels of every kind out of a data file, in every form, read again by something that did not write them.
#include <bit>
#include <cmath>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sndfile.h>

#include "tests/support/command.h"
#include "tests/support/krd_builder.h"
#include "tests/support/split.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class Export : public ::testing::Test {
protected:
    Export()
    {
        buildEverything(all);
        gaps.samples(0, {1, 2}, 0);
        gaps.samples(0, {5}, 4);
        gaps.samples(1, {7, 7, 7, 9}, 1);
        gaps.samples(2, {3}, 0);
        gaps.close();
    }
    // What `vu export` makes of a file: its files are in `out`.
    CommandResult run(const std::filesystem::path &file, Strings arguments)
    {
        std::filesystem::remove_all(out);
        arguments.insert(arguments.begin(), {"export", file, "-o", out});
        return runVu(arguments);
    }
    std::string text(const std::string &name) const { return readText(out / name); }

    TempDir folder;
    const std::filesystem::path out = folder.path("out");
    KrdBuilder all{folder.path("all"), everyKind()};
    KrdBuilder gaps{folder.path("gaps"),
                    R"([{"name":"a"}, {"name":"b","element":"uint16","element_size":2,"encoding":"rle"},
                        {"name":"c","sample_rate":10}])"};
};

TEST_F(Export, EveryLineOfTheFile)
{
    KrdBuilder can(folder.path("can"),
                   R"([{"name":"can0","kind":"message_can","sample_rate":0,"element":"can","element_size":21},
                       {"name":"a"}])");
    const auto padded =
        canElement(40'000'060, 0x800, 0, "padded"); // its source told neither length nor width
    can.append(0,
               canElement(0, 0x7FF, 0, "") + canElement(39, 0x1, 0x12, "") +
                   canElement(40'000'059, 0x12345678, 0x88, std::string("\0\1\2\3\4\5\6\7", 8)) + padded,
               4, 0);
    can.close();
    for (const std::string &line : split(readText(VU_SOURCE_DIR "/tests/vu/exports.txt"), '\n')) {
        if (line[0] == '/')
            continue;
        const size_t name = line.find(" > "), said = line.find(" > ", name + 3);
        Strings arguments = split(line.substr(0, name), ' ');
        const auto file = folder.path(arguments[0]);
        arguments.erase(arguments.begin());
        const auto result = run(file, arguments);
        const std::string from = line.substr(name + 3, said - name - 3);
        const bool isStatus = from.size() == 1;
        EXPECT_EQ(result.status, isStatus ? from[0] - '0' : 0) << line;
        std::string found = isStatus ? result.err : "^" + text(from) + "$";
        std::replace(found.begin(), found.end(), '\n', '|');
        EXPECT_THAT(found, HasSubstr(line.substr(said + 3)));
    }
    EXPECT_EQ(runVu({"export", gaps.path, "--format", "npy", "-o", out}).status, 2)
        << "nothing is overwritten unasked";
}

// Every float is printed so that it reads back as the same one; the other values pass through double as they
// must.
TEST_F(Export, ValuesReadBackExactly)
{
    std::mt19937_64 random(7);
    std::vector<double> singles, doubles, whole;
    for (int i = 0; i < 5000; ++i) {
        singles.push_back(std::bit_cast<float>(static_cast<uint32_t>(random())));
        doubles.push_back(std::bit_cast<double>(random()));
        whole.push_back(static_cast<double>(static_cast<int64_t>(random()) >> 1 & ~int64_t{0x7FF}));
    }
    KrdBuilder file(folder.path("values"),
                    R"([{"name":"s"}, {"name":"d","element":"float64","element_size":8},
                        {"name":"w","element":"int64","element_size":8}])");
    file.samples(0, singles, 0);
    file.samples(1, doubles, 0);
    file.samples(2, whole, 0);
    file.close();
    run(file.path, {});
    const auto compare = [this](const char *name, const std::vector<double> &values, auto &&read) {
        const Strings lines = split(text(name), '\n');
        ASSERT_EQ(lines.size(), values.size() + 1);
        for (size_t i = 0; i < values.size(); ++i) {
            const std::string &line = lines[i + 1];
            const double value = values[i], back = read(line.c_str() + line.rfind(',') + 1);
            ASSERT_TRUE(std::bit_cast<uint64_t>(back) == std::bit_cast<uint64_t>(value) ||
                        (std::isnan(back) && std::isnan(value)))
                << line;
        }
    };
    compare("s.csv", singles, [](const char *from) { return double{std::strtof(from, nullptr)}; });
    compare("d.csv", doubles, [](const char *from) { return std::strtod(from, nullptr); });
    compare("w.csv", whole,
            [](const char *from) { return static_cast<double>(std::strtoll(from, nullptr, 10)); });
}

TEST_F(Export, NumpyArrays)
{
    run(gaps.path, {"--format", "npy"});
    const std::pair<const char *, std::string> cases[] = {
        {"a.npy", bytesOf(int64_t{0}, 1.0F, int64_t{1}, 2.0F, int64_t{4}, 5.0F)},
        {"b.npy", bytesOf(uint16_t{7}, uint16_t{7}, uint16_t{7}, uint16_t{9})},
        {"c.npy", bytesOf(3.0F)}};
    for (const auto &[name, data] : cases) {
        const std::string npy = text(name);
        const size_t header = npy.find('\n') + 1, told = header - 10;
        EXPECT_THAT(npy, StartsWith("\x93NUMPY" + bytesOf('\1', '\0', static_cast<uint16_t>(told)))) << name;
        EXPECT_EQ(header % 64, 0u) << name;
        EXPECT_EQ(npy.substr(header), data) << name;
    }
}

TEST_F(Export, WavFilesAsAnotherLibraryReadsThem)
{
    run(gaps.path, {"--format", "wav", "--fill", "0.25"});
    const std::tuple<const char *, int, std::vector<double>> cases[] = {
        {"a.wav", 1000, {1, 2, 0.25, 0.25, 5}}, {"b.wav", 1000, {7, 7, 7, 9}}, {"c.wav", 10, {3}}};
    for (const auto &[name, rate, filled] : cases) {
        SF_INFO info = {};
        SNDFILE *wav = sf_open((out / name).c_str(), SFM_READ, &info);
        ASSERT_NE(wav, nullptr);
        std::vector<double> values(static_cast<size_t>(info.frames));
        sf_read_double(wav, values.data(), info.frames);
        sf_close(wav);
        EXPECT_EQ(info.samplerate, rate);
        EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
        EXPECT_EQ(values, filled);
    }
}

// The one sample that stands out is in the picture, and what is missing is a break in the curve.
TEST_F(Export, APlotKeepsPeaksAndShowsGaps)
{
    KrdBuilder file(folder.path("plot"), R"([{"name":"<a>"}])");
    std::vector<double> values(100'000, 0.0);
    values[54'321] = 1000.0;
    values[7] = NAN;
    file.samples(0, values, 0);
    file.samples(0, {-500, 0}, 200'000);
    file.close();
    const auto terminal = runVu({"plot", file.path, "--width", "40", "--height", "5"});
    EXPECT_EQ(terminal.status, 0) << terminal.err;
    EXPECT_THAT(terminal.out, StartsWith("<a> [V], 100001 values\n1000 |"));
    EXPECT_THAT(terminal.out, HasSubstr("\n-500 |"));
    ASSERT_EQ(runVu({"plot", file.path, "-o", folder.path("plot.svg")}).status, 0);
    const std::string svg = readText(folder.path("plot.svg"));
    EXPECT_THAT(svg, HasSubstr("&lt;a&gt; [V]"));
    const std::string path = svg.substr(svg.find(" d=\""));
    EXPECT_EQ(std::ranges::count(path, 'M'), 2); // before and behind the gap; the NaN is within one column
    EXPECT_THAT(path, HasSubstr("V24.0"));       // the peak touches the upper edge
    EXPECT_EQ(runVu({"plot", file.path, "--from", "300"}).status, 2);
}

} // namespace
} // namespace vu::test
