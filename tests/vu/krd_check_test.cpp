// Files that are whole in every byte and do not say the truth, or say what no reader understands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/command.h"
#include "tests/support/krd_builder.h"
#include "tests/support/temp_dir.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using Json = KrdBuilder::Json;

std::vector<std::string> problemsOf(const KrdBuilder &builder)
{
    const std::vector<uint8_t> bytes = builder.bytes();
    return krd::check(krd::scan(bytes, "file")).problems;
}

std::string bytesOf(const auto &...values)
{
    std::string text;
    (text.append(reinterpret_cast<const char *>(&values), sizeof values), ...);
    return text;
}

struct Lie {
    const char *name;
    std::vector<double> samples; // of channel a, behind its first two,
    int64_t start = 0;           // from this number on
    uint32_t group = 0;          // of a block that no index knows, or 0
    std::string payload;
    KrdBuilder::Changes closing;
    std::vector<std::string> problems; // what is said of it, each with this in it
};

TEST(KrdCheck, EachLieIsFoundAndNamed)
{
    const std::vector<TestChannel> channels = {
        {.name = "a"},
        {.name = "r", .element = "int16", .size = 2, .rle = true},
        {.name = "f", .element = "float32", .rle = true},
        {.name = "raw", .kind = "message_raw", .element = "bytes", .size = 0}};
    const int64_t three = 3; // a position
    const std::string lost = "1 blocks are not in the index", nowhere = bytesOf(uint64_t{0}, uint32_t{0});
    const Lie lies[] = {
        {"truth", {}, 0, 0, "", {}, {}},
        {"received", {}, 0, 0, "", {{"/ledger/0/received", 4}}, {"a: the ledger does not close"}},
        {"less",
         {},
         0,
         0,
         "",
         {{"/ledger/0/stored", 1}, {"/ledger/0/received", 4}},
         {"a: 2 elements in the file"}},
        {"more",
         {},
         0,
         0,
         "",
         {{"/ledger/1/stored", 9}, {"/ledger/1/received", 12}},
         {"r: 6 of 9 stored elements"}},
        {"no ledger", {}, 0, 0, "", {{"/ledger/3/group", 99}}, {"raw: the ledger does not know it"}},
        {"no closing", {}, 0, 0, "", {{"/end", 1}}, {"'end': expected a text", "there is no closing block"}},
        {"group", {}, 0, 9, "", {}, {"1 blocks of group 9, which the catalogue does not know", lost}},
        {"closed twice",
         {},
         0,
         KRD_GROUP_CATALOGUE,
         "{}",
         {},
         {"is a closing block, and more blocks follow"}},
        {"overlap", {1, 2}, 1, 0, "", {}, {"a: the block at"}},
        {"gap that three discarded ones explain", {1}, 5, 0, "", {}, {}},
        {"gap", {1}, 6, 0, "", {}, {"a: 1 samples are missing"}},
        {"negative", {1}, -6, 0, "", {}, {"begins at sample -6"}},
        {"half a sample", {}, 0, 2, bytesOf(three) + "...", {}, {"a: the block at", lost}},
        {"no position", {}, 0, 2, "1234567", {}, {"a: the block at", lost}},
        {"negative run", {}, 0, 3, bytesOf(three, int16_t{-1}, int16_t{5}), {}, {"r: the block at", lost}},
        {"part of a run", {}, 0, 4, bytesOf(three, 1.5F, 5.0F), {}, {"f: the block at", lost}},
        {"long message", {}, 0, 5, bytesOf(three, UINT32_MAX, three), {}, {"raw: the block at", lost}},
        {"odd index",
         {},
         0,
         1,
         nowhere + "odd",
         {},
         {"not made of whole entries", "1 index entries point at no"}},
        {"disk full", {}, 0, 1, nowhere, {{"/end", "disk_full"}}, {}},
        {"index blocks", {}, 0, 0, "", {{"/index_blocks", {12}}}, {"the closing block names 1 index blocks"}},
    };
    TempDir folder;
    for (const Lie &lie : lies) {
        SCOPED_TRACE(lie.name);
        KrdBuilder file(folder.path("lie.krd"), channels);
        file.samples(0, {1, 2}, 0);
        file.samples(1, {7, 7, 7}, 0);
        if (!lie.samples.empty())
            file.samples(0, lie.samples, lie.start);
        if (lie.group > 0 || !lie.payload.empty())
            file.loose(lie.group, lie.payload);
        file.close(lie.closing);
        std::vector<::testing::Matcher<std::string>> expected;
        for (const std::string &problem : lie.problems)
            expected.push_back(HasSubstr(problem));
        EXPECT_THAT(problemsOf(file), ::testing::UnorderedElementsAreArray(expected));
    }
}

TEST(KrdCheck, ACatalogueThatCanNotBeReadSaysWhere)
{
    const std::tuple<const char *, Json, const char *> cases[] = {
        {"/format", "other", "'format': expected \"krd\""},
        {"/version", 2, "'version': expected 1"},
        {"/ticks_per_second", 0, "'ticks_per_second'"},
        {"/channels", 7, "'channels': expected an array"},
        {"/channels/0", 7, "channels[0]: expected an object"},
        {"/channels/1/group", 2, "expected group 2 once"},
        {"/channels/1/group", 1, "'group': expected a number from 2"},
        {"/channels/0/element_size", 8, "channels[0]: 'element'"},
        {"/channels/0/sample_rate", 0, "'sample_rate': expected a number above 0"},
        {"/channels/0/scale", "1", "'scale': expected a finite number"},
        {"/channels/4/element_size", 20, "channels[4]: 'element'"},
        {"/channels/8/encoding", "rle", "channels[8]: 'element'"},
    };
    TempDir folder;
    for (const auto &[place, value, said] : cases) {
        KrdBuilder file(folder.path("bad.krd"), kEveryKind, 4096, {{place, value}});
        buildEverything(file);
        EXPECT_THAT(problemsOf(file), ::testing::Contains(HasSubstr(said)));
        const std::vector<uint8_t> bytes = file.bytes();
        EXPECT_THROW(krd::requireCatalogue(krd::glance(bytes, "file"), "file"), InputError);
    }
    // What a later version adds can be copied and listed; only its samples stay closed.
    KrdBuilder later(folder.path("later.krd"), kEveryKind, 4096,
                     {{"/channels/0/encoding", "zip"}, {"/more", 1}});
    buildEverything(later);
    EXPECT_THAT(problemsOf(later), ::testing::IsEmpty());
}

TEST(KrdCheck, InfoTellsWhatTheFileSaysWithoutReadingItsBlocks)
{
    TempDir folder;
    KrdBuilder file(folder.path("all.krd"), kEveryKind);
    buildEverything(file);
    std::vector<uint8_t> bytes = file.bytes();
    bytes[bytes.size() / 2] ^= 1; // info does not look there, and verify does
    writeBytes(file.path(), bytes);
    const auto result = runVu({"info", file.path(), "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const Json json = Json::parse(result.out);
    EXPECT_EQ(json["seconds"], 1.5);
    EXPECT_EQ(json["channels"].size(), kEveryKind.size());
    EXPECT_EQ(json["channels"][2]["scale"], 0.5);
    EXPECT_EQ(json["channels"][0]["stored"], 1200);
    EXPECT_EQ(json["channels"][0]["discarded"]["unfinished"], 2);
    EXPECT_THAT(runVu({"info", file.path()}).out, HasSubstr("int16 x 0.5 + 10"));
    const Json verified = Json::parse(runVu({"verify", file.path(), "--json"}).out);
    EXPECT_FALSE(verified["sound"]);
    EXPECT_EQ(verified["damage"].size(), 1u);
    EXPECT_EQ(verified["damage"][0]["bytes"], verified["damaged_bytes"]);
}

} // namespace
} // namespace vu::test
