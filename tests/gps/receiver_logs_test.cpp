// Logs of real receivers: what is extracted equals what another reader found in the same lines.
#include "tests/gps/receiver.h"
#include "tests/support/temp_dir.h"

namespace vu::test {
namespace {

// Receiver and sentence, then channel=field of the other reader's table.
const char *const kChannels[] = {
    "Garmin "
    "GPS|GPRMC|latitude=lat|longitude=lon|ground_speed_knots=speed_knots|ground_heading=course|utc_day=day|"
    "utc_month=month|utc_year=year|magnetic_variation=magvar",
    "TRKR-300|GPGGA|latitude=lat|longitude=lon",
    "Garmin GPS|GPGGA|altitude=altitude|geoidal_height=geoid_sep|number_of_satellites_in_use=nsat|"
    "fix_quality=fix_quality",
    "Garmin "
    "GPS|GPGSA|fix_type=fix_type|position_dilution_of_precision=pdop|horizontal_dilution_of_precision=hdop|"
    "vertical_dilution_of_precision=vdop"};

// The values of one line by field, with the gates and directions that the channels have.
using Line = std::map<std::string, std::string>;
double expectedOf(const std::string &id, const std::string &field, Line &line)
{
    const bool isGated = id == "GPRMC" || field == "altitude" || field == "lat" || field == "lon";
    const bool isOpen = id == "GPRMC" ? line["status"] == "A" : std::atof(line["fix_quality"].c_str()) > 0;
    if (!line.contains(field) || (isGated && !isOpen))
        return kSilent;
    const double value = std::strtod(line[field].c_str(), nullptr);
    return field == "magvar" && line["magvar_dir"] == "E" ? -value : value;
}

TEST_F(Gps, ValuesOfRealReceivers)
{
    SKIP_WITHOUT_RECORDINGS();
    std::vector<std::pair<std::string, std::string>> wanted; // sentence and field of every signal
    for (const char *row : kChannels) {
        const Strings cells = split(row, '|');
        for (size_t i = 2; i < cells.size(); i++) {
            const Strings channel = split(cells[i], '=');
            receiver.listen({{"source_database", cells[0]}, {"connector", channel[0]}});
            wanted.emplace_back(cells[1], channel[1]);
        }
    }
    size_t compared = 0;
    int64_t time = 0;
    for (const auto &file : std::filesystem::directory_iterator(recordings() / "nmea_gpsd")) {
        if (file.path().extension() != ".csv")
            continue;
        std::map<std::string, Line> lines; // by number and id
        for (const std::string &row : split(readText(file.path()), '\n')) {
            const Strings cells = split(row, ',');
            lines[cells[0] + cells[1]][cells[2]] = cells[3];
        }
        int number = 1;
        for (const std::string &text :
             split(readText(std::filesystem::path(file).replace_extension(".log")), '\n')) {
            const std::vector<double> heard = receiver.say(text, time++);
            for (size_t i = 0; i < heard.size(); i++) {
                const auto &[id, field] = wanted[i];
                const double expected = text.starts_with("$" + id)
                                            ? expectedOf(id, field, lines[std::to_string(number) + id])
                                            : kSilent;
                EXPECT_NEAR(heard[i], expected, field[0] == 'l' ? 1e-12 : 0.0)
                    << file << number << id << field;
                compared += expected != kSilent;
            }
            number++;
        }
    }
    EXPECT_GT(compared, 4000u);
}

} // namespace
} // namespace vu::test
