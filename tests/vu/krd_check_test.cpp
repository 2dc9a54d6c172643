// Files that are whole in every byte and do not say the truth, or say what no reader understands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/command.h"
#include "tests/support/krd_builder.h"
#include "tests/support/split.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using Json = KrdBuilder::Json;

TEST(KrdCheck, EachLieIsFoundAndNamed)
{
    const char *const channels = R"([{"name":"a"},
        {"name":"r","element":"int16","element_size":2,"encoding":"rle"},
        {"name":"f","encoding":"rle"},
        {"name":"raw","kind":"message_raw","sample_rate":0,"element":"bytes","element_size":0},
        {"name":"can","kind":"message_can","sample_rate":0,"element":"can","element_size":21},
        {"name":"temp","kind":"message_float","sample_rate":0,"element_size":12}])";
    TempDir folder;
    for (const std::string &line : split(readText(VU_SOURCE_DIR "/tests/vu/lies.txt"), '\n')) {
        if (line[0] == '/')
            continue;
        SCOPED_TRACE(line);
        const Json lie = Json::parse(line);
        KrdBuilder file(folder.path("lie.krd"), channels, lie.value("catalogue", Json()));
        file.samples(0, {1, 2}, 0);
        file.samples(1, {7, 7, 7}, 0);
        if (lie.contains("samples"))
            file.samples(0, lie["samples"], lie["start"]);
        if (lie.contains("payload")) {
            const std::vector<uint8_t> payload = lie["payload"];
            file.loose(lie["group"], std::string(payload.begin(), payload.end()));
        }
        file.close(lie.value("closing", Json()));
        std::vector<::testing::Matcher<std::string>> expected;
        for (const std::string problem : lie["says"])
            expected.push_back(HasSubstr(problem));
        const std::vector<uint8_t> bytes = file.bytes();
        const krd::Recording recording = krd::scan(bytes, "file");
        EXPECT_THAT(krd::check(recording).problems, ::testing::UnorderedElementsAreArray(expected));
        if (recording.catalogue)
            continue;
        EXPECT_THROW(krd::requireCatalogue(krd::glance(bytes, "file"), "file"), InputError);
    }
}

TEST(KrdCheck, InfoTellsWhatTheFileSaysWithoutReadingItsBlocks)
{
    TempDir folder;
    KrdBuilder file(folder.path("all.krd"), everyKind());
    buildEverything(file);
    std::vector<uint8_t> bytes = file.bytes();
    bytes[bytes.size() / 2] ^= 1; // info does not look there, and verify does
    writeBytes(file.path, bytes);
    const auto result = runVu({"info", file.path, "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const Json json = Json::parse(result.out);
    EXPECT_EQ(json["seconds"], 1.5);
    EXPECT_EQ(json["channels"].size(), 10u);
    EXPECT_EQ(json["channels"][2]["scale"], 0.5);
    EXPECT_EQ(json["channels"][0]["stored"], 1200);
    EXPECT_EQ(json["channels"][0]["discarded"]["unfinished"], 2);
    EXPECT_THAT(runVu({"info", file.path}).out, HasSubstr("int16 x 0.5 + 10"));
    const Json verified = Json::parse(runVu({"verify", file.path, "--json"}).out);
    EXPECT_FALSE(verified["sound"]);
    EXPECT_EQ(verified["damage"].size(), 1u);
    EXPECT_EQ(verified["damage"][0]["bytes"], verified["damaged_bytes"]);
}

} // namespace
} // namespace vu::test
