// A module's data records through the stream reader into 200 signals, beside a loop that only decodes the
// same payloads and stores times and values.
#include <bit>
#include <cmath>

#include "bench/fed_node.h"
#include "bench/turns.h"
#include "libvu/bus/can_signal.h"
#include "libvu/core/wire_private.h"
#include "libvu/stream/metainfo.h"
#include "libvu/stream/stream_signal.h"
#include <benchmark/benchmark.h>

namespace {

constexpr uint32_t kSignals = 200;
constexpr uint32_t kSample = 12;         // bytes
constexpr uint32_t kPerSecond = 100;     // samples of each signal
constexpr uint32_t kStart = 828'315'200; // seconds since 2000
constexpr double kSecondsTo2000 = 946684800.0;
using Bytes = std::vector<uint8_t>;

struct Module {
    const char *connector;
    bool little, scaled;
    const char *settings;
};
const Module kModules[] = {{"pd806h", false, false, ""},
                           {"pd806k", true, false, ""},
                           {"pd806h", false, true, R"(,"scale":2,"offset":1)"},
                           {"pd806k", true, true, R"(,"scale":2,"offset":1)"}};

void put(Bytes &bytes, uint32_t value, bool little = false)
{
    value = little ? value : vu::reversed(value);
    const auto *from = reinterpret_cast<const uint8_t *>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

// The next samples of every signal from `number` on; times rise by one sample period.
Bytes records(const Module &module, uint32_t samples, uint64_t number)
{
    Bytes bytes;
    for (uint32_t signal = 0; signal < kSignals; signal++) {
        put(bytes, 16 + signal);
        put(bytes, samples * kSample);
        for (uint64_t i = number; i < number + samples; i++) {
            const auto seconds = static_cast<uint32_t>(kStart + i / kPerSecond);
            const auto fraction = static_cast<uint32_t>(((i % kPerSecond) << 32) / kPerSecond);
            put(bytes, module.little ? fraction : seconds, module.little);
            put(bytes, module.little ? seconds : fraction, module.little);
            put(bytes, std::bit_cast<uint32_t>(1.5f), module.little);
        }
    }
    return bytes;
}

struct Decoded {
    double time, value;
};

template <bool little>
void decodeAndStore(const Bytes &wire, const ProxyNode *node, std::vector<Decoded> &out)
{
    const auto word = [](const uint8_t *at) {
        return little ? vu::loadHost<uint32_t>(at) : vu::loadBig<uint32_t>(at);
    };
    const auto scale = static_cast<float>(node->scale), offset = static_cast<float>(node->offset);
    Decoded *to = out.data();
    for (size_t at = 0; at < wire.size();) {
        const size_t end = at + 8 + vu::loadBig<uint32_t>(&wire[at + 4]);
        for (at += 8; at < end; at += kSample) {
            const uint32_t seconds = word(&wire[at + (little ? 4 : 0)]),
                           fraction = word(&wire[at + (little ? 0 : 4)]);
            const double ticks = (seconds + kSecondsTo2000 + fraction * 0x1p-32) * 4e7;
            to->time = std::trunc(ticks - static_cast<double>(node->start_time));
            to->value = std::fma(std::bit_cast<float>(word(&wire[at + 8])), scale, offset);
            to++;
        }
    }
    benchmark::ClobberMemory();
}

void bindSignals(ProxyNode *node, std::vector<Pipe *> &pipes)
{
    const std::string bind = R"({"method":"subscribe","params":["s"]})";
    for (uint32_t i = 0; i < kSignals; i++) {
        node->cs_list = streamCANSignalInit(
            R"({"data_type":"float64","name":"s","scale":1,"offset":0,"pipe_rate":1,"sample_rate":100,
                "invalid_data_output_value":0,"stale_data_expiration_time":10})"); // lives as long as the
                                                                                   // process
        node->cs_list->proxy = node;
        process_metainfo(node, 16 + i, bind.data(), static_cast<uint32_t>(bind.size()));
        pipes.push_back(pipeAttachPipe(&node->cs_list->pipes));
    }
}

// Arguments: form of the module, samples a record.
void Stream(benchmark::State &state)
{
    const Module &module = kModules[state.range(0)];
    const auto samples = static_cast<uint32_t>(state.range(1));
    vu::bench::FedNode channel(R"({"name":"m","data_type":"d","connector":")" +
                               std::string(module.connector) + '"' + module.settings + '}');
    channel.node->start_time = (946684800 + int64_t{kStart}) * vu::kTicksPerSecond;
    std::vector<Pipe *> pipes;
    bindSignals(channel.node, pipes);
    std::vector<Decoded> decoded(size_t{kSignals} * samples);
    vu::bench::Turns turns;
    uint64_t number = 0;
    for (auto _ : state) {
        const Bytes wire = records(module, samples, number);
        number += samples;
        turns.limit([&] {
            (module.little ? decodeAndStore<true> : decodeAndStore<false>)(wire, channel.node, decoded);
        });
        channel.bring(wire);
        turns.work([&] { channel.read(); });
        state.SetIterationTime(turns.lastWork());
        for (Pipe *pipe : pipes)
            pipeFlushFrames(pipe);
    }
    state.counters["of_limit"] = turns.ratio();
    state.SetLabel(std::string(module.connector) + (module.scaled ? " scaled" : ""));
    state.SetItemsProcessed(state.iterations() * kSignals * samples);
}
BENCHMARK(Stream)->UseManualTime()->ArgsProduct({{0, 1, 2, 3}, {1, 2, 3, 4, 10, 100}});

} // namespace
