// Single frames of four databases, held against what an independent decoder made of them. Whole logs travel
// the whole road elsewhere.
#include <cmath>
#include <fstream>
#include <map>

#include "tests/bus/bus_fixture.h"

using namespace vu::test;

namespace {

std::vector<Strings> rowsOf(const char *name)
{
    std::ifstream file(recordings() / "can_vectors" / name);
    std::vector<Strings> rows;
    std::string line;
    for (std::getline(file, line); std::getline(file, line);) {
        rows.push_back(split(line, ','));
        rows.back().resize(18);
    }
    return rows;
}

json stanzaOf(const Strings &row)
{
    const auto format = [&](size_t order, bool isFloat) {
        return (isFloat                 ? "F"
                : row[order + 1] == "1" ? "S"
                                        : "U") +
               std::string(row[order] == "intel" ? "LSB" : "MSB");
    };
    json changes = field(format(7, row[9] == "1"), std::stoi(row[5]), std::stoi(row[6]));
    changes.update({{"name", row[1]}, {"db_msg_id", row[2]}, {"db_msg_mask", row[4]}});
    changes.update({{"scale", std::stod(row[10])}, {"offset", std::stod(row[11])}});
    if (!row[12].empty())
        changes.update({{"db_mode_format", format(15, false)},
                        {"db_mode_start", std::stoi(row[13])},
                        {"db_mode_length", std::stoi(row[14])},
                        {"db_mode_value", std::stoi(row[17])}});
    return changes;
}

TEST_F(Bus, DecodesFramesLikeAnIndependentDecoder)
{
    SKIP_WITHOUT_RECORDINGS();
    std::map<std::string, Signals> databases;
    for (const Strings &row : rowsOf("signals.csv"))
        ASSERT_TRUE(databases.try_emplace(row[0], "set").first->second.add(stanzaOf(row))) << row[1];
    std::map<Strings, std::map<std::string, double>> frames;
    for (const Strings &row : rowsOf("vectors.csv"))
        frames[{row[0], row[2], row[4]}][row[5]] = std::stod(row[6]);
    ASSERT_GT(frames.size(), 10u);
    for (const auto &[frame, expected] : frames) {
        Signals &set = databases.at(frame[0]);
        for (Sequentializer *sequentializer : set.sequentializers)
            sequentializer->value = std::nan("");
        const auto values = set.after(Batch().at(0, hexNumber(frame[1]), payloadOf(frame[2])));
        std::map<std::string, double> taken;
        for (size_t i = 0; i < values.size(); i++)
            EXPECT_TRUE(std::isnan(values[i]) || taken.emplace(set.names[i], values[i]).second)
                << "two modes at once";
        for (const auto &[name, value] : expected)
            EXPECT_NEAR(taken.at(name), value, 1e-9 * std::abs(value)) << frame[2] << " " << name;
        // Where all of the frame is there, a multiplexed signal comes only in its mode.
        EXPECT_TRUE(frame[2].size() < 16 || taken.size() == expected.size()) << frame[2];
    }
}

} // namespace
