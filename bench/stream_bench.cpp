// A module's data records through the stream reader into 200 signals, beside a loop that only decodes the
// same payloads and stores times and values; both out of memory, and both out of a socket.
#include <bit>
#include <cmath>
#include <utility>

#include "bench/fed_node.h"
#include "bench/sockets.h"
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
    value = little ? value : libvu::reversed(value);
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
void decodeAndStore(std::span<const uint8_t> wire, const ProxyNode *node, std::vector<Decoded> &out)
{
    const auto word = [](const uint8_t *at) {
        return little ? libvu::loadHost<uint32_t>(at) : libvu::loadBig<uint32_t>(at);
    };
    const auto scale = static_cast<float>(node->scale), offset = static_cast<float>(node->offset);
    Decoded *to = out.data();
    for (size_t at = 0; at < wire.size();) {
        const size_t end = at + 8 + libvu::loadBig<uint32_t>(&wire[at + 4]);
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

// The loop as the callback of a node's watcher, with one read an event.
struct DecodingLoop {
    bool little;
    std::vector<Decoded> decoded;
    size_t taken = 0; // bytes
    static inline DecodingLoop *running = nullptr;

    void decode(std::span<const uint8_t> wire, const ProxyNode *node)
    {
        (little ? decodeAndStore<true> : decodeAndStore<false>)(wire, node, decoded);
        taken += wire.size();
    }
    static void onReadable(struct ev_loop *, ev_io *watcher, int)
    {
        const auto *node = static_cast<const ProxyNode *>(watcher->data);
        const ssize_t got = read(node->fd, node->inbuf.buf, node->inbuf.capacity);
        running->decode({node->inbuf.buf, static_cast<size_t>(got)}, node);
    }
};

constexpr int64_t kStartTicks = (946684800 + int64_t{kStart}) * libvu::kTicksPerSecond;

// A module with its signals bound, and what the loop beside it needs. Arguments of a benchmark: form of the
// module, samples a record. Five are what 50 ms bring at 100 a second.
struct BoundModule {
    explicit BoundModule(const benchmark::State &state, int fd)
        : module(kModules[state.range(0)]), samples(static_cast<uint32_t>(state.range(1))),
          channel(stanzaOf(module), 10.0, fd), decoding{module.little,
                                                        std::vector<Decoded>(size_t{kSignals} * samples)}
    {
        node->start_time = kStartTicks;
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
    Bytes nextRecords() { return records(module, samples, std::exchange(number, number + samples)); }
    void flush()
    {
        for (Pipe *pipe : pipes)
            pipeFlushFrames(pipe);
    }
    void tell(benchmark::State &state, const vu::bench::Turns &turns) const
    {
        state.counters["of_limit"] = turns.ratio();
        state.SetLabel(std::string(module.connector) + (module.scaled ? " scaled" : ""));
        state.SetItemsProcessed(state.iterations() * kSignals * samples);
    }

    const Module &module;
    const uint32_t samples;
    vu::bench::FedNode channel;
    ProxyNode *const node = channel.node;
    DecodingLoop decoding;
    std::vector<Pipe *> pipes;
    uint64_t number = 0;

private:
    static std::string stanzaOf(const Module &module)
    {
        return R"({"name":"m","data_type":"d","connector":")" + std::string(module.connector) + '"' +
               module.settings + '}';
    }
};

void Stream(benchmark::State &state)
{
    BoundModule bound(state, open("/dev/null", O_RDONLY));
    vu::bench::Turns turns;
    for (auto _ : state) {
        const Bytes wire = bound.nextRecords();
        turns.limit([&] { bound.decoding.decode(wire, bound.node); });
        bound.channel.bring(wire);
        turns.work([&] { bound.channel.read(); });
        state.SetIterationTime(turns.lastWork());
        bound.flush();
    }
    bound.tell(state, turns);
}
BENCHMARK(Stream)->UseManualTime()->ArgsProduct({{0, 1, 2, 3}, {1, 2, 3, 5, 10, 100}});

// The same from the readable event on, as a recorder meets it. What a module sends at a time comes in one
// read.
void StreamFromSocket(benchmark::State &state)
{
    const vu::bench::Sockets sockets;
    BoundModule bound(state, dup(sockets.channelEnd()));
    membufExpand(&bound.node->inbuf, 1 << 16); // as it has grown after some time
    DecodingLoop::running = &bound.decoding;
    struct ev_loop *const loop = ev_default_loop(0);
    const int64_t &reached = bound.node->cs_list->sequentializer->last_target; // of the last signal
    vu::bench::Turns turns;
    for (auto _ : state) {
        const Bytes wire = bound.nextRecords();
        ev_set_cb(bound.node->watcher, DecodingLoop::onReadable);
        sockets.send(wire);
        bound.decoding.taken = 0;
        turns.limit([&] {
            while (bound.decoding.taken < wire.size())
                ev_run(loop, EVRUN_NOWAIT);
        });
        ev_set_cb(bound.node->watcher, proxyNode_IoEvent);
        sockets.send(wire);
        const int64_t before = reached;
        turns.work([&] {
            while (reached == before)
                ev_run(loop, EVRUN_NOWAIT);
        });
        state.SetIterationTime(turns.lastWork());
        bound.flush();
    }
    bound.tell(state, turns);
}
BENCHMARK(StreamFromSocket)->UseManualTime()->ArgsProduct({{0, 1, 2, 3}, {1, 2, 5, 10}});

} // namespace
