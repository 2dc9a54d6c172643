// A channel with GPS signals, fed sentence by sentence as its reader would.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/proxy/proxy_node.h"
#include "tests/support/release_stream.h"
#include "tests/support/split.h"

namespace vu::test {

using nlohmann::json;
constexpr int64_t kSecond = 40'000'000;
constexpr double kSilent = -98765.4375; // what a signal hears that is given nothing; no value of any test

// Every channel of a receiver, and what it makes of complete sentences.
inline std::map<std::string, double> channelsOf(const std::string &type)
{
    constexpr const char *kTable =
#include "tests/gps/channels.txt"
        ;
    const char letter = type[0] == 'G' ? 'G' : type.ends_with("Plus") ? 'P' : 'T';
    std::istringstream words(kTable);
    std::map<std::string, double> channels;
    std::string receivers;
    for (std::string word; words >> word;)
        if (const size_t is = word.find('='); is > word.size())
            receivers = word;
        else if (receivers.find(letter) < receivers.size())
            channels[word.substr(0, is)] = std::stod(word.substr(is + 1));
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
    // A record at an odd address that ends exactly where its memory does. Returns it as it is left.
    std::string feed(std::string_view text, int64_t time = 0)
    {
        std::vector<char> memory(13 + text.size());
        libvu::storeBig(&memory[1], static_cast<uint32_t>(text.size() + 8));
        text.copy(memory.data() + 13, text.size());
        gpsProcessSignals(channel.gps_set, &memory[1], time);
        return {memory.begin() + 1, memory.end()};
    }
    // The same. Returns what each signal with a stream was given.
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
