// Files that are whole in every byte and do not say the truth, or say what no reader understands.
#include <gmock/gmock.h>

#include "tests/support/cases.h"
#include "tests/support/krd_builder.h"
#include "vu/command.h"
#include "vu/krdfile/check.h"

namespace vu::test {
namespace {

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
    for (const Strings &parts : cases("vu/lies.txt")) {
        SCOPED_TRACE(parts[0]);
        const Json lie = Json::parse(parts[0]);
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
            expected.push_back(::testing::HasSubstr(problem));
        const std::vector<uint8_t> bytes = file.bytes();
        const krd::Recording recording = krd::scan(bytes, "file");
        EXPECT_THAT(krd::check(recording).problems, ::testing::UnorderedElementsAreArray(expected));
        if (!recording.catalogue) {
            EXPECT_THROW(krd::requireCatalogue(krd::glance(bytes, "file")), InputError);
        }
    }
}

} // namespace
} // namespace vu::test
