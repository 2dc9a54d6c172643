// The commands on data files: what they say, how they end, and what they export.
#include <cmath>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/support/cases.h"
#include "tests/support/krd_builder.h"
#include "tests/support/running_vu.h"
#include "vu/krdfile/recording.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;

class KrdCommand : public ::testing::Test {
protected:
    // Runs a command line, in which "@" is the folder; what it exports is in `out`.
    CommandResult run(const std::string &line)
    {
        std::filesystem::remove_all(out);
        Strings words = split(line, ' ');
        for (std::string &word : words)
            if (word[0] == '@')
                word = folder.path() / word.substr(1);
        if (words[0] == "export" && line.find(" -o ") > line.size())
            words.insert(words.end(), {"-o", out});
        return runVu(words);
    }
    std::string exported(const std::string &name) const { return readText(out / name); }

    TempDir folder;
    const std::filesystem::path out = folder.path("out");
};

// Bytes that do not print are numbers.
std::string shown(const std::string &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += std::isprint(byte) || byte == '\n' ? std::string(1, static_cast<char>(byte))
                                                   : fmt::format("\\{:02x}", byte);
    return text;
}

TEST_F(KrdCommand, EveryLineOfTheFile)
{
    KrdBuilder all(folder.path("all"), everyKind());
    buildEverything(all);
    KrdBuilder gaps(folder.path("gaps"),
                    R"([{"name":"a"}, {"name":"b","element":"uint16","element_size":2,"encoding":"rle"},
                        {"name":"c","sample_rate":10},
                        {"name":"d","element":"float64","element_size":8,"sample_rate":5}])");
    gaps.samples(0, {1, 2}, 0);
    gaps.samples(0, {5}, 4);
    gaps.samples(1, {7, 7, 7, 9}, 1);
    gaps.samples(2, {3}, 0);
    gaps.samples(3, {5e-324, 1e23, INFINITY, NAN, -0.0, 9007199254740992}, 0);
    gaps.close();
    KrdBuilder can(folder.path("can"),
                   R"([{"name":"can0","kind":"message_can","sample_rate":0,"element":"can","element_size":21},
                       {"name":"a"}])");
    const std::string eight("\0\1\2\3\4\5\6\7", 8);
    const auto padded =
        canElement(40'000'060, 0x800, 0, "padded"); // its source told neither length nor width
    can.append(0,
               canElement(0, 0x7FF, 0, "") + canElement(39, 0x1, 0x12, "") +
                   canElement(40'000'059, 0x12345678, 0x88, eight) + padded,
               4, 0);
    can.close();
    const std::vector<uint8_t> bytes = all.bytes();
    const std::string whole(bytes.begin(), bytes.end());
    const krd::Block middle = krd::scan(bytes, "all").blocks[20];
    const std::tuple<const char *, size_t, size_t, std::string> damages[] = {
        {"payload", middle.offset + 14, 1, {static_cast<char>(bytes[middle.offset + 14] ^ 4)}},
        {"removed", middle.offset, middle.whole.size(), ""},
        {"inserted", middle.offset, 0, std::string(7, '\0')},
        {"ragged", whole.size() - 9, 9, ""},
        {"lost", 100, 1, "?"},
        {"text", 0, whole.size(), "This is no data file."}};
    for (const auto &[name, at, gone, put] : damages)
        writeText(folder.path(name), std::string(whole).replace(at, gone, put));

    CommandResult result;
    for (std::string latest; const Strings &parts : cases("vu/krd_commands.txt")) {
        SCOPED_TRACE(parts[0] + " > " + parts[1]);
        if (std::exchange(latest, parts[0]) != parts[0])
            result = run(parts[0]);
        const bool isStatus = parts[1].size() == 1;
        EXPECT_EQ(result.status, isStatus ? parts[1][0] - '0' : 0) << result.err;
        EXPECT_THAT('^' + (isStatus ? result.out + result.err : shown(exported(parts[1]))) + '$',
                    HasSubstr(parts[2]));
        if (parts[0].find("-o @mended") < parts[0].size()) {
            EXPECT_THAT(run("verify @mended").out, HasSubstr("whole: "));
        }
    }
}

// The one sample that stands out is in the picture, and what is missing is a break in the curve.
TEST_F(KrdCommand, APlotKeepsPeaksAndShowsGaps)
{
    KrdBuilder file(folder.path("plot"), R"([{"name":"<a>"}])");
    std::vector<double> values(100'000, 0.0);
    values[54'321] = 1000.0;
    values[7] = NAN;
    file.samples(0, values, 0);
    file.samples(0, {-500, 0}, 200'000);
    file.close();
    const auto terminal = run("plot @plot --width 40 --height 5");
    EXPECT_THAT(terminal.out, ::testing::MatchesRegex("<a> .V., 100001 values\n1000 .*\n-500 .*"));
    EXPECT_EQ(run("plot @plot -o @plot.svg").status, 0);
    const std::string svg = readText(folder.path("plot.svg")), path = svg.substr(svg.find(" d=\""));
    EXPECT_THAT(svg, HasSubstr("&lt;a&gt; [V]"));
    EXPECT_EQ(std::ranges::count(path, 'M'), 2); // before and behind the gap; the NaN is within one column
    EXPECT_THAT(path, HasSubstr("V24.0"));       // the peak touches the upper edge
    EXPECT_EQ(run("plot @plot --from 300").status, 2);
}

} // namespace
} // namespace vu::test
