// Test descriptions: every mistake at once, each in its place; what is read out of a good one; the drive
// example.
#include <cmath>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "tests/support/cases.h"
#include "tests/support/running_vu.h"
#include "vu/command.h"
#include "vu/description/description.h"
#include "vu/description/forecast.h"
#include "vu/description/store_rules.h"

namespace vu::test {
namespace {

using Json = nlohmann::ordered_json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A good description, changed by place: a key a line. A text that changes nothing stands for itself.
std::string changed(const std::string &changes)
{
    Json test = Json::parse(R"({"name": "t", "file": "t.krd", "flush_interval": 1, "channels": [
        {"address": "unix:a.sock", "stanza": {"name": "a", "connector": "x", "data_type": "sequential_float32",
                                              "sample_rate": 100}},
        {"address": "unix:can.sock", "stanza": {"name": "can", "connector": "y", "data_type": "message_can"}}]})");
    if (!changes.starts_with("{\"/") && changes != "{}")
        return changes;
    const Json places = Json::parse(changes);
    for (const auto &[place, value] : places.items())
        test[Json::json_pointer(place)] = value;
    return test.dump(1);
}

Description described(const std::string &changes)
{
    return parseDescription(changed(changes), "folder/t.json");
}

TEST(Description, EveryLineOfTheFile)
{
    for (const Strings &parts : cases("vu/descriptions.txt")) {
        Strings said;
        try {
            said = parseDescription(changed(parts[0]), "t.json", Sources::kHere).warnings;
        } catch (const InputError &error) {
            said = split(error.what(), '\n');
        }
        std::vector<::testing::Matcher<std::string>> expected;
        for (const std::string &line : split(parts[1], '\n'))
            expected.push_back(HasSubstr(line));
        EXPECT_THAT(said, ::testing::UnorderedElementsAreArray(expected)) << parts[0];
    }
}

TEST(Description, SourcesGetWhatTheStanzaSays)
{
    const auto read = described(R"({"/channels/0/source": {"kind": "csv", "file": "d.csv", "column": "F",
        "no_value_every": 3, "xcp_types": ["A", 2], "pps": true, "header": false, "sample_rate": 7}})");
    EXPECT_EQ(read.channels[0].source->kind, "csv");
    EXPECT_THAT(read.channels[0].source->arguments,
                ElementsAre("folder/d.csv", "--column=F", "--no-value-every=3", "--xcp-types=A,2", "--pps",
                            "--sample-rate=7", "--data-type=sequential_float32", "--connector=x",
                            "--listen=unix:folder/a.sock"));
    EXPECT_EQ(read.file, "folder/t.krd");
}

TEST(Description, RangesOfStoredTypes)
{
    for (const char *type : {"int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64"}) {
        Store store;
        store.element = type;
        const double most =
            std::ldexp(1.0, static_cast<int>(8 * elementSize(type)) - (type[0] == 'u' ? 0 : 1));
        EXPECT_EQ(rangeWarning(store, 0, most * 0.99), "") << type;
        EXPECT_THAT(rangeWarning(store, 0, most), HasSubstr(type));
        EXPECT_EQ(rangeWarning(store, -1, 0).empty(), type[0] != 'u');
    }
}

TEST(Description, ForecastCountsWhatIsStored)
{
    constexpr double kBlock = 20 + 8 + 12; // framing, position, index entry
    const std::pair<const char *, double> stores[] = {
        {"true", 400 + kBlock}, {R"({"data_type": "int16"})", 200 + kBlock}, {"false", 0}};
    for (const auto &[store, bytes] : stores)
        EXPECT_EQ(forecast(described(R"({"/channels/0/store":)" + std::string(store) + "}")).bytes_per_second,
                  bytes);
}

// What only the library can say of a stanza is shown in the same form, before anything starts.
TEST(Description, CheckAsksTheLibrary)
{
    TempDir folder;
    writeText(folder.path("t.json"), changed(R"({"/channels/0/stanza/connector": "gps",
        "/channels/0/stanza/data_type": "message_raw",
        "/channels/0/gps": {"receiver": "Nobody", "signals": ["latitude"], "sample_rate": 1, "stale": 1, "invalid": 0},
        "/channels/1/signals": [{"name": "s", "data_type": "float32",
        "db_msg_id": "1", "db_bit_start": 60, "db_bit_length": 8, "db_data_format": "ULSB", "scale": 1, "offset": 0,
        "sample_rate": 1, "invalid_data_output_value": 0, "stale_data_expiration_time": 1}]})"));
    const auto refused = runVu({"check", folder.path("t.json")});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err,
                HasSubstr("channels[0].gps.signals[0]: latitude:  Unrecognized GPS type 'Nobody'"));
    EXPECT_THAT(refused.err, HasSubstr("t.json:32: channels[1].signals[0]: Invalid CAN signal JSON"));
    EXPECT_EQ(runVu({"check", VU_SOURCE_DIR "/examples/drive/drive.json"}).status, 0);
}

} // namespace
} // namespace vu::test
