// Test descriptions: every mistake at once, each in its place; what is read out of a good one, and filled in;
// the drive example.
#include <cmath>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sndfile.hh>
#include <sys/resource.h>
#include <sys/statvfs.h>

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

std::vector<::testing::Matcher<std::string>> partsOf(const std::string &lines)
{
    std::vector<::testing::Matcher<std::string>> expected;
    for (const std::string &line : split(lines, '\n'))
        expected.push_back(HasSubstr(line));
    return expected;
}

TEST(Description, EveryMistakeIsNamedAtOnceInItsPlace)
{
    ReadOptions options;
    options.sources = Sources::kHere;
    for (const Strings &parts : cases("vu/descriptions.txt")) {
        Strings said;
        try {
            for (const Finding &warning : parseDescription(changed(parts[0]), "t.json", options).warnings)
                said.push_back(warning.toLine());
        } catch (const DescriptionError &error) {
            said = split(error.what(), '\n');
        }
        EXPECT_THAT(said, ::testing::UnorderedElementsAreArray(partsOf(parts[1]))) << parts[0];
    }
}

// Texts that no table of lines can hold.
TEST(Description, WhatIsNoJsonInUtf8IsRefusedInOneLine)
{
    const std::pair<std::string, const char *> texts[] = {
        {"\xEF\xBB\xBF{}", "t.json:1: begins with a byte order mark"},
        {std::string("\xFF\xFE{\0}\0", 6), "t.json:1: is UTF-16"},
        {"{\n\"name\": \"\xFF\"}", "t.json:2: not UTF-8"},
        {"{\n\xFF}", "t.json:2: not JSON"},
        {std::string(200000, '['), "t.json:1: nested deeper than 64 levels"}};
    for (const auto &[text, refusal] : texts) {
        try {
            parseDescription(text, "t.json");
            ADD_FAILURE() << "not refused: " << refusal;
        } catch (const DescriptionError &error) {
            EXPECT_THAT(split(error.what(), '\n'), ElementsAre(HasSubstr(refusal)));
            EXPECT_LT(std::string(error.what()).size(), 500u);
        }
    }
}

// A folder with a description in which the command runs.
class CheckedFolder : public ::testing::Test {
protected:
    CheckedFolder() { std::filesystem::current_path(folder_.path()); }
    ~CheckedFolder() override { std::filesystem::current_path(before_); }

    CommandResult check(const std::string &text, Strings options = {})
    {
        writeText("t.json", text);
        options.insert(options.begin(), {"check", "t.json"});
        return runVu(options);
    }

private:
    std::filesystem::path before_ = std::filesystem::current_path();
    TempDir folder_;
};

TEST_F(CheckedFolder, WhatRunWouldRefuseIsRefusedInTheSameRound)
{
    std::filesystem::create_directory("sub");
    writeText("old.krd", "old");
    writeText("empty", "");
    writeText("data.csv", "t,F\n0.000,1\n0.001,2\n0.002,3\n0.003,4\n");
    SndfileHandle("d.wav", SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 8000)
        .write(std::vector<short>(9).data(), 9);
    struct statvfs system {};
    const bool readOnlySystem = statvfs("/sys", &system) == 0 && (system.f_flag & ST_RDONLY) != 0;
    for (const Strings &parts : cases("vu/description_files.txt")) {
        if (parts[0].find("/sys/") != std::string::npos && !readOnlySystem)
            continue;
        const CommandResult checked = check(changed(parts[0]), split(parts[1], ' '));
        EXPECT_THAT(split(checked.err, '\n'), ::testing::UnorderedElementsAreArray(partsOf(parts[2])))
            << parts[0];
        const bool warned = checked.err.find("(warning)") != std::string::npos;
        EXPECT_EQ(checked.status, parts[2].empty() || warned ? 0 : 2) << parts[0];
        EXPECT_EQ(readText("old.krd"), "old");
        EXPECT_FALSE(std::filesystem::exists("t.krd") || std::filesystem::exists("new.krd"));
    }
    EXPECT_THAT(runVu({"check", "sub"}).err, HasSubstr("sub: is a folder"));
    EXPECT_THAT(runVu({"check", "none.json"}).err, HasSubstr("none.json: cannot be read: No such file"));
}

TEST_F(CheckedFolder, JsonAnswersWithTheSameKeysForMistakesAndForecasts)
{
    const Json refused = Json::parse(check(changed(R"({"/colour": 1})"), {"--json"}).out);
    EXPECT_EQ(refused["mistakes"].dump(),
              R"([{"file":"t.json","line":24,"key":"colour","text":"is no key that is known here"}])");
    EXPECT_EQ(Json::parse(runVu({"check", "--json", "none.json"}).out)["mistakes"][0]["file"], "none.json");
    EXPECT_EQ(Json::parse(check("{", {"--json"}).out)["mistakes"][0]["line"], 1);
    const auto done = check(changed(R"({"/channels/0/store": {"scale": 2}, "/channels/1/source":
        {"kind": "sim"}, "/channels/0/pipe_rate": 1})"),
                            {"--json"});
    const Json answer = Json::parse(done.out);
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(answer["mistakes"], Json::array());
    EXPECT_EQ(answer["warnings"][0]["key"], "channels[0].store");
    EXPECT_EQ(answer["bytes_per_second"], 440.0);
}

// As many channels as a recorder can have need no more descriptors to be checked than one.
TEST_F(CheckedFolder, ManyChannelsNeedFewDescriptors)
{
    constexpr int kChannels = 511, kDescriptors = 32;
    Json test = Json::parse(changed("{}"));
    const Json channel = test["channels"][0];
    test["channels"] = Json::array();
    for (int i = 0; i < kChannels; i++) {
        test["channels"].push_back(channel);
        test["channels"].back()["address"] = fmt::format("unix:{}", i);
        test["channels"].back()["stanza"]["name"] = fmt::format("c{}", i);
    }
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{kDescriptors, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const CommandResult checked = check(test.dump());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(checked.status, 0) << checked.err;
}

// What the library requires and the description does not say.
TEST_F(CheckedFolder, WhatIsLeftOutIsFilledInAndShown)
{
    const double lowest32 = std::numeric_limits<float>::lowest(),
                 lowest64 = std::numeric_limits<double>::lowest();
    SndfileHandle("d.wav", SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, 8000)
        .write(std::vector<short>(9).data(), 9);
    writeText("ms.lvm", "Delta_X\t0.0005\n***End_of_Header***\nX_Value\tF\n0\t1\n");
    Json test = Json::parse(changed(R"({"/channels/0/source": {"kind": "wav", "file": "d.wav"},
        "/channels/1/gps": 1})"));
    test["channels"][0]["stanza"].erase("sample_rate");
    test["channels"][0].erase("address");
    test["channels"][1].erase("gps");
    test["channels"][1]["pipe_rate"] = 0.25;
    test["channels"][1]["dbc"] = {
        {"file", VU_SOURCE_DIR "/tests/vu/bus.dbc"}, {"sample_rate", 1}, {"data_type", "float32"}};
    test["channels"][1]["signals"].push_back(
        Json::parse(R"({"name": "s", "data_type": "float64", "db_msg_id": "1",
        "db_bit_start": 0, "db_bit_length": 8, "db_data_format": "ULSB", "scale": 1, "offset": 0, "sample_rate": 1,
        "store": {"data_type": "float32"}})"));
    test["channels"].push_back(
        Json::parse(R"({"address": "unix:h.sock", "stanza": {"name": "h", "connector": "x",
        "data_type": "message_float64", "sample_rate": 10}})"));
    const Description read = parseDescription(test.dump(), "t.json");
    const auto stanza = [](const std::string &text) { return Json::parse(text); };
    EXPECT_EQ(read.channels[0].address, "unix:run/a.sock");
    EXPECT_EQ(read.channels[0].sample_rate, 8000);
    EXPECT_THAT(read.channels[0].source->arguments, ::testing::Contains("--sample-rate=8000.0"));
    EXPECT_EQ(stanza(read.channels[1].signals[0].stanza)["invalid_data_output_value"], lowest32);
    EXPECT_EQ(stanza(read.channels[1].signals[1].stanza)["invalid_data_output_value"], lowest32);
    EXPECT_EQ(stanza(read.channels[1].signals[1].stanza)["stale_data_expiration_time"], 1);
    for (const Signal &signal : read.channels[1].signals)
        EXPECT_EQ(stanza(signal.stanza)["pipe_rate"], 1) << signal.name;
    EXPECT_EQ(stanza(read.channels[2].stanza)["invalid_data_output_value"], lowest64);
    EXPECT_EQ(read.channels[2].invalid, lowest64);
    Strings keys;
    for (const Finding &filled : read.filled_in)
        keys.push_back(filled.key);
    EXPECT_THAT(keys, ::testing::IsSupersetOf({"channels[0].address", "channels[0].stanza.sample_rate",
                                               "channels[1].dbc.invalid", "channels[1].dbc.stale",
                                               "channels[1].signals[0].invalid_data_output_value",
                                               "channels[2].stanza.stale_data_expiration_time"}));
    const CommandResult checked = check(test.dump());
    EXPECT_EQ(checked.status, 0) << checked.err;
    EXPECT_THAT(checked.out, HasSubstr("t.json:1: channels[0].address: unix:run/a.sock"));
    test["channels"][0]["source"] = {{"kind", "csv"}, {"file", "ms.lvm"}, {"column", "F"}};
    EXPECT_EQ(parseDescription(test.dump(), "t.json").channels[0].sample_rate, 2000);
}

TEST(Description, SourcesGetWhatTheStanzaSays)
{
    const auto read = described(R"({"/channels/0/source": {"kind": "csv", "file": "d.csv", "column": "F",
        "no_value_every": 3, "xcp_types": ["A", 2], "pps": true, "header": false, "bus": "can0", "leave_out": ["can_fd"],
        "sample_rate": 7}})");
    EXPECT_EQ(read.channels[0].source->kind, "csv");
    EXPECT_THAT(read.channels[0].source->arguments,
                ElementsAre("folder/d.csv", "--column=F", "--no-value-every=3", "--xcp-types=A,2", "--pps",
                            "--bus=can0", "--leave-out=can_fd", "--sample-rate=7",
                            "--data-type=sequential_float32", "--connector=x",
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

TEST(Description, ForecastCountsTheSignalsOfADbc)
{
    const std::string bus =
        R"({"/channels/1/dbc": {"file": ")" VU_SOURCE_DIR R"(/tests/vu/bus.dbc", "invalid": 0,
        "stale": 1, "sample_rate": )";
    const Description test = described(bus + "10}}");
    const double slow = forecast(test).bytes_per_second,
                 signals = static_cast<double>(test.channels[1].signals.size());
    ASSERT_GT(signals, 1);
    // One block a second each, at 10 and at 100 samples a second.
    EXPECT_EQ(forecast(described(bus + "100}}")).bytes_per_second - slow, signals * 90 * 8);
}

TEST(Description, TheExampleHasNoMistake)
{
    const TempDir folder;
    const auto checked =
        runVu({"check", VU_SOURCE_DIR "/examples/drive/drive.json", "-o", folder.path("drive.krd")});
    EXPECT_EQ(checked.status, 0) << checked.err;
}

} // namespace
} // namespace vu::test
