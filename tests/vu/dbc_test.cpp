// DBC files: real ones against what two other decoders made of them, and the corners that they do not have.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <zlib.h>

#include "tests/road/table.h"
#include "tests/support/cases.h"
#include "vu/command.h"
#include "vu/dbc/dbc.h"

namespace vu::test {
namespace {

using dbc::Stanzas;
using Json = nlohmann::json;

// What decides how a signal is decoded; at the end, if it has one, the mode in which it comes.
std::string meaning(const dbc::SignalStanza &signal)
{
    const Json stanza = Json::parse(signal.json);
    const auto number = [&](const char *key) { return stanza[key].get<double>(); };
    const auto text = [&](const char *key) { return stanza.value(key, ""); };
    const auto order = [](const std::string &of) { return of.ends_with("MSB") ? "motorola" : "intel"; };
    const std::string format = text("db_data_format"), mode = text("db_mode_format");
    std::string all = fmt::format("{} + {} {} {} {} {} {} {:d} {:d}", number("scale"), number("offset"),
                                  text("db_msg_id"), text("db_msg_mask"), number("db_bit_start"),
                                  number("db_bit_length"), order(format), format[0] != 'U', format[0] == 'F');
    if (!mode.empty())
        all += fmt::format(" {} {} {} {}", number("db_mode_start"), number("db_mode_length"), order(mode),
                           number("db_mode_value"));
    return all;
}

// The same of a row of the tables that come with the real files.
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
            const std::string meant = meaning(signal), mode = ".m" + meant.substr(meant.rfind(' ') + 1);
            const size_t cut =
                signal.name.ends_with(mode) ? mode.size() : 0; // one of several selector values
            meanings[signal.name.substr(0, signal.name.size() - cut)].push_back(meant);
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

// A signal with what a catalogue says of it.
std::string described(const dbc::SignalStanza &signal)
{
    std::string text = fmt::format("{} [{}]: {}", signal.name, signal.unit, meaning(signal));
    for (const auto &[value, name] : signal.values)
        text += fmt::format("; {}={}", value, name);
    return text + (signal.comment.empty() ? "" : " // " + signal.comment);
}

TEST(Dbc, EverySignalIsTranslatedOrNamed)
{
    dbc::StanzaOptions options;
    options.match = dbc::Match::kPgn;
    for (const std::string file : {"bus", "left_out", "rough"}) {
        const std::string base = VU_SOURCE_DIR "/tests/vu/" + file;
        const Stanzas stanzas = toStanzas(dbc::parse(readText(base + ".dbc"), file), options);
        Strings said;
        for (const auto &warning : stanzas.warnings)
            said.push_back(warning.text);
        for (const auto &signal : stanzas.signals)
            said.push_back(std::regex_replace(described(signal), std::regex("\n"), "~"));
        EXPECT_EQ(said, split(readText(base + ".txt"), '\n'));
    }
    options.select = {"Eng*", "*.O?e", "Nobody"};
    const Stanzas some = toStanzas(dbc::read(VU_SOURCE_DIR "/tests/vu/bus.dbc"), options);
    EXPECT_THAT(summarised(some.warnings), ::testing::ElementsAre("'Nobody' selects no signal"));
    EXPECT_EQ(some.signals.size(), 3u);
}

TEST(Dbc, ABadStatementIsNamedWithItsLineAndCostsNothingElse)
{
    for (const Case &parts : cases("vu/dbc_errors.txt")) {
        Strings said, names;
        try {
            const Stanzas stanzas = toStanzas(dbc::parse(parts[0], "t.dbc"), {});
            said = summarised(stanzas.warnings);
            for (const auto &signal : stanzas.signals)
                names.push_back(signal.name);
        } catch (const InputError &error) {
            said = {error.what()};
        }
        EXPECT_THAT(fmt::format("{}", fmt::join(said, "\n")), ::testing::HasSubstr(parts[1]));
        EXPECT_EQ(said.empty(), parts[1].empty());
        EXPECT_EQ(fmt::format("{}", fmt::join(names, " ")), parts.size() > 2 ? parts[2] : "");
    }
}

TEST(Dbc, FilesThatAreNoneAreRefusedWithTheReason)
{
    TempDir folder;
    const std::string good = readText(VU_SOURCE_DIR "/tests/vu/bus.dbc"), path = folder.path("t.dbc");
    gzFile packed = gzopen(path.c_str(), "wb");
    ASSERT_EQ(gzwrite(packed, good.data(), static_cast<unsigned>(good.size())),
              static_cast<int>(good.size()));
    gzclose(packed);
    EXPECT_EQ(dbc::read(path).messages.size(), 2u);
    const auto said = [&path] {
        try {
            dbc::read(path);
        } catch (const InputError &error) {
            return std::string(error.what());
        }
        return std::string("taken");
    };
    const std::string whole = readText(path);
    writeText(path, whole.substr(0, whole.size() - 20));
    EXPECT_THAT(said(), ::testing::HasSubstr("t.dbc: expected a DBC file that can be read: "));
    std::string hostile = "BO_ 1 M: 8 X\n";
    for (int i = 0; i < 200000; i++)
        hostile += "BO_ \\\"\n"; // each opens a text that is never closed
    const std::pair<std::string, const char *> texts[] = {
        {"", "and there is nothing in it"},
        {" \n // only this\n", "and there is nothing in it"},
        {"VERSION \"\"", "no message (BO_) is in it"},
        {hostile, "(1000 statements before it could not be read either)"}};
    for (const auto &[text, why] : texts) {
        writeText(path, text);
        EXPECT_THAT(said(), ::testing::HasSubstr(why));
    }
    EXPECT_THROW(dbc::read("/nowhere.dbc"), InputError);
    EXPECT_THROW(dbc::read(folder.path("")), InputError);
}

} // namespace
} // namespace vu::test
