// DBC files: real ones against what two other decoders made of them, and the corners that they do not have.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <zlib.h>

#include "libvu/libvu.h"
#include "tests/support/error_trap.h"
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
    std::istringstream lines(readText(file));
    std::string line, name, cell;
    std::getline(lines, line);
    const std::string head = line;
    std::vector<Row> rows;
    while (std::getline(lines, line)) {
        std::istringstream names(head), cells(line);
        for (rows.emplace_back(); std::getline(names, name, ','); cell.clear()) {
            std::getline(cells, cell, ',');
            rows.back()[name] = cell;
        }
    }
    return rows;
}

// What decides how a signal is decoded, of a stanza and of such a row.
std::string meaning(const Json &stanza)
{
    const std::string format = stanza["db_data_format"], mode = stanza.value("db_mode_format", "");
    const auto number = [&](const char *key) { return mode.empty() ? "" : stanza[key].dump(); };
    return fmt::format("{}/{} {}|{} {} {}{} x {} + {}, mode {}|{} {} = {}",
                       stanza["db_msg_id"].get<std::string>(), stanza["db_msg_mask"].get<std::string>(),
                       stanza["db_bit_start"].dump(), stanza["db_bit_length"].dump(),
                       format.substr(1) == "MSB" ? "motorola" : "intel", format[0] != 'U' ? 1 : 0,
                       format[0] == 'F' ? 1 : 0, stanza["scale"].get<double>(),
                       stanza["offset"].get<double>(), number("db_mode_start"), number("db_mode_length"),
                       mode.empty()     ? ""
                       : mode == "UMSB" ? "motorola"
                                        : "intel",
                       number("db_mode_value"));
}

std::string meaning(Row &row)
{
    return fmt::format("{}/{} {}|{} {} {}{} x {} + {}, mode {}|{} {} = {}", row["id"], row["mask"],
                       row["start"], row["length"], row["byte_order"], row["signed"], row["float"],
                       std::stod(row["scale"]), std::stod(row["offset"]), row["mux_start"], row["mux_length"],
                       row["mux_byte_order"], row["mux_value"]);
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
            const Json stanza = Json::parse(signal.json);
            const std::string mode =
                stanza.contains("db_mode_value") ? ".m" + stanza["db_mode_value"].dump() : "";
            const size_t cut =
                signal.name.ends_with(mode) ? mode.size() : 0; // one of several selector values
            signals[signal.name.substr(0, signal.name.size() - cut)].push_back(meaning(stanza));
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

Stanzas stanzasOf(const std::string &text, const dbc::StanzaOptions &options = {})
{
    return toStanzas(dbc::parse(text, "t.dbc"), options);
}

std::vector<std::string> names(const Stanzas &stanzas)
{
    std::vector<std::string> list;
    for (const auto &signal : stanzas.signals)
        list.push_back(signal.name);
    return list;
}

const char *const kBus = "VERSION \"1\"\nNS_ :\n\tCM_\n\tBO_\n\tBA_DEF_\nBS_:\nBU_: A_ B\n"
                         "BO_ 291 Engine: 8 A_\n"
                         " SG_ Speed : 0|16@1+ (0.25,-10) [0|0] \"U\xB0\" A_, B\n"
                         " SG_ Torque : 23|12@0- (1E-3,+.5) [-1|1.5e2] \"say \\\"Nm\\\"\" B\n\n"
                         "BO_ 2364540158 Wheels: 8 B\n"
                         " SG_ Sel M : 0|4@1+ (1,0) [0|0] \"\" Vector__XXX\n"
                         " SG_ One m1 : 8|8@1+ (1,0) [0|0] \"\" Vector__XXX\n"
                         " SG_ Few m2 : 8|8@1+ (1,0) [0|0] \"\" Vector__XXX\n"
                         "CM_ SG_ 291 Speed \"a comment; of\ntwo lines\";\n"
                         "VAL_ 291 Speed 0 \"off\" 1 \"on\" ;\n"
                         "SG_MUL_VAL_ 2364540158 Few Sel 2-3, 9-9;\n";

TEST(Dbc, StanzasCarryWhatTheFileSaysAndTheLibraryTakesThem)
{
    dbc::StanzaOptions options{"float32", 50.0, 5.0, 0.5, -99.0, dbc::Match::kPgn, {}};
    const Stanzas stanzas = stanzasOf(kBus, options);
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
    const Stanzas some = stanzasOf(kBus, options);
    EXPECT_THAT(names(some), ElementsAre("Engine.Speed", "Engine.Torque", "Wheels.One"));
    EXPECT_THAT(some.warnings, ElementsAre("'Nobody' selects no signal"));
}

TEST(Dbc, WhatCanNotBeDecodedIsNamedAndTheRestWorks)
{
    const auto field = [](const std::string &name, const std::string &bits) {
        return " SG_ " + name + " : " + bits + " (1,0) [0|0] \"\" X\n";
    };
    const Stanzas stanzas = stanzasOf(
        "BO_ 1 M: 8 X\n" + field("Low", "60|5@1+") + field("High", "3|5@0+") + field("End", "56|9@0+") +
        field("None", "3|0@1+") + field("Huge", "4294967295|4294967295@1+") + field("Half", "0|16@1-") +
        field("Good", "63|1@1+") + field("Good", "0|1@1+") + field("S M", "0|2@1+") +
        field("N m1M", "2|2@1+") + field("D m1", "8|8@1+") + field("Q m0", "8|8@1+") + "BO_ 2 Long: 9 X\n" +
        field("A", "0|1@1+") + "BO_ 2048 Id: 8 X\n" + field("A", "0|1@1+") + "BO_ 3 Lone: 8 X\n" +
        field("A m4", "0|1@1+") + field("Own", "8|8@1-") +
        "BO_ 3221225472 VECTOR__INDEPENDENT_SIG_MSG: 0 X\n" + field("Orphan", "0|99@1+") +
        "SIG_VALTYPE_ 1 Half : 1;\nSG_MUL_VAL_ 1 D N 1-1;\nSG_MUL_VAL_ 1 Q S 0-99;\nSG_MUL_VAL_ 1 N S "
        "1-1;\n");
    EXPECT_THAT(names(stanzas), ElementsAre("M.High", "M.Good", "M.S", "M.N", "Lone.Own"));
    EXPECT_THAT(
        stanzas.warnings,
        ElementsAre("M.Low: left out: its field of 5 bits at 60 reaches beyond 8 bytes",
                    HasSubstr("M.End: left out: its field of 9 bits at 56"),
                    "M.None: left out: it has no bits", HasSubstr("M.Huge: left out: its field"),
                    "M.Half: left out: a float of 32 bits can not have a length of 16",
                    "M.Good: left out: there is a signal of this name already",
                    "M.D: left out: nested multiplexing: its selector 'N' is multiplexed itself",
                    "M.Q: left out: 100 selector values, and 64 are supported",
                    "Long.A: left out: its message has 9 bytes, and a frame has 8",
                    "Id.A: left out: identifier 2048 does not fit 11 bits",
                    "Lone.A: left out: it is multiplexed, and 0 signals of its message can be its selector"));
}

TEST(Dbc, ASyntaxErrorNamesFileAndLine)
{
    const std::string head = "VERSION \"\"\nBO_ 1 M: 8 X\n";
    const std::pair<std::string, const char *> cases[] = {
        {"VERSION 1", "t.dbc:1: expected the version as a text in quotes, found '1'"},
        {"\n\nsomething", "t.dbc:3: expected the keyword of a statement, found 'something'"},
        {"BO_ 4294967296 M: 8 X", "t.dbc:1: expected the identifier of a message, found '4294967296'"},
        {"BO_ 1 M 8 X", "t.dbc:1: expected ':', found '8'"},
        {head + " SG_ A x : 0|1@1+ (1,0) [0|0] \"\" X", "t.dbc:3: expected ':' or one of 'M'"},
        {head + " SG_ A : 0|1@2+ (1,0) [0|0] \"\" X", "t.dbc:3: expected a byte order of 0 or 1"},
        {head + " SG_ A : 0|1@1+ (1e999,0) [0|0] \"\" X", "expected the factor of a signal, found '1e999'"},
        {head + " SG_ A : 0|1@1+ (1,0) [0|0]",
         "t.dbc:3: expected the unit of a signal as a text in quotes, found the end"},
        {"CM_ \"never\nclosed;", "t.dbc:1: expected a closing quote"},
        {"CM_ \"closed\"", "t.dbc:1: expected ';'"},
        {"SIG_VALTYPE_ 1 A : 3;", "expected a value type"},
        {"SG_MUL_VAL_ 1 A B 5-4;", "expected a range of selector values that rises"},
    };
    for (const auto &[text, said] : cases) {
        try {
            dbc::parse(text, "t.dbc");
            ADD_FAILURE() << "taken: " << text;
        } catch (const InputError &error) {
            EXPECT_THAT(error.what(), HasSubstr(said));
        }
    }
    EXPECT_THROW(dbc::read("/nowhere.dbc"), InputError);
}

} // namespace
} // namespace vu::test
