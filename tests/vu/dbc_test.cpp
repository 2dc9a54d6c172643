// DBC files: real ones against what two other decoders made of them, and the corners that they do not have.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/road/table.h"
#include "tests/vu/cases.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

namespace vu::test {
namespace {

using dbc::Stanzas;
using Json = nlohmann::json;

// A stanza as a row of the tables that come with the real files.
Strings rowOf(const dbc::SignalStanza &signal)
{
    const Json stanza = Json::parse(signal.json);
    const std::string format = stanza["db_data_format"], mode = stanza.value("db_mode_format", "");
    const auto order = [](const std::string &of) { return of.ends_with("MSB") ? "motorola" : "intel"; };
    Strings row = {signal.name,
                   stanza["db_msg_id"],
                   "",
                   stanza["db_msg_mask"],
                   stanza["db_bit_start"].dump(),
                   stanza["db_bit_length"].dump(),
                   order(format),
                   format[0] != 'U' ? "1" : "0",
                   format[0] == 'F' ? "1" : "0",
                   stanza["scale"].dump(),
                   stanza["offset"].dump()};
    row.resize(17);
    if (!mode.empty()) {
        row[12] = stanza["db_mode_start"].dump();
        row[13] = stanza["db_mode_length"].dump();
        row[14] = order(mode);
        row[16] = stanza["db_mode_value"].dump();
    }
    return row;
}

// What of it decides how the signal is decoded.
std::string meaning(const Strings &row)
{
    std::string text = fmt::format("{} + {}", std::stod(row[9]), std::stod(row[10]));
    for (const size_t column : {1, 3, 4, 5, 6, 7, 8, 12, 13, 14, 16})
        text += row[column].empty() ? "" : ' ' + row[column];
    return text;
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
        std::map<std::string, Strings> meanings; // by name
        for (const auto &signal : toStanzas(dbc::parse(unpacked(entry), name), options).signals) {
            const Strings row = rowOf(signal);
            const std::string mode = ".m" + row[16]; // ends the names of several selector values
            const size_t cut = signal.name.ends_with(mode) ? mode.size() : 0;
            meanings[signal.name.substr(0, signal.name.size() - cut)].push_back(meaning(row));
        }
        for (Strings row : table(entry.path().parent_path() / "signals.csv")) {
            if (row.back() == "mux_value" || (row[0].ends_with(".dbc") && row[0] != name))
                continue;
            if (row[0] == name)
                row.erase(row.begin());
            row.resize(17);
            EXPECT_THAT(meanings[row[0]], ::testing::Contains(meaning(row))) << row[0];
            ++compared;
        }
    }
    EXPECT_EQ(compared, 1797u);
}

TEST(Dbc, EverySignalIsTranslatedOrNamed)
{
    dbc::StanzaOptions options;
    options.match = dbc::Match::kPgn;
    for (const std::string file : {"bus", "left_out"}) {
        const std::string base = VU_SOURCE_DIR "/tests/vu/" + file;
        const Stanzas stanzas = toStanzas(dbc::read(base + ".dbc"), options);
        Strings said = stanzas.warnings;
        for (const auto &signal : stanzas.signals)
            said.push_back(fmt::format("{} [{}]: {}", signal.name, signal.unit, meaning(rowOf(signal))));
        EXPECT_EQ(said, split(readText(base + ".txt"), '\n'));
    }
    options.select = {"Eng*", "*.O?e", "Nobody"};
    const Stanzas some = toStanzas(dbc::read(VU_SOURCE_DIR "/tests/vu/bus.dbc"), options);
    EXPECT_THAT(some.warnings, ::testing::ElementsAre("'Nobody' selects no signal"));
    EXPECT_EQ(some.signals.size(), 3u);
}

TEST(Dbc, ASyntaxErrorNamesFileAndLine)
{
    for (const Strings &parts : cases("dbc_errors.txt"))
        EXPECT_THAT([&] { dbc::parse(parts[0], "t.dbc"); },
                    ::testing::ThrowsMessage<InputError>(::testing::HasSubstr(parts[1])))
            << parts[0];
    EXPECT_THROW(dbc::read("/nowhere.dbc"), InputError);
}

} // namespace
} // namespace vu::test
