// The commands on data files: what they say, how they end, and what they export.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "tests/support/cases.h"
#include "tests/support/krd_builder.h"
#include "tests/support/running_vu.h"
#include "vu/krdfile/check.h"
#include "vu/krdfile/rewrite.h"

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
        canElement(40'000'060, 0x800, 0, "padded"); // its source gave neither length nor width
    can.append(0,
               canElement(0, 0x7FF, 0, "") + canElement(39, 0x1, 0x12, "") +
                   canElement(40'000'059, 0x12345678, 0x88, eight) + padded,
               4, 0);
    can.close();
    KrdBuilder none(
        folder.path("none"),
        R"([{"name":"i","element":"int16","element_size":2,"scale":0.5,"offset":1,"invalid":-32768},
                        {"name":"f","invalid":-3.4028234663852886e38},
                        {"name":"m","kind":"message_float","sample_rate":0,"element_size":12,"invalid":-1}])");
    none.samples(0, {1, -16383, 2}, 0);
    none.samples(1, {0.5, -3.4028234663852886e38, 0.25}, 0);
    none.append(2, bytesOf(__builtin_bswap64(0), -1.0F, __builtin_bswap64(40'000'000), 2.0F), 2, 0);
    none.close();
    // Names that would write lines and colours of their own; runs that mean more rows than a disk holds.
    KrdBuilder hostile(
        folder.path("hostile"),
        R"([{"name":"x\n(0.0) can1 7FF#00 ","kind":"message_can","sample_rate":0,"element":"can","element_size":21},
            {"name":"\u001b[31mred"}, {"name":"r","element":"float64","element_size":8,"encoding":"rle"}])");
    hostile.append(0, canElement(0, 0x123, 0, ""), 1, 0);
    hostile.samples(1, {1}, 0);
    hostile.samples(1, {1}, 5'000'000'000);
    hostile.loose(4, bytesOf(int64_t{0}, 4e12, 1.0));
    hostile.close();
    const KrdBuilder::Json deep = KrdBuilder::Json::parse(std::string(100, '[') + std::string(100, ']'));
    KrdBuilder(folder.path("deep"), R"([{"name":"a"}])", {{"/deep", deep}}).close();
    const std::vector<uint8_t> bytes = all.bytes();
    const std::string whole(bytes.begin(), bytes.end());
    const krd::Block middle = krd::scan(bytes, "all").blocks[20]; // its place; the file is gone
    const std::tuple<const char *, size_t, size_t, std::string> damages[] = {
        {"payload", middle.offset + 14, 1, {static_cast<char>(bytes[middle.offset + 14] ^ 4)}},
        {"removed", middle.offset, middle.size, ""},
        {"inserted", middle.offset, 0, std::string(7, '\0')},
        {"ragged", whole.size() - 9, 9, ""},
        {"lost", 100, 1, "?"},
        {"two", whole.size(), 0, whole},
        {"another", whole.size(), 0, readText(gaps.path)},
        {"twice", middle.offset, 0, whole.substr(middle.offset, middle.size)},
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
            EXPECT_THAT(run("verify @mended").out, HasSubstr("whole: ")) << parts[0];
        }
    }
}

// Wherever one block of a file is there twice: verify notices, and what recover makes of it is sound and
// holds every sample and message once.
TEST_F(KrdCommand, ADoubledBlockIsLeftOutWhichEverItIs)
{
    KrdBuilder all(folder.path("all"), everyKind());
    buildEverything(all);
    const std::vector<uint8_t> bytes = all.bytes();
    const krd::Recording whole = krd::scan(bytes, "all");
    for (const krd::Block &block : whole.blocks) {
        SCOPED_TRACE(block.offset);
        std::vector<uint8_t> doubled = bytes;
        doubled.insert(doubled.begin() + static_cast<ptrdiff_t>(block.offset),
                       bytes.begin() + static_cast<ptrdiff_t>(block.offset),
                       bytes.begin() + static_cast<ptrdiff_t>(block.offset + block.size));
        const krd::Recording found = krd::scan(doubled, "doubled");
        EXPECT_FALSE(krd::check(found).sound());
        std::vector<uint8_t> mended;
        krd::rewrite(found, [&](krd::Bytes more) { mended.insert(mended.end(), more.begin(), more.end()); });
        const krd::Recording again = krd::scan(mended, "mended");
        EXPECT_THAT(krd::check(again).problems, ::testing::IsEmpty());
        for (size_t i = 0; i < whole.closing->ledger.size(); ++i)
            EXPECT_EQ(again.closing->ledger[i].stored, whole.closing->ledger[i].stored) << i;
    }
}

// The command with its standard output or error elsewhere.
TEST_F(KrdCommand, AnOutputThatCannotBeWrittenIsAFailureAndAClosedStandardErrorIsNone)
{
    KrdBuilder all(folder.path("all"), everyKind());
    buildEverything(all);
    const std::string file = folder.path("all"), vu = VU_COMMAND;
    const auto shell = [](const std::string &line) {
        const int status = pclose(popen(line.c_str(), "r"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    for (const std::string words :
         {"info ", "info --json ", "verify ", "verify --json ", "plot ", "export --force -o @out "}) {
        std::string line = vu + ' ' + words + file;
        if (const size_t at = line.find('@'); at < line.size())
            line.replace(at, 1, folder.path() / "");
        const std::string err = folder.path("err");
        EXPECT_EQ(shell(line + " >/dev/full 2>" + err), 1) << words;
        EXPECT_THAT(readText(err), HasSubstr("standard output cannot be written: No space left")) << words;
        EXPECT_EQ(shell(line + " >/dev/null 2>&-"), 0) << words;
    }
    EXPECT_EQ(shell(vu + " --help >/dev/full 2>/dev/null"), 1);
    EXPECT_EQ(shell(vu + " info /nowhere 2>&-"), 2);
    if (VU_SANITIZED)
        return; // a sanitizer needs more address space than any limit leaves it
    // Less address space than the file has bytes; the file is a hole, and no data file.
    EXPECT_EQ(
        shell("truncate -s 3G " + file + "; ulimit -v 1500000; " + vu + " verify " + file + " >/dev/null"),
        3);
}

// A file that loses its end after it was opened: a message, and no signal.
TEST_F(KrdCommand, AFileThatBecomesShorterWhileItIsReadIsAMessage)
{
    KrdBuilder all(folder.path("all"), everyKind());
    buildEverything(all);
    const krd::Recording recording = krd::scan(krd::openInput(all.path));
    std::filesystem::resize_file(all.path, 1000);
    krd::BlockReader reader;
    try {
        reader.payload(recording.blocks.back());
        FAIL() << "read from beyond the end";
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), HasSubstr("all: became shorter while it was read"));
    }
}

// Lines of the picture and of the table are as wide as the terminal says, and not wider.
TEST_F(KrdCommand, PictureAndTableKeepToTheWidthOfTheTerminal)
{
    KrdBuilder file(folder.path("wide"),
                    R"([{"name":"a name that is longer than anybody wants in a table of channels"}])");
    file.samples(0, {1, -1.23456e300, 1e-30, 3}, 0);
    file.close();
    for (const size_t width : {40, 80, 133}) {
        setenv("COLUMNS", std::to_string(width).c_str(), 1);
        for (const char *command : {"plot @wide", "info @wide"}) {
            const Strings lines = split(run(command).out, '\n');
            for (const std::string &line : std::span(lines).subspan(command[0] == 'i' ? 2 : 0)) {
                const auto characters =
                    std::ranges::count_if(line, [](char c) { return (c & 0xC0) != 0x80; });
                EXPECT_LE(characters, std::max<size_t>(width, command[0] == 'i' ? 66 : 0)) << line;
            }
        }
    }
    unsetenv("COLUMNS");
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
    EXPECT_EQ(std::ranges::count(path, 'M'), 2); // before and after the gap; the NaN is within one column
    EXPECT_THAT(path, HasSubstr("V24.0"));       // the peak touches the upper edge
    EXPECT_EQ(run("plot @plot --from 300").status, 2);
}

} // namespace
} // namespace vu::test
