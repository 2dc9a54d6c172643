// Logs of real receivers through `vu run` and `vu export`, against the values in their sentences.
#include <cmath>
#include <gmock/gmock.h>
#include <map>

#include "tests/road/road.h"

namespace vu::test {
namespace {

struct Field {
    const char *signal;
    const char *sentence;
    const char *column; // of the expected values
    double tolerance;
};
const Field kFields[] = {
    {"latitude", "GPRMC", "lat", 1e-12},
    {"longitude", "GPRMC", "lon", 1e-12},
    {"ground_speed_knots", "GPRMC", "speed_knots", 0.0},
    {"ground_heading", "GPRMC", "course", 0.0},
    {"altitude", "GPGGA", "altitude", 0.0},
    {"number_of_satellites_in_use", "GPGGA", "nsat", 0.0},
    {"fix_quality", "GPGGA", "fix_quality", 0.0},
    {"fix_type", "GPGSA", "fix_type", 0.0},
    {"position_dilution_of_precision", "GPGSA", "pdop", 0.0},
    {"horizontal_dilution_of_precision", "GPGSA", "hdop", 0.0},
    {"vertical_dilution_of_precision", "GPGSA", "vdop", 0.0},
};

// Only sentences with a fix give a position, a speed or an altitude.
bool hasFix(const std::map<std::string, std::string> &sentence, const Field &field)
{
    const std::string name = field.column;
    if (std::string(field.sentence) == "GPRMC")
        return sentence.count("status") && sentence.at("status") == "A";
    return name != "altitude" || (sentence.count("fix_quality") && sentence.at("fix_quality") != "0");
}

// A time of day that steps back, or by more than 5 s, is not believed, and its sentence is passed over.
bool isBelieved(const std::map<std::string, std::string> &sentence, double &previous)
{
    if (!sentence.count("utc_s"))
        return true;
    const double now = std::stod(sentence.at("utc_h")) * 3600 + std::stod(sentence.at("utc_m")) * 60 +
                       std::stod(sentence.at("utc_s"));
    if (now < previous)
        return false;
    const double step = now - std::exchange(previous, now);
    return std::isnan(step) || step <= 5.0;
}

// Values as they change: how long each is held is another matter.
std::vector<double> changes(const std::vector<double> &values, double tolerance = 0.0)
{
    std::vector<double> changed;
    for (const double value : values)
        if (value > -1e299 && (changed.empty() || std::abs(value - changed.back()) > tolerance))
            changed.push_back(value);
    return changed;
}

class GpsReplay : public Road {
protected:
    void record(const std::filesystem::path &log, const std::vector<std::string> &signals,
                const char *receiver, const Json &more)
    {
        Json source = {{"kind", "nmea"}, {"file", log.string()}, {"speed", 0}};
        source.update(more);
        addChannel("gps0", {{"data_type", "message_raw"}, {"connector", "gps1"}}, source,
                   {{"gps",
                     {{"receiver", receiver},
                      {"signals", signals},
                      {"sample_rate", 20},
                      {"stale", 1e6},
                      {"invalid", -1e300}}}});
        run();
        exportAs("npy", {"--channel", "*_*", "--channel", "*tude"});
    }
};

class GpsRoad : public GpsReplay, public ::testing::WithParamInterface<const char *> {};

TEST_P(GpsRoad, EveryValueOfTheSentencesArrives)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto log = recordings() / "nmea_gpsd" / GetParam();
    std::vector<std::string> names;
    for (const Field &field : kFields)
        names.emplace_back(field.signal);
    record(log.string() + ".log", names, "Garmin GPS", {{"pps", true}});

    std::map<int, std::map<std::string, std::string>> sentences;
    for (const auto &row : table(log.string() + ".csv")) {
        if (row.size() < 4 || row[0] == "line")
            continue;
        sentences[std::stoi(row[0])]["id"] = row[1];
        sentences[std::stoi(row[0])][row[2]] = row[3];
    }
    // Of the sentences that are looked at, these two carry the time of day.
    double time = NAN;
    std::erase_if(sentences, [&](const auto &numbered) {
        const std::string &id = numbered.second.at("id");
        return (id == "GPRMC" || id == "GPGGA") && !isBelieved(numbered.second, time);
    });
    for (const Field &field : kFields) {
        std::vector<double> expected;
        for (const auto &[line, sentence] : sentences)
            if (sentence.at("id") == field.sentence && sentence.count(field.column) &&
                hasFix(sentence, field))
                expected.push_back(std::stod(sentence.at(field.column)));
        const auto got = changes(samples<double>(field.signal), field.tolerance);
        expected = changes(expected, field.tolerance);
        ASSERT_EQ(got.size(), expected.size()) << field.signal;
        for (size_t i = 0; i < got.size(); i++)
            ASSERT_NEAR(got[i], expected[i], field.tolerance) << field.signal << ", change " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(, GpsRoad,
                         ::testing::Values("garmin15x", "garmin48", "foretrex-201", "garmin25lp",
                                           "GPSmap-76S", "telit-he910", "bu353s4", "ublox-lea-4h", "mt3339"),
                         [](const auto &param) {
                             std::string name = param.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// A ship's receiver with arrival times: its positions come from $GPGGA, and its fixes lie between the
// seconds.
TEST_F(GpsReplay, ArrivalTimesGoBackToTheFix)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto log = recordings() / "nmea_timed" / "NBP1406_seap-2014-08-01.txt";
    record(log, {"latitude", "altitude", "fix_quality"}, "TRKR-300", {{"pps", true}});
    std::vector<double> altitudes, latitudes;
    for (auto &row : table(log)) {
        if (row[0].find("$GPGGA") == std::string::npos)
            continue;
        altitudes.push_back(std::stod(row[9]));
        const double degrees = std::stod(row[2].substr(0, 2)) + std::stod(row[2].substr(2)) / 60.0;
        latitudes.push_back(row[3] == "S" ? -degrees : degrees);
    }
    EXPECT_EQ(changes(samples<double>("altitude")), changes(altitudes));
    const auto got = changes(samples<double>("latitude"), 1e-12), expected = changes(latitudes, 1e-12);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); i++)
        ASSERT_NEAR(got[i], expected[i], 1e-12) << i;
    EXPECT_THAT(samples<double>("fix_quality"), ::testing::Contains(1.0));
}

} // namespace
} // namespace vu::test
