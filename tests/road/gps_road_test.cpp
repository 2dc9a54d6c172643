// Logs of real receivers through `vu run` and `vu export`, against the values in their sentences.
#include <cmath>

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

// What another decoder read in a sentence; an absent field is empty.
using Sentence = std::map<std::string, std::string>;

// Only sentences with a fix give a position, a speed or an altitude.
bool gives(Sentence &sentence, const Field &field)
{
    const std::string name = field.column, quality = sentence["fix_quality"];
    if (sentence["id"] != field.sentence || sentence[name].empty())
        return false;
    if (sentence["id"] == "GPRMC")
        return sentence["status"] == "A";
    return name != "altitude" || (!quality.empty() && quality != "0");
}

// A time of day that steps back, or by more than 5 s, is not believed, and its sentence is passed over.
bool isBelieved(Sentence sentence, double &previous)
{
    if (sentence["utc_s"].empty())
        return true;
    const double now = std::stod(sentence["utc_h"]) * 3600 + std::stod(sentence["utc_m"]) * 60 +
                       std::stod(sentence["utc_s"]);
    if (now < previous)
        return false;
    const double step = now - std::exchange(previous, now);
    return std::isnan(step) || step <= 5.0;
}

// Values as they change: how long each is held is another matter.
std::vector<double> changes(const std::vector<double> &values, double tolerance)
{
    std::vector<double> changed;
    for (const double value : values)
        if (value > -1e299 && (changed.empty() || std::abs(value - changed.back()) > tolerance))
            changed.push_back(value);
    return changed;
}

class GpsRoad : public Road, public ::testing::WithParamInterface<const char *> {
protected:
    void record(const std::filesystem::path &log, const Strings &signals, const char *receiver)
    {
        Json gps = R"({"sample_rate": 20, "stale": 1e6, "invalid": -1e300})"_json;
        gps.update({{"receiver", receiver}, {"signals", signals}});
        addChannel("gps0", R"({"data_type": "message_raw", "connector": "gps1"})"_json,
                   {{"kind", "nmea"}, {"file", log}, {"speed", 0}, {"pps", true}}, {{"gps", gps}});
        run(::testing::AnyOf(0, 3)); // some of these logs have a damaged sentence, which is a loss
        EXPECT_EQ(summary["complete"], summary["accounts"][0]["lost"] == 0) << summary["accounts"];
    }
    void expectChanges(const std::string &signal, const std::vector<double> &values, double tolerance)
    {
        EXPECT_THAT(changes(samples(signal), tolerance),
                    ::testing::Pointwise(::testing::DoubleNear(tolerance), changes(values, tolerance)))
            << signal;
    }
};

TEST_P(GpsRoad, EveryValueOfTheSentencesArrives)
{
    SKIP_WITHOUT_RECORDINGS();
    const std::string log = recordings() / "nmea_gpsd" / GetParam();
    Strings names;
    for (const Field &field : kFields)
        names.emplace_back(field.signal);
    record(log + ".log", names, "Garmin GPS");

    std::map<int, Sentence> sentences; // by line
    for (const Strings &row : table(log + ".csv"))
        if (row.size() > 3 && row[0] != "line") {
            sentences[std::stoi(row[0])]["id"] = row[1];
            sentences[std::stoi(row[0])][row[2]] = row[3];
        }
    // Of the sentences that are looked at, these two carry the time of day.
    double time = NAN;
    std::erase_if(sentences, [&time](const auto &numbered) {
        const std::string id = numbered.second.at("id");
        return (id == "GPRMC" || id == "GPGGA") && !isBelieved(numbered.second, time);
    });
    for (const Field &field : kFields) {
        std::vector<double> values;
        for (auto &[line, sentence] : sentences)
            if (gives(sentence, field))
                values.push_back(std::stod(sentence[field.column]));
        expectChanges(field.signal, values, field.tolerance);
    }
}

INSTANTIATE_TEST_SUITE_P(, GpsRoad,
                         ::testing::Values("garmin15x", "garmin48", "foretrex-201", "garmin25lp",
                                           "GPSmap-76S", "telit-he910", "bu353s4", "ublox-lea-4h", "mt3339"));

// A ship's receiver with arrival times: its positions come from $GPGGA, and its fixes lie between the
// seconds.
TEST_F(GpsRoad, ArrivalTimesGoBackToTheFix)
{
    SKIP_WITHOUT_RECORDINGS();
    const auto log = recordings() / "nmea_timed" / "NBP1406_seap-2014-08-01.txt";
    record(log, {"latitude", "altitude", "fix_quality"}, "TRKR-300");
    std::vector<double> altitudes, latitudes;
    for (const Strings &row : table(log))
        if (row[0].find("$GPGGA") < row[0].size()) {
            altitudes.push_back(std::stod(row[9]));
            const double degrees = std::stod(row[2].substr(0, 2)) + std::stod(row[2].substr(2)) / 60.0;
            latitudes.push_back(row[3] == "S" ? -degrees : degrees);
        }
    expectChanges("altitude", altitudes, 0.0);
    expectChanges("latitude", latitudes, 1e-12);
    EXPECT_THAT(samples("fix_quality"), ::testing::Contains(1.0));
}

} // namespace
} // namespace vu::test
