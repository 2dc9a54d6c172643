// A module stream for tests: its records as a peer writes them, and a channel with signals.
#pragma once

#include <gmock/gmock.h>

#include "libvu/bus/can_signal.h"
#include "libvu/stream/metainfo.h"
#include "libvu/stream/stream_signal.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/node_fixture.h"

namespace vu::test {

using Texts = std::vector<std::string>;

constexpr uint32_t kMetainfo = 2;
constexpr uint32_t kStartSecond = 828'315'200; // since 2000; the tests' samples start there
constexpr int64_t kStart = 71'000'000'000'000'000;

// A size that does not fit the header, or is 0, follows in a word of its own.
inline Bytes streamRecord(uint32_t type, uint32_t number, std::span<const uint8_t> payload)
{
    const auto size = static_cast<uint32_t>(payload.size()), inHeader = size > 255 ? 0 : size;
    Bytes bytes;
    bytes.be(type << 28 | inHeader << 20 | number);
    return (inHeader ? bytes : bytes.be(size)).add(payload);
}
inline Bytes metainfo(uint32_t number, std::string_view json)
{
    return streamRecord(kMetainfo, number, Bytes().zeros(4).add(json));
}
constexpr char kBindTorque[] = R"({"method":"subscribe","params":["torque"]})";
inline std::string signalStanza(const std::string &name, const std::string &rate = "100",
                                const std::string &type = "float64")
{
    return R"({"data_type":")" + type + R"(","name":")" + name +
           R"(","scale":9,"offset":9,"pipe_rate":5,"sample_rate":)" + rate +
           R"(,"invalid_data_output_value":-5,"stale_data_expiration_time":0.02})";
}

// Binds nothing by itself.
struct StreamChannel : TestChannel {
    explicit StreamChannel(const std::string &connector = "pd806h", const std::string &more = "",
                           const std::string &torqueStanza = signalStanza("torque"))
        : TestChannel(R"({"name":"m","data_type":"module","connector":")" + connector + '"' + more + '}'),
          torque(streamCANSignalInit(torqueStanza.c_str()))
    {
        node->start_time = kStart;
        for (CanSignalNode *signal : {torque, speed, rawSpeed}) { // the last one made comes first
            signal->proxy = node;
            signal->next = node->cs_list;
            node->cs_list = signal;
        }
        sendMarker();
    }
    ~StreamChannel()
    {
        for (CanSignalNode *signal : {rawSpeed, speed, torque}) {
            releaseSignal(signal);
            free(signal->config);
            free(signal);
        }
    }
    Texts process(uint32_t number, std::string_view json)
    {
        process_metainfo(node, number, json.data(), static_cast<uint32_t>(json.size()));
        return errors.texts();
    }
    CanSignalNode *bound(uint32_t number) const
    {
        return static_cast<const StreamSlot *>(node->channel_aux)[number].context;
    }

    CanSignalNode *rawSpeed = streamCANSignalInit(signalStanza("speed_raw").c_str());
    CanSignalNode *speed = streamCANSignalInit(signalStanza("speed").c_str());
    CanSignalNode *torque;
    ErrorTrap errors;
    LogTrap log;
};

} // namespace vu::test
