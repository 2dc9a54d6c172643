// Arbitrary records to a channel that listens with every row of both receivers' tables. Besides the
// sanitizers' checks: the times of the channel never run backwards.
#include <cstdlib>
#include <cstring>
#include <utility>

#include "libvu/core/callbacks.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/gps_signal.h"
#include "tests/gps/channels.h"

namespace {

ProxyNode channel;

void listen(const char *receiver, const std::string &connector, const char *type)
{
    const std::string stanza =
        R"({"name":"s","data_type":")" + std::string(type) + R"(","source_database":")" + receiver +
        R"(","connector":")" + connector +
        R"(","pipe_rate":1,"scale":1,"offset":0,)"
        R"("sample_rate":1,"invalid_data_output_value":0,"stale_data_expiration_time":9})";
    GpsSignal *signal = gpsSignalInit(&channel, stanza.c_str());
    pipeAttachPipe(&signal->pipes);
    signal->next = std::exchange(channel.gps_set, signal);
}

bool listenToEverything()
{
    using namespace vu::test;
    libvuErrorCallback = [](const char *) { return 1; };
    const std::string common = kUtcChannels + std::string(kCommonChannels);
    for (const std::string &name : split(common + kTrkrChannels + kPlusChannels, ' '))
        listen("TRKR-300-Plus", name.substr(0, name.find('=')), "_float32");
    for (const std::string &name : split(common + kGarminChannels, ' '))
        listen("Garmin GPS", name.substr(0, name.find('=')), "_float64");
    listen("Garmin GPS", "utc_date_time", "message_raw");
    channel.channel_aux = gpsInitializeTsAdjust();
    return true;
}

} // namespace

// Records of a length byte, a byte of time since the one before in 1/64 s, and the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = listenToEverything();
    static int64_t time = 0; // goes on from input to input, as the streams do
    auto *adjust = static_cast<GpsTsAdjust *>(channel.channel_aux);
    vu::WireReader wire(data, ready ? size : 0);
    while (wire.remaining() > 2) {
        const size_t length = std::min<size_t>(wire.u8(), wire.remaining() - 1);
        time += wire.u8() * (vu::kTicksPerSecond / 64);
        const auto text = wire.bytes(length);
        auto *record = static_cast<uint8_t *>(std::malloc(12 + length)); // nothing behind it is ours
        vu::storeBig(record, static_cast<uint32_t>(length + 8));
        std::memcpy(record + 12, text.data(), length);
        const double before = adjust->last_output;
        gpsProcessSignals(channel.gps_set, record, time);
        std::free(record);
        if (!(adjust->last_output >= before))
            std::abort();
    }
    for (GpsSignal *signal = channel.gps_set; signal; signal = signal->next)
        pipeFlushFrames(signal->pipes.first);
    return 0;
}
