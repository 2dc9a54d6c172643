// Single frames of four databases, held against what an independent decoder made of them. Whole logs travel
// the whole road elsewhere.
#include <cmath>
#include <fstream>
#include <map>

#include "tests/bus/bus_fixture.h"
#include "tests/support/temp_dir.h"

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
        changes.update(mode(format(15, false), std::stoi(row[13]), std::stoi(row[14]), std::stoi(row[17])));
    return changes;
}

TEST_F(Bus, DecodesFramesLikeAnIndependentDecoder)
{
    SKIP_WITHOUT_RECORDINGS();
    std::map<std::string, Set> databases;
    for (const Strings &row : rowsOf("signals.csv"))
        ASSERT_NE(databases[row[0]].add(stanzaOf(row)), nullptr) << row[1];
    std::map<Strings, std::map<std::string, double>> frames;
    for (const Strings &row : rowsOf("vectors.csv"))
        frames[{row[0], row[2], row[4]}][row[5]] = std::stod(row[6]);
    ASSERT_GT(frames.size(), 10u);
    for (const auto &[frame, expected] : frames) {
        Set &set = databases[frame[0]];
        for (const CanSetSignal *signal : set.signals)
            signal->sequentializer->value = std::nan("");
        const std::string data = (frame[2] + std::string(16, '0')).substr(0, 16);
        set.after(Batch().at(0, static_cast<uint32_t>(std::stoul(frame[1], nullptr, 16)),
                             std::stoull(data, nullptr, 16)));
        std::map<std::string, double> taken;
        for (const CanSetSignal *signal : set.signals) {
            const double value = signal->sequentializer->value;
            EXPECT_TRUE(std::isnan(value) || taken.emplace(signal->name, value).second)
                << "two modes at once";
        }
        for (const auto &[name, value] : expected)
            EXPECT_NEAR(taken.at(name), value, 1e-9 * std::abs(value)) << frame[2] << " " << name;
        // Where all of the frame is there, a multiplexed signal comes only in its mode.
        EXPECT_TRUE(frame[2] != data || taken.size() == expected.size()) << frame[2];
    }
}

} // namespace
