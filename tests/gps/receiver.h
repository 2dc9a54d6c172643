// The vocabulary of the GPS tests: a channel with its signals, fed sentence by sentence as its reader would.
#pragma once

#include <cmath>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "tests/gps/channels.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/streams.h"

namespace vu::test {

using nlohmann::json;
constexpr int64_t kSecond = 40'000'000;
constexpr double kSilent = -98765.4375; // what a signal hears that is given nothing; no value of any test

// A sentence with every field that a row reads. `changes` is "9=,12=*6A" and the like; "#12" leaves 12
// fields.
inline std::string sentence(const std::string &id, const std::string &changes = "")
{
    const std::string own = std::to_string(+id.back()); // so that no $PRTL sentence can pass for another
    const std::string first = own + ".25," + (id.back() == 'T' ? "3" : own + ".5") + ",-" + own + ".75,7*55";
    Strings fields =
        split(id == "$GPRMC"   ? "$GPRMC,101512.5,A,5230.5000,N,01322.7500,E,10.0,90.0,150324,2.0,E,A*6A"
              : id == "$GPGGA" ? "$GPGGA,101512.5,5230.5000,S,01322.7500,W,2,08,0.9,545.4,M,46.9,M,,*47"
              : id == "$GPGSA" ? "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39"
                               : id + ",101512.5," + first,
              ',');
    for (const std::string &change : split(changes, ',')) {
        const size_t number = std::stoul(change.substr(change[0] == '#'));
        if (change[0] == '#')
            fields.resize(number);
        else
            fields.at(number) = change.substr(change.find('=') + 1);
    }
    std::string text = fields[0];
    for (size_t i = 1; i < fields.size(); i++)
        text += "," + fields[i];
    return text;
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
    GpsSignal *listen(const json &changes)
    {
        GpsSignal *signal = gpsSignalInit(&channel, signalStanza(changes).c_str());
        if (!signal)
            return nullptr;
        (signals.empty() ? channel.gps_set : signals.back()->next) = signal;
        signals.push_back(signal);
        return signal;
    }
    // A record at an odd address that ends exactly where its memory does. Returns it as it is left behind.
    std::string feed(std::string_view text, int64_t time = 0)
    {
        const size_t size = 12 + text.size();
        auto *memory = static_cast<char *>(malloc(size + 1));
        storeBig(memory + 1, static_cast<uint32_t>(text.size() + 8));
        text.copy(memory + 13, text.size());
        gpsProcessSignals(channel.gps_set, memory + 1, time);
        const std::string left(memory + 1, size);
        free(memory);
        return left;
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

class Gps : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
    Receiver receiver;
};

} // namespace vu::test
