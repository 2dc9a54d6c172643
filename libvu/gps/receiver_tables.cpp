// What each receiver offers: one row a channel, with the sentences that feed it and the fields it is made of.
//
// A connector selects the first row whose name it begins with, so "utc_seconds_floor" comes before
// "utc_seconds". Where a row names several sentences, its function sees all of them and delivers with the
// last.
#include <iterator>
#include <strings.h>

#include "libvu/gps/extractors_private.h"

namespace libvu {

namespace {

struct Sentences {
    const char *ids[GPS_SENTENCE_IDS];
};
using Extract = void (*)(GpsExtractor *, Tokens, int32_t);

constexpr GpsExtractor row(const char *name, const Sentences &sentences, Extract extract)
{
    GpsExtractor made = {};
    for (const char *id : sentences.ids)
        if (id)
            made.sentence_id[made.sentence_count++] = id;
    made.name = name;
    made.extract = extract;
    return made;
}

constexpr GpsExtractor utcRow(const char *name, const Sentences &sentences, Extract extract)
{
    GpsExtractor made = row(name, sentences, extract);
    made.scratch = &utcStatus;
    return made;
}

// The UTC channels see every sentence that has a time, and deliver with the last one of a fix.
constexpr Sentences kTrkrUtc = {"$GPRMC", "$GPGGA", "$PRTLH", "$PRTLV", "$PRTLS", "$PRTLA", "$PRTLT"};
constexpr Sentences kGarminUtc = {"$GPRMC", "$GPGGA"};

constexpr double kKmhPerKnot = 1.852;
constexpr double kMetresPerSecondPerKnot = 0.5144444444444445;
constexpr double kMphPerKnot = 1.150779448023543;

// clang-format off
constexpr GpsExtractor kTrkr[] = {
    utcRow("utc_nanoseconds",          kTrkrUtc,   utcNanoseconds),
    utcRow("utc_seconds_floor",        kTrkrUtc,   utcSecondsFloor),
    utcRow("utc_seconds",              kTrkrUtc,   utcSeconds),
    utcRow("utc_minute",               kTrkrUtc,   utcMinute),
    utcRow("utc_hour",                 kTrkrUtc,   utcHour),
    row("latitude",                    {"$GPGGA"}, latitude<ggaHasFix, 2>),
    row("longitude",                   {"$GPGGA"}, longitude<ggaHasFix, 4>),
    row("altitude",                    {"$GPGGA"}, ggaNumber<9>),
    row("geoidal_height",              {"$GPGGA"}, plainNumber<11>),
    row("number_of_satellites_in_use", {"$GPGGA"}, plainNumber<7>),
    row("fix_quality",                 {"$GPGGA"}, plainNumber<6>),
    row("magnetic_variation",          {"$GPRMC"}, magneticVariation),
    row("utc_date_time",               {"$GPRMC"}, utcDateTime),
    row("faa_mode",                    {"$GPRMC"}, faaMode),
    row("utc_day",                     {"$GPRMC"}, utcDay),
    row("utc_month",                   {"$GPRMC"}, utcMonth),
    row("utc_year",                    {"$GPRMC"}, utcYear),
    row("pps_sync_active",             {"$GPRMC"}, ppsSyncActive),
    row("heading",                     {"$PRTLH"}, plainNumber<2>),
    row("gradient",                    {"$PRTLH"}, plainNumber<3>),
    row("speed_3d",                    {"$PRTLV"}, plainNumber<2>),
    row("speed_raw2d",                 {"$PRTLS"}, plainNumber<2>),
    row("speed_raw3d",                 {"$PRTLS"}, plainNumber<3>),
    row("accel_x",                     {"$PRTLA"}, plainNumber<2>),
    row("accel_y",                     {"$PRTLA"}, plainNumber<3>),
    row("accel_z",                     {"$PRTLA"}, plainNumber<4>),
    row("trigger",                     {"$PRTLT"}, trigger),
    // From here on the larger model alone.
    row("yaw_rate",                    {"$PRTLG"}, plainNumber<2>),
    row("pitch_rate",                  {"$PRTLG"}, plainNumber<3>),
    row("roll_rate",                   {"$PRTLG"}, plainNumber<4>),
    row("rtk_yaw",                     {"$PRTLR"}, plainNumber<2>),
    row("rtk_pitch",                   {"$PRTLR"}, plainNumber<3>),
    row("rtk_baseline",                {"$PRTLR"}, plainNumber<4>),
    row("rtk_accuracy",                {"$PRTLR"}, plainNumber<5>),
};
constexpr size_t kSmallTrkrRows = 27;
static_assert(std::size(kTrkr) == 34);

constexpr GpsExtractor kGarmin[] = {
    utcRow("utc_nanoseconds",               kGarminUtc, utcNanoseconds),
    utcRow("utc_seconds_floor",             kGarminUtc, utcSecondsFloor),
    utcRow("utc_seconds",                   kGarminUtc, utcSeconds),
    utcRow("utc_minute",                    kGarminUtc, utcMinute),
    utcRow("utc_hour",                      kGarminUtc, utcHour),
    row("altitude",                         {"$GPGGA"}, ggaNumber<9>),
    row("geoidal_height",                   {"$GPGGA"}, plainNumber<11>),
    row("number_of_satellites_in_use",      {"$GPGGA"}, plainNumber<7>),
    row("fix_quality",                      {"$GPGGA"}, plainNumber<6>),
    // The number of satellites ahead of the dilutions varies.
    row("horizontal_dilution_of_precision", {"$GPGSA"}, plainNumber<-2>),
    row("fix_type",                         {"$GPGSA"}, plainNumber<2>),
    row("position_dilution_of_precision",   {"$GPGSA"}, plainNumber<-3>),
    row("vertical_dilution_of_precision",   {"$GPGSA"}, plainNumber<-1>),
    row("latitude",                         {"$GPRMC"}, latitude<rmcIsActive, 3>),
    row("longitude",                        {"$GPRMC"}, longitude<rmcIsActive, 5>),
    row("ground_speed_knots",               {"$GPRMC"}, rmcNumber<7>),
    row("ground_speed_km/h",                {"$GPRMC"}, rmcNumber<7, kKmhPerKnot>),
    row("ground_speed_m/s",                 {"$GPRMC"}, rmcNumber<7, kMetresPerSecondPerKnot>),
    row("ground_speed_mph",                 {"$GPRMC"}, rmcNumber<7, kMphPerKnot>),
    row("ground_heading",                   {"$GPRMC"}, rmcNumber<8>),
    row("magnetic_variation",               {"$GPRMC"}, magneticVariation),
    row("utc_date_time",                    {"$GPRMC"}, utcDateTime),
    row("utc_day",                          {"$GPRMC"}, utcDay),
    row("utc_month",                        {"$GPRMC"}, utcMonth),
    row("utc_year",                         {"$GPRMC"}, utcYear),
    row("pps_sync_active",                  {"$GPRMC"}, ppsSyncActive),
};
static_assert(std::size(kGarmin) == 26);

struct Receiver {
    const char *name;
    std::span<const GpsExtractor> rows;
};
constexpr Receiver kReceivers[] = {
    {"TRKR-300",      std::span(kTrkr).first(kSmallTrkrRows)},
    {"TRKR-300-Plus", kTrkr},
    {"Garmin GPS",    kGarmin},
};
// clang-format on

} // namespace

std::span<const GpsExtractor> receiverRows(const char *receiver)
{
    for (const Receiver &known : kReceivers)
        if (strcasecmp(receiver, known.name) == 0)
            return known.rows;
    return {};
}

} // namespace libvu
