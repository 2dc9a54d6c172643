// Logs of real vehicles and a boat, decoded by their signal lists and held against an independent decoder.
#include <cmath>
#include <set>
#include <sstream>
#include <zlib.h>

#include "tests/bus/bus_fixture.h"
#include "tests/support/temp_dir.h"

using namespace vu::test;

namespace {

std::vector<std::string> split(const std::string &line, char at)
{
    std::vector<std::string> parts;
    std::istringstream text(line);
    for (std::string part; std::getline(text, part, at);)
        parts.push_back(part);
    parts.resize(std::max<size_t>(parts.size(), 18));
    return parts;
}

// The lines of a file, or of its .gz beside it.
std::vector<std::string> linesOf(std::filesystem::path path)
{
    if (!exists(path))
        path += ".gz";
    std::vector<std::string> lines;
    char line[1024];
    gzFile file = gzopen(path.c_str(), "rb");
    while (gzgets(file, line, sizeof line)) {
        lines.emplace_back(line);
        while (!lines.back().empty() && std::strchr("\r\n", lines.back().back()))
            lines.back().pop_back();
    }
    gzclose(file);
    return lines;
}

std::vector<std::vector<std::string>> rowsOf(const std::filesystem::path &path)
{
    std::vector<std::vector<std::string>> rows;
    for (const std::string &line : linesOf(path))
        rows.push_back(split(line, ','));
    rows.erase(rows.begin());
    return rows;
}

// A row of signals.csv, from its column "signal" on.
json stanzaOf(const std::string *row)
{
    const auto format = [](const std::string &order, const std::string &isSigned,
                           const std::string &isFloat) {
        return std::string(isFloat == "1"    ? "F"
                           : isSigned == "1" ? "S"
                                             : "U") +
               (order == "intel" ? "LSB" : "MSB");
    };
    json changes = {{"name", row[0]},
                    {"db_msg_id", row[1]},
                    {"db_msg_mask", row[3]},
                    {"db_bit_start", std::stoi(row[4])},
                    {"db_bit_length", std::stoi(row[5])},
                    {"db_data_format", format(row[6], row[7], row[8])},
                    {"scale", std::stod(row[9])},
                    {"offset", std::stod(row[10])}};
    if (!row[11].empty())
        changes.update({{"db_mode_start", std::stoi(row[12])},
                        {"db_mode_length", std::stoi(row[13])},
                        {"db_mode_format", format(row[14], row[15], "0")},
                        {"db_mode_value", std::stoi(row[16])}});
    return changes;
}

// A set that tells by name what one record gave.
struct Named {
    void add(const json &changes) { ASSERT_NE(set.add(changes), nullptr) << changes; }
    std::map<std::string, double> after(uint32_t id, const std::string &hex)
    {
        uint64_t payload = 0;
        for (size_t i = 0; i < 16; i++)
            payload = payload << 4 | (i < hex.size() ? std::stoul(hex.substr(i, 1), nullptr, 16) : 0);
        const double nothing = std::nan("");
        for (CanSetSignal *signal : set.signals)
            signal->sequentializer->value = nothing;
        set.after(Batch().at(0, id, payload));
        std::map<std::string, double> values;
        for (const CanSetSignal *signal : set.signals) {
            if (std::isnan(signal->sequentializer->value))
                continue;
            EXPECT_EQ(values.count(signal->name), 0u) << "two modes at once: " << signal->name;
            values[signal->name] = signal->sequentializer->value;
        }
        return values;
    }
    Set set;
};

class Recording : public testing::TestWithParam<const char *> {};

TEST_P(Recording, GivesTheValuesOfAnIndependentDecoder)
{
    SKIP_WITHOUT_RECORDINGS();
    ErrorTrap errors;
    const auto folder = recordings() / GetParam();
    Named named;
    std::set<std::string> multiplexed, unseen;
    for (const auto &row : rowsOf(folder / "signals.csv")) {
        named.add(stanzaOf(row.data()));
        unseen.insert(row[0]);
        if (!row[11].empty())
            multiplexed.insert(row[0]);
    }
    can_set_finalize(named.set.set);
    const auto expected = rowsOf(folder / "expected.csv");
    auto row = expected.begin();
    for (const std::string &line : linesOf(folder / "log.candump")) {
        const auto parts = split(line, ' ');
        const std::string time = parts[0].substr(1, parts[0].size() - 2),
                          id = parts[2].substr(0, parts[2].find('#'));
        const std::string data = parts[2].substr(id.size() + 1);
        const auto values = named.after(static_cast<uint32_t>(std::stoul(id, nullptr, 16)), data);
        std::set<std::string> told; // a name that comes again belongs to the next frame of the same time
        for (; row != expected.end() && (*row)[0] == time && (*row)[1] == id && told.insert((*row)[2]).second;
             row++) {
            const auto value = values.find((*row)[2]);
            ASSERT_NE(value, values.end()) << line << " " << (*row)[2];
            ASSERT_NEAR(value->second, std::stod((*row)[3]), 1e-9 * std::abs(value->second))
                << line << (*row)[2];
            unseen.erase((*row)[2]);
        }
        if (data.size() < 16)
            continue;
        for (const auto &[name, value] :
             values) // all of the frame is there: a multiplexed signal only in its mode
            ASSERT_TRUE(!multiplexed.count(name) || told.count(name)) << line << " " << name;
    }
    EXPECT_EQ(expected.end() - row, 0) << "rows without a frame";
    EXPECT_THAT(unseen, testing::IsEmpty());
}
INSTANTIATE_TEST_SUITE_P(Bus, Recording,
                         testing::Values("can_audi_a2", "can_ford_gt350", "can_hyundai_genesis",
                                         "can_hyundai_kona", "can_nmea2000", "can_toyota_yaris"));

TEST(Recording, SingleFramesOfFourDatabases)
{
    SKIP_WITHOUT_RECORDINGS();
    ErrorTrap errors;
    const auto folder = recordings() / "can_vectors";
    std::map<std::string, Named> databases;
    for (const auto &row : rowsOf(folder / "signals.csv"))
        databases[row[0]].add(stanzaOf(row.data() + 1));
    for (auto &[name, database] : databases)
        can_set_finalize(database.set.set);
    for (const auto &row : rowsOf(folder / "vectors.csv")) {
        const auto values =
            databases[row[0]].after(static_cast<uint32_t>(std::stoul(row[2], nullptr, 16)), row[4]);
        ASSERT_EQ(values.count(row[5]), 1u) << row[4] << " " << row[5];
        EXPECT_NEAR(values.at(row[5]), std::stod(row[6]), 1e-9 * std::abs(values.at(row[5]))) << row[5];
    }
}

} // namespace
