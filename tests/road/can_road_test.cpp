// Every recorded CAN log through `vu run` and `vu export`, against values that another program decoded.
#include <cmath>

#include "tests/road/road.h"

namespace vu::test {
namespace {

constexpr int64_t kTicks = 40000000;

struct CanLog {
    friend void PrintTo(const CanLog &log, std::ostream *out) { *out << log.folder; }
    const char *folder;
    const char *dbc;
    const char *match;
    int rate;
};

class CanRoad : public Road, public ::testing::WithParamInterface<CanLog> {};

// Seconds with six digits after the point, exactly.
int64_t microseconds(std::string text)
{
    return std::stoll(text.erase(text.find('.'), 1));
}

// The sample that carries a value first: the first one whose instant is not more than half a period before
// it.
size_t firstSample(int64_t ticks, int64_t period)
{
    const int64_t target = ticks - period / 2;
    return target <= 0 ? 0 : static_cast<size_t>((target + period - 1) / period);
}

TEST_P(CanRoad, EveryValueIsOnItsSample)
{
    SKIP_WITHOUT_RECORDINGS();
    const CanLog &log = GetParam();
    const auto recording = recordings() / log.folder;
    auto logFile = recording / "log.candump";
    if (!exists(logFile))
        logFile += ".gz";
    writeText(folder.path("bus.dbc"), unpacked(recording / log.dbc));
    const Strings lines = split(unpacked(logFile), '\n'), first = split(lines[0], ' ');
    const std::string name = first[1], origin = first[0].substr(1, first[0].size() - 2);
    Json dbc = R"({"file": "bus.dbc", "stale": 1e6, "invalid": -1e300})"_json;
    dbc.update({{"sample_rate", log.rate}, {"match", log.match}});
    addChannel(name, {{"data_type", "message_can"}}, {{"kind", "candump"}, {"file", logFile}, {"speed", 0}},
               {{"dbc", dbc}});
    run();

    // The last value on a sample counts; a value holds until the sample of the next one.
    std::map<std::string, std::map<size_t, double>> expected;
    for (const Strings &row : table(recording / "expected.csv.gz"))
        if (row[0] != "time") {
            const int64_t ticks = (microseconds(row[0]) - microseconds(origin)) * 40;
            expected[row[2]][firstSample(ticks, kTicks / log.rate)] = std::stod(row[3]);
        }
    ASSERT_GT(expected.size(), 0u);
    for (const auto &[signal, values] : expected) {
        const auto got = samples(signal);
        for (const auto &[sample, value] : values) {
            ASSERT_LT(sample, got.size()) << signal;
            ASSERT_NEAR(got[sample], value, 1e-9 * std::max(1.0, std::abs(value)))
                << signal << " at sample " << sample;
        }
    }

    // The raw channel is the log again, to the microsecond and the byte.
    exportAll(0, {"--format", "candump", "--channel", name, "--origin", origin});
    EXPECT_EQ(split(readText(out / (name + ".candump")), '\n'), lines);
}

INSTANTIATE_TEST_SUITE_P(
    , CanRoad,
    ::testing::Values(CanLog{"can_audi_a2", "vw_pq.dbc", "exact", 1000},
                      CanLog{"can_ford_gt350", "ford_lincoln_base_pt.dbc", "exact", 1000},
                      CanLog{"can_hyundai_genesis", "hyundai_i30_2014.dbc", "exact", 100},
                      CanLog{"can_hyundai_kona", "hyundai_kia_generic.dbc", "exact", 1000},
                      CanLog{"can_nmea2000", "canboat.dbc.gz", "pgn", 500},
                      CanLog{"can_toyota_yaris", "toyota_iQ_2009_can.dbc", "exact", 1000}),
    [](const auto &param) { return std::string(param.param.folder); });

} // namespace
} // namespace vu::test
