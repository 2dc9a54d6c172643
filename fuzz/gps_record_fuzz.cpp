// Arbitrary records to a channel that listens with every row of both receivers' tables. Besides the
// sanitizers' checks: the times of the channel never run backwards.
#include "fuzz/host.h"
#include "tests/gps/receiver.h"

using namespace vu::test;

struct Everything : Receiver {
    Everything()
    {
        for (const char *type : {"TRKR-300-Plus", "Garmin GPS"})
            for (const auto &[name, value] : channelsOf(type))
                listen({{"source_database", type}, {"connector", name}, {"sample_rate", 1}});
        listen({{"connector", "utc_date_time"}, {"data_type", "message_raw"}});
        for (GpsSignal *signal : signals)
            if (signal->sequentializer)
                pipeAttachPipe(&signal->pipes);
    }
};

// Records of a length byte, a byte of time since the one before in 1/64 s, and the text.
void fuzz(const uint8_t *data, size_t size)
{
    static auto &receiver = *new Everything;
    static int64_t time = 0; // goes on from input to input, as the streams do
    const auto *adjust = static_cast<GpsTsAdjust *>(receiver.channel.channel_aux);
    for (libvu::WireReader wire(data, size); wire.remaining() > 2;) {
        const size_t length = std::min<size_t>(wire.u8(), wire.remaining() - 1);
        time += wire.u8() * (kSecond / 64);
        const auto text = wire.bytes(length);
        const double before = adjust->last_output;
        receiver.feed({reinterpret_cast<const char *>(text.data()), length}, time);
        require(adjust->last_output >= before);
    }
    for (GpsSignal *signal : receiver.signals)
        pipeFlushFrames(signal->pipes.first);
}
