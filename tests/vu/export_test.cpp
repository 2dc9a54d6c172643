// Channels of every kind out of a data file, in every form, read again by something that did not write them.
#include <bit>
#include <cmath>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sndfile.h>
#include <sstream>

#include "tests/support/command.h"
#include "tests/support/krd_builder.h"
#include "tests/support/temp_dir.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class Export : public ::testing::Test {
protected:
    // What `vu export` makes of `file`: its files are in `out`.
    CommandResult run(KrdBuilder &file, std::vector<std::string> arguments, int status = 0)
    {
        std::filesystem::remove_all(out);
        arguments.insert(arguments.begin(), {"export", file.path(), "-o", out});
        const auto result = runVu(arguments);
        EXPECT_EQ(result.status, status) << result.err;
        return result;
    }
    std::string text(const std::string &name) const { return readText(out / name); }

    TempDir folder;
    const std::filesystem::path out = folder.path("out");
};

TEST_F(Export, EveryKindAsCsv)
{
    KrdBuilder file(folder.path("all.krd"), kEveryKind);
    buildEverything(file);
    run(file, {});
    const std::pair<const char *, const char *> cases[] = {
        {"plain.csv", "sample,time,value\n0,0,0.1\n1,0.001,0.1\n"},
        {"wide.csv", "sample,time,value\n0,0,0.3333333333333333\n1,0.08,-2e+300\n2,0.16,0\n3,0.24,0.333"},
        {"packed.csv", "sample,time,value\n0,0,12\n1,0.001,12\n"},
        {"flag.csv", "sample,time,value\n0,0,1\n1,0.001,1\n2,0.002,1\n3,0.003,0\n4,0.004,0\n5,0.005,1\n"},
        {"can0.csv", "tick,time,id,extended,remote,data\n1,0.000000025,123,0,0,616263\n"
                     "400,0.00001,18FEF100,1,0,3132333435363738\n40000001,1.000000025,123"},
        {"gps.csv", "tick,time,text\n0,0,\"$GPGGA,1\"\n40000000,1,"},
        {"raw_1.csv", "tick,time,hex\n0,0,00FF\n"},
        {"mode.csv", "tick,time,text\n0,0,\"say \"\"3D\"\"\"\n"},
        {"temp.csv", "tick,time,value\n0,0,20.5\n1,0.000000025,-0.1\n"},
        {"ntp.csv", "tick,time,value\n7,0.000000175,1e-07\n"},
    };
    for (const auto &[name, begin] : cases)
        EXPECT_THAT(text(name), StartsWith(begin)) << name;
    EXPECT_EQ(std::ranges::count(text("plain.csv"), '\n'), 1201);
    EXPECT_EQ(runVu({"export", file.path(), "-o", out}).status, 2) << "nothing is overwritten unasked";
    EXPECT_THAT(run(file, {"--channel", "no*"}, 2).err, HasSubstr("'no*'"));
}

TEST_F(Export, ACandumpLogComesBackAsItWas)
{
    KrdBuilder file(folder.path("can.krd"),
                    {{.name = "can0", .kind = "message_can", .element = "can", .size = 21}, {.name = "a"}});
    file.messages(
        0,
        canElement(0, 0x7FF, 0, "") + canElement(39, 0x1, 0x12, "") +
            canElement(40'000'059, 0x12345678, 0x88, std::string("\0\1\2\3\4\5\6\7", 8)) +
            canElement(40'000'060, 0x800, 0, "padded"), // a source that tells neither length nor width
        4, 0);
    file.close();
    const auto result = run(file, {"--format", "candump"});
    EXPECT_THAT(result.err, HasSubstr("left out: a: it is no raw CAN channel"));
    EXPECT_EQ(text("can0.candump"),
              "(0.000000) can0 7FF#\n(0.000001) can0 001#R2\n"
              "(1.000001) can0 12345678#0001020304050607\n(1.000002) can0 00000800#7061646465640000\n");
    run(file, {"--format", "candump", "--bus", "vcan1", "--origin", "1478197000.123456"});
    EXPECT_THAT(text("can0.candump"), StartsWith("(1478197000.123456) vcan1 7FF#\n(1478197000.123457)"));
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
    KrdBuilder file(folder.path("values.krd"), {{.name = "s"},
                                                {.name = "d", .element = "float64", .size = 8},
                                                {.name = "w", .element = "int64", .size = 8}});
    file.samples(0, singles, 0);
    file.samples(1, doubles, 0);
    file.samples(2, whole, 0);
    file.close();
    run(file, {});
    const auto compare = [this](const char *name, const std::vector<double> &values, auto &&read) {
        std::istringstream lines(text(name));
        std::string line;
        std::getline(lines, line);
        for (const double value : values) {
            ASSERT_TRUE(std::getline(lines, line)) << name;
            const double back = read(line.c_str() + line.rfind(',') + 1);
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

std::vector<TestChannel> gapChannels()
{
    return {
        {.name = "a"}, {.name = "b", .element = "uint16", .size = 2, .rle = true}, {.name = "c", .rate = 10}};
}

void buildGaps(KrdBuilder &file)
{
    file.samples(0, {1, 2}, 0);
    file.samples(0, {5}, 4);
    file.samples(1, {7, 7, 7, 9}, 1);
    file.samples(2, {3}, 0);
    file.close();
}

TEST_F(Export, MissingSamplesShowAndAreFilledOnlyWhenAsked)
{
    KrdBuilder file(folder.path("gaps.krd"), gapChannels());
    buildGaps(file);
    run(file, {});
    EXPECT_EQ(text("a.csv"), "sample,time,value\n0,0,1\n1,0.001,2\n4,0.004,5\n");
    run(file, {"--fill", "-1", "--channel", "a"});
    EXPECT_EQ(text("a.csv"), "sample,time,value\n0,0,1\n1,0.001,2\n2,0.002,-1\n3,0.003,-1\n4,0.004,5\n");
    run(file, {"--merge"});
    EXPECT_EQ(text("merged_1000Hz.csv"),
              "sample,time,a,b\n0,0,1,\n1,0.001,2,7\n2,0.002,,7\n3,0.003,,7\n4,0.004,5,9\n");
    EXPECT_EQ(text("merged_10Hz.csv"), "sample,time,c\n0,0,3\n");
    EXPECT_THAT(run(file, {"--format", "wav", "--channel", "a"}, 3).err, HasSubstr("2 samples are missing"));
    EXPECT_EQ(run(file, {"--format", "npy", "--merge"}, 2).out, "");
}

TEST_F(Export, NumpyArrays)
{
    KrdBuilder file(folder.path("gaps.krd"), gapChannels());
    buildGaps(file);
    run(file, {"--format", "npy"});
    struct Case {
        const char *name, *type;
        std::string data;
    };
    const auto bytesOf = [](const auto &...values) {
        std::string bytes;
        (bytes.append(reinterpret_cast<const char *>(&values), sizeof values), ...);
        return bytes;
    };
    const Case cases[] = {
        {"a.npy", "{'descr': [('sample', '<i8'), ('value', '<f4')], 'fortran_order': False, 'shape': (3,), }",
         bytesOf(int64_t{0}, 1.0F) + bytesOf(int64_t{1}, 2.0F) + bytesOf(int64_t{4}, 5.0F)},
        {"b.npy", "{'descr': '<u2', 'fortran_order': False, 'shape': (4,), }",
         bytesOf(uint16_t{7}, uint16_t{7}, uint16_t{7}, uint16_t{9})},
        {"c.npy", "{'descr': '<f4', 'fortran_order': False, 'shape': (1,), }", bytesOf(3.0F)},
    };
    for (const Case &one : cases) {
        SCOPED_TRACE(one.name);
        const std::string npy = text(one.name);
        ASSERT_THAT(npy, StartsWith(std::string("\x93NUMPY\x01\x00", 8)));
        const size_t header = static_cast<unsigned char>(npy[8]) + 256u * static_cast<unsigned char>(npy[9]);
        EXPECT_EQ((10 + header) % 64, 0u);
        EXPECT_THAT(npy.substr(10, header), StartsWith(one.type));
        EXPECT_EQ(npy[9 + header], '\n');
        EXPECT_EQ(npy.substr(10 + header), one.data);
    }
    KrdBuilder all(folder.path("all.krd"), kEveryKind);
    buildEverything(all);
    run(all, {"--format", "npy"});
    EXPECT_THAT(text("packed.npy"), HasSubstr("'<f8'")); // scaled: physical values, not what is stored
    EXPECT_THAT(text("can0.npy"), HasSubstr("('data', '|u1', (8,))"));
    EXPECT_THAT(text("temp.npy"), HasSubstr("[('tick', '<i8'), ('value', '<f4')]"));
}

TEST_F(Export, WavFilesAsAnotherLibraryReadsThem)
{
    KrdBuilder file(folder.path("gaps.krd"), gapChannels());
    buildGaps(file);
    run(file, {"--format", "wav", "--fill", "0.25"});
    const std::vector<double> filled[] = {{1, 2, 0.25, 0.25, 5}, {7, 7, 7, 9}, {3}};
    for (size_t i = 0; i < 3; ++i) {
        SF_INFO info = {};
        SNDFILE *wav = sf_open((out / (gapChannels()[i].name + ".wav")).c_str(), SFM_READ, &info);
        ASSERT_NE(wav, nullptr);
        std::vector<double> values(static_cast<size_t>(info.frames));
        sf_read_double(wav, values.data(), info.frames);
        sf_close(wav);
        EXPECT_EQ(info.samplerate, gapChannels()[i].rate);
        EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
        EXPECT_EQ(values, filled[i]);
    }
}

// The one sample that stands out is in the picture, and what is missing is a break in the curve.
TEST_F(Export, APlotKeepsPeaksAndShowsGaps)
{
    KrdBuilder file(folder.path("plot.krd"), {{.name = "<a>"}});
    std::vector<double> values(100'000, 0.0);
    values[54'321] = 1000.0;
    values[7] = NAN;
    file.samples(0, values, 0);
    file.samples(0, {-500, 0}, 200'000);
    file.close();
    const auto terminal = runVu({"plot", file.path(), "--width", "40", "--height", "5"});
    EXPECT_EQ(terminal.status, 0) << terminal.err;
    EXPECT_THAT(terminal.out, StartsWith("<a> [V], 100001 values\n1000 |"));
    EXPECT_THAT(terminal.out, HasSubstr("\n-500 |"));
    ASSERT_EQ(runVu({"plot", file.path(), "-o", folder.path("plot.svg")}).status, 0);
    const std::string svg = readText(folder.path("plot.svg"));
    EXPECT_THAT(svg, HasSubstr("&lt;a&gt; [V]"));
    const std::string path = svg.substr(svg.find(" d=\""));
    EXPECT_EQ(std::ranges::count(path, 'M'), 2); // before and behind the gap; the NaN is within one column
    EXPECT_THAT(path, HasSubstr("V24.0"));       // the peak touches the upper edge
    EXPECT_EQ(runVu({"plot", file.path(), "--from", "300"}).status, 2);
}

} // namespace
} // namespace vu::test
