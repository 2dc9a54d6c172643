// A channel with GPS signals, fed sentence by sentence as its reader would.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "tests/support/release_stream.h"
#include "tests/support/split.h"

namespace vu::test {

using nlohmann::json;
constexpr int64_t kSecond = 40'000'000;
constexpr double kSilent = -98765.4375; // what a signal hears that is given nothing; no value of any test

// Every channel of a receiver, and what it makes of whole sentences.
inline std::map<std::string, double> channelsOf(const std::string &type)
{
    std::string text =
        R"(utc_nanoseconds 500000000 utc_seconds_floor 12 utc_seconds 12.5 utc_minute 15 utc_hour 10
        altitude 545.4 geoidal_height 46.9 number_of_satellites_in_use 8 fix_quality 2 utc_day 15 utc_month 3
        utc_year 2024 pps_sync_active 0 magnetic_variation -2 )";
    text += type == "Garmin GPS" ? R"(latitude 52.50833333333333 longitude 13.379166666666666 fix_type 3
        horizontal_dilution_of_precision 1.3 position_dilution_of_precision 2.5 vertical_dilution_of_precision 2.1
        ground_speed_knots 10 ground_heading 90 ground_speed_km/h 18.52 ground_speed_m/s 5.144444444444445
        ground_speed_mph 11.507794480235429)"
                                 : R"(latitude -52.50833333333333 longitude -13.379166666666666 faa_mode 65
        heading 72.25 gradient 72.5 speed_3d 86.25 speed_raw2d 83.25 speed_raw3d 83.5 accel_x 65.25 accel_y 65.5
        accel_z -65.75 trigger 1 )";
    if (type == "TRKR-300-Plus")
        text += R"(yaw_rate 71.25 pitch_rate 71.5 roll_rate -71.75 rtk_yaw 82.25 rtk_pitch 82.5
            rtk_baseline -82.75 rtk_accuracy 7)";
    std::map<std::string, double> channels;
    std::istringstream words(text);
    std::string name;
    for (double value; words >> name >> value;)
        channels[name] = value;
    return channels;
}

inline std::string signalStanza(const json &changes)
{
    json base = json::parse(R"({"data_type":"message_float64","name":"s","source_database":"Garmin GPS",
        "connector":"latitude","pipe_rate":1,"scale":1,"offset":0,"sample_rate":10,
        "invalid_data_output_value":-1,"stale_data_expiration_time":1e9})");
    base.merge_patch(changes);
    return base.dump();
}

inline void release(GpsSignal *signal)
{
    while (signal->pipes.first)
        pipeDetachPipe(&signal->pipes, signal->pipes.first);
    if (signal->sequentializer)
        releaseStream(signal->sequentializer);
    else if (signal->extractor)
        free(signal->extractor->scratch);
    for (char *text : {signal->json, signal->name, signal->source_database})
        free(text);
    free(signal->extractor);
    free(signal);
}

struct Receiver {
    ProxyNode channel = {};
    std::vector<GpsSignal *> signals;

    Receiver() { channel.channel_aux = gpsInitializeTsAdjust(); }
    ~Receiver()
    {
        for (GpsSignal *signal : signals)
            release(signal);
        free(channel.channel_aux);
    }
    // Texts are taken in a pipe.
    GpsSignal *listen(const json &changes)
    {
        GpsSignal *signal = gpsSignalInit(&channel, signalStanza(changes).c_str());
        if (!signal)
            return nullptr;
        if (signal->width < 0)
            pipeAttachPipe(&signal->pipes);
        (signals.empty() ? channel.gps_set : signals.back()->next) = signal;
        signals.push_back(signal);
        return signal;
    }
    // A record at an odd address that ends exactly where its memory does. Returns it as it is left behind.
    std::string feed(std::string_view text, int64_t time = 0)
    {
        std::vector<char> memory(13 + text.size());
        storeBig(&memory[1], static_cast<uint32_t>(text.size() + 8));
        text.copy(memory.data() + 13, text.size());
        gpsProcessSignals(channel.gps_set, &memory[1], time);
        return {memory.begin() + 1, memory.end()};
    }
    // The same, and tells what each signal with a stream was given.
    std::vector<double> say(std::string_view text, int64_t time = 0)
    {
        std::vector<double> heard;
        for (GpsSignal *signal : signals)
            if (signal->sequentializer)
                signal->sequentializer->value = kSilent;
        feed(text, time);
        for (GpsSignal *signal : signals)
            heard.push_back(signal->sequentializer ? signal->sequentializer->value : kSilent);
        return heard;
    }
};

} // namespace vu::test
