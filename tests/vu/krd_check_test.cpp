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

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Json = KrdBuilder::Json;

struct Lie {
    const char *name;
    std::function<void(KrdBuilder &)> record; // between catalogue and closing block
    KrdBuilder::Edit closing;
    std::vector<std::string> problems; // what is said of it, each with this in it; none: nothing to say
};

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

TEST(KrdCheck, EachLieIsFoundAndNamed)
{
    const auto nothing = [](KrdBuilder &) {};
    const auto at = [](int64_t position, const std::string &rest) { return bytesOf(position) + rest; };
    const std::vector<TestChannel> channels = {{.name = "a"},
                                               {.name = "r", .element = "int16", .rle = true},
                                               {.name = "f", .element = "float32", .rle = true},
                                               {.name = "raw", .kind = "message_raw", .element = "bytes"}};
    const Lie lies[] = {
        {"truth", nothing, {}, {}},
        {"received",
         nothing,
         [](Json &json) { json["ledger"][0]["received"] = 4; },
         {"a: the ledger does not close"}},
        {"stored less",
         nothing,
         [](Json &json) {
             json["ledger"][0].update({{"stored", 1}, {"received", 4}});
         },
         {"a: 2 elements in the file, and the ledger says 1"}},
        {"stored more",
         nothing,
         [](Json &json) {
             json["ledger"][1].update({{"stored", 9}, {"received", 12}});
         },
         {"r: 6 of 9 stored elements are not in the file"}},
        {"no ledger",
         nothing,
         [](Json &json) { json["ledger"].erase(3); },
         {"raw: the ledger does not know it"}},
        {"no closing",
         [](KrdBuilder &file) {
             file.close();
             file.loose(9, "");
         },
         [](Json &json) { json["end"] = 1; },
         {"'end': expected a text", "9, which the catalogue", "is a closing block, and more",
          "no closing block", "not in the index"}},
        {"overlap",
         [](KrdBuilder &file) {
             file.samples(0, {1, 2}, 1);
         },
         {},
         {"a: the block at"}},
        {"gap told",
         [](KrdBuilder &file) {
             file.samples(0, {1, 2}, 5);
         },
         {},
         {}}, // three discarded ones explain it
        {"gap", [](KrdBuilder &file) { file.samples(0, {1}, 6); }, {}, {"a: 1 samples are missing"}},
        {"negative", [](KrdBuilder &file) { file.samples(0, {1}, -6); }, {}, {"begins at sample -6"}},
        {"unlisted",
         [&](KrdBuilder &file) { file.loose(2, at(2, "....")); },
         [](Json &json) {
             json["ledger"][0].update({{"stored", 3}, {"received", 6}});
         },
         {"1 blocks are not in the index"}},
        {"half a sample",
         [&](KrdBuilder &file) { file.loose(2, at(2, "...")); },
         {},
         {"a: the block at", "1 blocks are not in the index"}},
        {"no position",
         [&](KrdBuilder &file) { file.loose(2, "1234567"); },
         {},
         {"a: the block at", "not in the index"}},
        {"negative run",
         [&](KrdBuilder &file) { file.loose(3, at(3, bytesOf(int16_t{-1}, int16_t{5}))); },
         {},
         {"r: the block at", "not in the index"}},
        {"half a run",
         [&](KrdBuilder &file) { file.loose(4, at(3, bytesOf(1.5F, 5.0F))); },
         {},
         {"f: the block at", "not in the index"}},
        {"long message",
         [&](KrdBuilder &file) { file.loose(5, at(3, bytesOf(uint32_t{0xFFFFFFFF}, int64_t{1}))); },
         {},
         {"raw: the block at", "not in the index"}},
        {"index to nothing",
         [](KrdBuilder &file) { file.loose(1, bytesOf(uint64_t{0}, uint32_t{0}) + "odd"); },
         {},
         {"not made of whole entries", "1 index entries point at no whole block"}},
        {"disk full",
         [](KrdBuilder &file) { file.loose(1, bytesOf(uint64_t{0}, uint32_t{0})); },
         [](Json &json) { json["end"] = "disk_full"; },
         {}},
        {"index blocks",
         nothing,
         [](Json &json) { json["index_blocks"] = {12}; },
         {"the closing block names 1 index blocks"}},
    };
    TempDir folder;
    for (const Lie &lie : lies) {
        SCOPED_TRACE(lie.name);
        KrdBuilder file(folder.path("lie.krd"), channels);
        file.samples(0, {1, 2}, 0);
        file.samples(1, {7, 7, 7}, 0);
        lie.record(file);
        file.close(lie.closing);
        std::vector<::testing::Matcher<std::string>> expected;
        for (const std::string &problem : lie.problems)
            expected.push_back(HasSubstr(problem));
        EXPECT_THAT(problemsOf(file), ::testing::UnorderedElementsAreArray(expected));
    }
}

TEST(KrdCheck, ACatalogueThatCanNotBeReadSaysWhere)
{
    struct Case {
        KrdBuilder::Edit spoil;
        const char *said;
    };
    const Case cases[] = {
        {[](Json &json) { json["format"] = "other"; }, "'format': expected \"krd\""},
        {[](Json &json) { json["version"] = 2; }, "'version': expected 1"},
        {[](Json &json) { json["ticks_per_second"] = 0; }, "'ticks_per_second'"},
        {[](Json &json) { json.erase("channels"); }, "'channels': expected an array"},
        {[](Json &json) { json["channels"][0] = 7; }, "channels[0]: expected an object"},
        {[](Json &json) { json["channels"][1]["group"] = 2; }, "expected group 2 once"},
        {[](Json &json) { json["channels"][1]["group"] = 1; }, "'group': expected a number from 2"},
        {[](Json &json) { json["channels"][0]["element_size"] = 8; }, "channels[0]: 'element'"},
        {[](Json &json) { json["channels"][0]["sample_rate"] = 0; },
         "'sample_rate': expected a number above 0"},
        {[](Json &json) { json["channels"][0]["scale"] = "1"; }, "'scale': expected a finite number"},
        {[](Json &json) { json["channels"][4]["element_size"] = 20; }, "channels[4]: 'element'"},
        {[](Json &json) { json["channels"][8]["encoding"] = "rle"; }, "channels[8]: 'element'"},
    };
    TempDir folder;
    for (const Case &one : cases) {
        KrdBuilder file(folder.path("bad.krd"), kEveryKind, 4096, one.spoil);
        buildEverything(file);
        EXPECT_THAT(problemsOf(file), ::testing::Contains(HasSubstr(one.said)));
        const std::vector<uint8_t> bytes = file.bytes();
        EXPECT_THROW(krd::requireCatalogue(krd::glance(bytes, "file"), "file"), InputError);
    }
    // What a later version adds can be copied and listed; only its samples stay closed.
    KrdBuilder later(folder.path("later.krd"), kEveryKind, 4096, [](Json &json) {
        json["channels"][0]["encoding"] = "zip";
        json["more"] = 1;
    });
    buildEverything(later);
    EXPECT_THAT(problemsOf(later), IsEmpty());
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
