// Test descriptions: every mistake at once, each in its place; what is read out of a good one; the drive
// example.
#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

#include "tests/support/command.h"
#include "tests/support/temp_dir.h"
#include "vu/command.h"
#include "vu/record/description.h"
#include "vu/record/forecast.h"
#include "vu/record/store_rules.h"

namespace vu::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// The lines that a description is refused with.
std::vector<std::string> mistakes(const std::string &text)
{
    std::vector<std::string> lines;
    try {
        parseDescription(text, "t.json");
    } catch (const InputError &error) {
        std::istringstream all(error.what());
        for (std::string line; std::getline(all, line);)
            lines.push_back(line);
    }
    return lines;
}

// A good channel with `more` put in front of its end.
std::string channel(const std::string &name, const std::string &more = "",
                    const std::string &stanza = R"("data_type": "sequential_float32", "sample_rate": 100)")
{
    return R"({"address": "unix:)" + name + R"(.sock", "stanza": {"name": ")" + name +
           R"(", "connector": "x", )" + stanza + "}" + more + "}";
}

std::string test(const std::string &channels, const std::string &more = "")
{
    return R"({"name": "t", "file": "t.krd", "channels": [)" + channels + "]" + more + "}";
}

TEST(Description, EachMistakeIsNamedWithLineAndKey)
{
    const std::string can = R"("data_type": "message_can")";
    const std::string held =
        R"("data_type": "message_float64_ntp", "sample_rate": 5, "stale_data_expiration_time": 1)";
    const std::pair<std::string, std::string> cases[] = {
        {"", "t.json:1: not JSON: "},
        {"{\"a\": 1,\n\"a\": 2}", "t.json:2: a: stands twice"},
        {std::string(70, '['), "t.json:1: nested too deep"},
        {"[1]", "t.json:1: expected an object"},
        {"{\"name\":\n7}", "t.json:2: name: expected a text that is not empty"},
        {test(channel("a"), ",\n\"colour\": 1"), "t.json:2: colour: is no key of a description"},
        {test(channel("a", ", \"colour\": 1")), "channels[0].colour: is no key"},
        {test(channel("a"), ", \"start_time\": \"soon\""), "start_time: expected"},
        {test(channel("a"), ", \"flush_interval\": 0"), "flush_interval: expected a number above 0"},
        {test(channel("a"), ", \"duration\": 1e400"), "number overflow"},
        {test(channel("a") + ",\n" + channel("a")), "t.json:2: channels[1].stanza.name: the name a is taken"},
        {test(channel("a") + ",\n" + channel("a")), "t.json:2: channels[1].address: is taken"},
        {test(channel("a", ", \"pipe_rate\": 2e6")), "pipe_rate: expected a number above 0, at most 1000000"},
        {test(channel("a", "", R"("data_type": "sequential_float32", "sample_rate": "9")")),
         "stanza.sample_rate"},
        {test(channel("a", "", R"("data_type": "sequential_float16")")), "stanza.data_type: expected"},
        {test(channel("a", "", held)), "stanza.invalid_data_output_value: is missing"},
        {test(channel("a", ", \"store\": {\"data_type\": \"int12\"}")), "store.data_type: expected one of"},
        {test(channel("a", ", \"store\": {\"data_type\": \"int8\", \"scale\": 0}")), "store.scale: expected"},
        {test(channel("a", ", \"store\": {\"encoding\": \"rle\"}")),
         "store.encoding: run-length needs a data_type"},
        {test(channel("a", ", \"store\": {\"data_type\": \"float32\", \"encoding\": \"rle\"}")), "float64"},
        {test(channel("a", ", \"store\": {\"data_type\": \"int8\"}", can)), "only channels of numbers"},
        {test(channel("a", ", \"store\": true", R"("data_type": "message_xcp_ip")")), "expected false"},
        {test(channel("a", ", \"signals\": [{\"name\": \"s\"}]", can)), "signals[0].db_msg_id: is missing"},
        {test(channel("a", ", \"signals\": []")), "this kind of channel carries no signals"},
        {test(channel("a",
                      ", \"dbc\": {\"file\": \"no.dbc\", \"sample_rate\": 1, \"stale\": 1, \"invalid\": 0}",
                      can)),
         "dbc.file: "},
        {test(channel("a", ", \"gps\": {}", can)), "only GPS channels"},
        {test(channel("a"),
              R"(, "monitors": [{"name": "m", "rate": 1, "channels": [{"channel": "b", "mode": "upper",
            "upper": 1}]}])"),
         "there is no periodic channel b"},
        {test(channel("a"), R"(, "monitors": [{"name": "m", "rate": 1, "channels": [{"channel": "a"}]}])"),
         "lower"},
        {test(R"({"address": "tcp:host", "stanza": 3})"), "channels[0].stanza: expected an object"},
        {test(R"({"address": "tcp:host:0", "stanza": {}})"), "channels[0].address: expected a port from 1"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_THAT(mistakes(text), ::testing::Contains(HasSubstr(expected))) << text;
    EXPECT_THAT(mistakes(R"({"name": 1, "channels": [{"stanza": {}}], "x": 0})"), ::testing::SizeIs(7));
    EXPECT_THAT(mistakes(test(channel("a"))), IsEmpty());
}

TEST(Description, SourcesGetWhatTheStanzaSays)
{
    const auto read = parseDescription(
        test(channel("a", R"(, "source": {"kind": "csv", "file": "d.csv", "column": "F", "no_value_every": 3,
             "xcp_types": ["A", 2], "pps": true, "header": false, "sample_rate": 7})")),
        "folder/t.json");
    EXPECT_EQ(read.channels[0].source->kind, "csv");
    EXPECT_THAT(read.channels[0].source->arguments,
                ElementsAre("folder/d.csv", "--column=F", "--no-value-every=3", "--xcp-types=A,2", "--pps",
                            "--sample-rate=7", "--data-type=sequential_float32", "--connector=x",
                            "--listen=unix:folder/a.sock"));
    EXPECT_EQ(read.file, "folder/t.krd");
}

TEST(Description, WarnsWhereATypeCannotHoldTheRange)
{
    const auto warnings = [](const std::string &store, const std::string &more = "") {
        return parseDescription(test(channel("a", ", \"store\": " + store), more), "t.json").warnings;
    };
    EXPECT_THAT(warnings(R"({"data_type": "int16", "scale": 0.001, "range": [-32.768, 32.767]})"), IsEmpty());
    EXPECT_THAT(warnings(R"({"data_type": "int16", "scale": 0.001, "range": [-32.768, 32.768]})"),
                ElementsAre(HasSubstr("store: int16 would store 32.768 as 32768")));
    EXPECT_THAT(warnings(R"({"data_type": "uint8", "offset": 1})", R"(, "monitors": [{"name": "m", "rate": 1,
        "channels": [{"channel": "a", "lower": 0, "upper": 2}]}])"),
                ElementsAre(HasSubstr("uint8 would store 0 as -1")));
    EXPECT_THAT(warnings(R"({"limit": 5, "scale": 2})"),
                ElementsAre(HasSubstr("scale and offset are not used")));
    for (const char *type : {"int8", "uint8", "int16", "uint16", "int32", "uint32", "int64", "uint64"}) {
        Store store;
        store.element = type;
        const double most =
            std::ldexp(1.0, static_cast<int>(8 * elementSize(type)) - (type[0] == 'u' ? 0 : 1));
        EXPECT_THAT(rangeWarning(store, 0, most * 0.99), IsEmpty()) << type;
        EXPECT_THAT(rangeWarning(store, 0, most), HasSubstr(type));
        EXPECT_EQ(rangeWarning(store, -1, 0).empty(), type[0] != 'u');
    }
}

TEST(Description, ForecastCountsWhatIsStored)
{
    const auto bytes = [](const std::string &more) {
        return forecast(parseDescription(test(channel("a", more), ", \"flush_interval\": 1"), "t.json"))
            .bytes_per_second;
    };
    constexpr double kBlock = 20 + 8 + 12; // framing, position, index entry
    EXPECT_EQ(bytes(""), 400 + kBlock);
    EXPECT_EQ(bytes(R"(, "store": {"data_type": "int16"})"), 200 + kBlock);
    EXPECT_EQ(bytes(R"(, "store": false)"), 0);
}

// What only the library can say of a stanza is shown in the same form, before anything starts.
TEST(Description, CheckAsksTheLibrary)
{
    TempDir folder;
    const auto check = [&](const std::string &text) {
        writeText(folder.path("t.json"), text);
        return runVu({"check", folder.path("t.json")});
    };
    const auto refused = check(test(channel("a", R"(, "signals": [
        {"name": "s", "data_type": "float32", "db_msg_id": "1", "db_bit_start": 60, "db_bit_length": 8, "db_data_format": "ULSB",
         "scale": 1, "offset": 0, "sample_rate": 1, "invalid_data_output_value": 0, "stale_data_expiration_time": 1}])",
                                            R"("data_type": "message_can")")));
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("t.json:2: channels[0].signals[0]: Invalid CAN signal JSON"));
    EXPECT_EQ(check(test(channel("a"))).status, 0);
    EXPECT_EQ(runVu({"check", VU_SOURCE_DIR "/examples/drive/drive.json"}).status, 0);
}

} // namespace
} // namespace vu::test
