// DBC files: real ones against what two other decoders made of them, and the corners that they do not have.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include "libvu/libvu.h"
#include "tests/support/error_trap.h"
#include "tests/support/split.h"
#include "tests/support/streams.h"
#include "tests/support/temp_dir.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

namespace vu::test {
namespace {

using dbc::Stanzas;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::json;
using Row = std::map<std::string, std::string>;

std::string unzipped(const std::filesystem::path &file) // plain files as well
{
    std::string text(1 << 16, '\0'), all;
    gzFile in = gzopen(file.c_str(), "rb");
    for (int got; (got = gzread(in, text.data(), 1 << 16)) > 0;)
        all.append(text, 0, static_cast<size_t>(got));
    gzclose(in);
    return all;
}

std::vector<Row> csvRows(const std::filesystem::path &file)
{
    const Strings lines = split(readText(file), '\n'), names = split(lines[0], ',');
    std::vector<Row> rows(lines.size() - 1);
    for (size_t i = 0; i < rows.size(); ++i) {
        const Strings cells = split(lines[i + 1], ',');
        for (size_t k = 0; k < cells.size(); ++k)
            rows[i][names[k]] = cells[k];
    }
    return rows;
}

// A stanza as such a row.
Row rowOf(const Json &stanza)
{
    const std::string format = stanza["db_data_format"], mode = stanza.value("db_mode_format", "");
    const auto order = [](const std::string &of) { return of.ends_with("MSB") ? "motorola" : "intel"; };
    Row row = {{"id", stanza["db_msg_id"]},
               {"mask", stanza["db_msg_mask"]},
               {"start", stanza["db_bit_start"].dump()},
               {"length", stanza["db_bit_length"].dump()},
               {"byte_order", order(format)},
               {"signed", format[0] != 'U' ? "1" : "0"},
               {"float", format[0] == 'F' ? "1" : "0"},
               {"scale", stanza["scale"].dump()},
               {"offset", stanza["offset"].dump()}};
    if (!mode.empty())
        row.insert({{"mux_start", stanza["db_mode_start"].dump()},
                    {"mux_length", stanza["db_mode_length"].dump()},
                    {"mux_byte_order", order(mode)},
                    {"mux_value", stanza["db_mode_value"].dump()}});
    return row;
}

// What decides how a signal is decoded.
std::string meaning(Row row)
{
    std::string all = fmt::format("{} + {}", std::stod(row["scale"]), std::stod(row["offset"]));
    for (const char *name : {"id", "mask", "start", "length", "byte_order", "signed", "float", "mux_start",
                             "mux_length", "mux_byte_order", "mux_value"})
        all += " " + row[name];
    return all;
}

TEST(Dbc, RealFilesMeanWhatOtherDecodersMakeOfThem)
{
    SKIP_WITHOUT_RECORDINGS();
    size_t compared = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(recordings())) {
        const std::string name = entry.path().filename();
        if (name.find(".dbc") == std::string::npos)
            continue;
        dbc::StanzaOptions options;
        options.match = name.starts_with("canboat") ? dbc::Match::kPgn : dbc::Match::kExact;
        std::map<std::string, std::vector<std::string>> signals; // meanings by name
        for (const auto &signal : toStanzas(dbc::parse(unzipped(entry), name), options).signals) {
            Row row = rowOf(Json::parse(signal.json));
            const std::string mode = ".m" + row["mux_value"]; // ends the names of several selector values
            const size_t cut = signal.name.ends_with(mode) ? mode.size() : 0;
            signals[signal.name.substr(0, signal.name.size() - cut)].push_back(meaning(row));
        }
        for (Row row : csvRows(entry.path().parent_path() / "signals.csv")) {
            if (row.contains("dbc") && row["dbc"] != name)
                continue;
            EXPECT_THAT(signals[row["signal"]], ::testing::Contains(meaning(row))) << row["signal"];
            ++compared;
        }
    }
    EXPECT_EQ(compared, 1797u);
}

Stanzas stanzasOf(const char *file, const dbc::StanzaOptions &options = {})
{
    return toStanzas(dbc::read(VU_SOURCE_DIR "/tests/vu/" + std::string(file)), options);
}

Strings names(const Stanzas &stanzas)
{
    Strings list;
    for (const auto &signal : stanzas.signals)
        list.push_back(signal.name);
    return list;
}

TEST(Dbc, StanzasCarryWhatTheFileSaysAndTheLibraryTakesThem)
{
    dbc::StanzaOptions options{"float32", 50.0, 5.0, 0.5, -99.0, dbc::Match::kPgn, {}};
    const Stanzas stanzas = stanzasOf("bus.dbc", options);
    EXPECT_THAT(stanzas.warnings, ElementsAre());
    EXPECT_THAT(names(stanzas), ElementsAre("Engine.Speed", "Engine.Torque", "Wheels.Sel", "Wheels.One",
                                            "Wheels.Few.m2", "Wheels.Few.m3", "Wheels.Few.m9"));
    EXPECT_EQ(stanzas.signals[0].unit, "U\u00B0");
    EXPECT_EQ(stanzas.signals[1].unit, "say \"Nm\"");
    const Json torque = Json::parse(stanzas.signals[1].json), one = Json::parse(stanzas.signals[3].json);
    EXPECT_EQ(torque["scale"], 1e-3);
    EXPECT_EQ(torque["offset"], 0.5);
    EXPECT_EQ(torque["db_data_format"], "SMSB");
    EXPECT_EQ(torque["db_msg_mask"], "FFFFFFFF"); // 11 bits have no priority to leave out
    EXPECT_EQ(one["db_msg_id"], "F00400");
    EXPECT_EQ(one["db_msg_mask"], "3FFFF00");
    EXPECT_EQ(one["stale_data_expiration_time"], 0.5);
    EXPECT_EQ(one["invalid_data_output_value"], -99);

    ErrorTrap errors;
    CanSet *set = can_set_create();
    for (const auto &signal : stanzas.signals) {
        CanSetSignal *added = can_set_add_signal(set, signal.json.c_str());
        ASSERT_NE(added, nullptr) << signal.json;
        EXPECT_EQ(added->sequentializer->element_size, 4u);
        releaseStream(added->sequentializer);
        free(added->name);
    }
    can_set_destroy(set);
    free(set);
    EXPECT_THAT(errors.texts(), ElementsAre());
}

TEST(Dbc, SelectTakesGlobsOverSignalsAndMessages)
{
    dbc::StanzaOptions options;
    options.select = {"Eng*", "*.O?e", "Nobody"};
    const Stanzas some = stanzasOf("bus.dbc", options);
    EXPECT_THAT(names(some), ElementsAre("Engine.Speed", "Engine.Torque", "Wheels.One"));
    EXPECT_THAT(some.warnings, ElementsAre("'Nobody' selects no signal"));
}

TEST(Dbc, WhatCanNotBeDecodedIsNamedAndTheRestWorks)
{
    const Stanzas stanzas = stanzasOf("left_out.dbc");
    EXPECT_THAT(names(stanzas), ElementsAre("M.High", "M.Good", "M.S", "M.N", "Lone.Own"));
    EXPECT_EQ(stanzas.warnings, split(readText(VU_SOURCE_DIR "/tests/vu/left_out.txt"), '\n'));
}

TEST(Dbc, ASyntaxErrorNamesFileAndLine)
{
    for (const std::string &line : split(readText(VU_SOURCE_DIR "/tests/vu/dbc_errors.txt"), '\n')) {
        const size_t said = line.find(" > ");
        std::string text = line.substr(0, said);
        std::replace(text.begin(), text.end(), '~', '\n');
        if (line[0] == '/')
            continue;
        EXPECT_THAT([&] { dbc::parse(text, "t.dbc"); },
                    ::testing::ThrowsMessage<InputError>(HasSubstr(line.substr(said + 3))))
            << line;
    }
    EXPECT_THROW(dbc::read("/nowhere.dbc"), InputError);
}

} // namespace
} // namespace vu::test
