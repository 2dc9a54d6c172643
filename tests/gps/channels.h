// Every channel of each receiver, in the order of its table, with what it makes of whole sentences.
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace vu::test {

inline const char *const kUtcChannels =
    "utc_nanoseconds=500000000 utc_seconds_floor=12 utc_seconds=12.5 utc_minute=15 utc_hour=10 ";
inline const char *const kCommonChannels =
    "altitude=545.4 geoidal_height=46.9 number_of_satellites_in_use=8 fix_quality=2 utc_day=15 utc_month=3 "
    "utc_year=2024 pps_sync_active=0 magnetic_variation=-2 ";
inline const char *const kTrkrChannels =
    "latitude=-52.50833333333333 longitude=-13.379166666666666 faa_mode=65 heading=72.25 gradient=72.5 "
    "speed_3d=86.25 "
    "speed_raw2d=83.25 speed_raw3d=83.5 accel_x=65.25 accel_y=65.5 accel_z=-65.75 trigger=1 ";
inline const char *const kPlusChannels = "yaw_rate=71.25 pitch_rate=71.5 roll_rate=-71.75 rtk_yaw=82.25 "
                                         "rtk_pitch=82.5 rtk_baseline=-82.75 rtk_accuracy=7";
inline const char *const kGarminChannels =
    "latitude=52.50833333333333 longitude=13.379166666666666 horizontal_dilution_of_precision=1.3 fix_type=3 "
    "position_dilution_of_precision=2.5 vertical_dilution_of_precision=2.1 ground_speed_knots=10 "
    "ground_heading=90 "
    "ground_speed_km/h=18.52 ground_speed_m/s=5.144444444444445 ground_speed_mph=11.507794480235429";

using Strings = std::vector<std::string>;

inline Strings split(const std::string &text, char at)
{
    Strings pieces;
    std::istringstream in(text);
    for (std::string piece; std::getline(in, piece, at);)
        pieces.push_back(piece);
    return pieces;
}

} // namespace vu::test
