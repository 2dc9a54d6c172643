// Every recorded CAN log through `vu run` and `vu export`, against values that another program decoded.
#include <cmath>
#include <gmock/gmock.h>
#include <map>

#include "tests/road/road.h"

namespace vu::test {
namespace {

constexpr int64_t kTicks = 40000000;

struct CanLog {
    const char *folder;
    const char *dbc;
    const char *match;
    int rate;
};

class CanRoad : public Road, public ::testing::WithParamInterface<CanLog> {};

// Seconds with six digits behind the point, exactly.
int64_t microseconds(const std::string &text)
{
    const size_t point = text.find('.');
    std::string fraction = point == std::string::npos ? "" : text.substr(point + 1, 6);
    fraction.resize(6, '0');
    return std::stoll(text.substr(0, point)) * 1000000 + std::stoll(fraction);
}

// The sample that carries a value first: the first one whose instant is not more than half a period before
// it.
int64_t firstSample(int64_t ticks, int64_t period)
{
    const int64_t target = ticks - period / 2;
    return target <= 0 ? 0 : (target + period - 1) / period;
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
    const auto lines = table(logFile);
    const size_t bus = lines[0][0].find(") ") + 2;
    const std::string origin = lines[0][0].substr(1, bus - 3),
                      name = lines[0][0].substr(bus, lines[0][0].find(' ', bus) - bus);
    addChannel(name, {{"data_type", "message_can"}},
               {{"kind", "candump"}, {"file", logFile.string()}, {"speed", 0}},
               {{"dbc",
                 {{"file", "bus.dbc"},
                  {"sample_rate", log.rate},
                  {"stale", 1e6},
                  {"invalid", -1e300},
                  {"match", log.match}}}});
    run();
    exportAs("npy", {"--channel", "*.*"});

    // The last value on a sample counts; a value holds until the sample of the next one.
    const auto rows = table(recording / "expected.csv.gz");
    const int64_t start = microseconds(origin);
    const int64_t period = kTicks / log.rate;
    std::map<std::string, std::map<int64_t, double>> expected;
    for (size_t i = 1; i < rows.size(); i++)
        expected[rows[i][2]][firstSample((microseconds(rows[i][0]) - start) * 40, period)] =
            std::stod(rows[i][3]);
    size_t compared = 0;
    std::vector<std::string> absent;
    for (const auto &[signal, values] : expected) {
        const auto got = samples<double>(signal);
        if (got.empty())
            absent.push_back(signal);
        for (const auto &[sample, value] : values) {
            const auto at = static_cast<size_t>(sample);
            if (got.empty())
                break;
            ASSERT_LT(at, got.size()) << signal;
            ASSERT_NEAR(got[at], value, 1e-9 * std::max(1.0, std::abs(value)))
                << signal << " at sample " << sample;
            compared++;
        }
    }
    EXPECT_THAT(absent, ::testing::IsEmpty());
    EXPECT_GT(compared, rows.size() / 4);

    // The raw channel is the log again, to the microsecond and the byte.
    exportAs("candump", {"--channel", name, "--origin", origin});
    const auto again = table(out / (name + ".candump"));
    ASSERT_EQ(again.size(), lines.size());
    for (size_t i = 0; i < lines.size(); i++)
        ASSERT_EQ(again[i], lines[i]) << "line " << i + 1;
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
