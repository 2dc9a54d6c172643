// Sockets filled beforehand, drained into frames: beside the same drain that only reads. Both take turns in
// the same run, so they see the same noise; "of_read_only" is the ratio of their medians.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <ev.h>
#include <malloc.h>
#include <memory>
#include <unistd.h>
#include <vector>

#include "bench/sockets.h"
#include "bench/turns.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr size_t kBuffer = 65536; // of either side
constexpr uint8_t kMarker[] = {0xFE, 0xED};

// A float32 channel in frames of 1000. For the limit its watcher is lent to a callback that makes the one
// read of an event, into the same buffer, and nothing else.
struct Channel {
    vu::bench::Sockets sockets;
    ProxyNode *node;
    Pipe *pipe;
    static inline int64_t received = 0; // bytes, by all channels on loan

    Channel()
        : node(proxyNode_Create(
              R"({"name":"n","data_type":"sequential_float32","connector":"c","sample_rate":16384})",
              sockets.channelEnd(), 16.384)),
          pipe(pipeAttachPipe(&node->pipes))
    {
        sockets.send(kMarker);
        ev_run(ev_default_loop(0), EVRUN_NOWAIT);
        if (node->state != PROXY_NODE_RECORDS_FLOW || node->inbuf.capacity != kBuffer)
            std::abort();
    }
    ~Channel()
    {
        ev_io_stop(ev_default_loop(0), node->watcher);
        pipeDetachPipe(&node->pipes, pipe);
        frameDelete(node->frame);
        for (void *owned : {static_cast<void *>(node->inbuf.buf), static_cast<void *>(node->name),
                            static_cast<void *>(node->watcher), static_cast<void *>(node)})
            std::free(owned);
    }
    static void readOnly(struct ev_loop *, ev_io *watcher, int)
    {
        const ProxyNode &node = *static_cast<const ProxyNode *>(watcher->data);
        received += read(node.fd, node.inbuf.buf, node.inbuf.capacity);
    }
    // A consumer that keeps up: its frames are gone, and their memory free, before the next event.
    static void readAndTake(struct ev_loop *loop, ev_io *watcher, int events)
    {
        proxyNode_IoEvent(loop, watcher, events);
        pipeFlushFrames(static_cast<const ProxyNode *>(watcher->data)->pipes.first);
    }
};
using Channels = std::vector<std::unique_ptr<Channel>>;

Channels openChannels(size_t count)
{
    Channels channels;
    for (size_t i = 0; i < count; i++)
        channels.push_back(std::make_unique<Channel>());
    return channels;
}

// A host that records for hours keeps its heap: otherwise every flush of queued frames gives their pages back
// to the system, and the next frames fault them in again, which the read-only side never has to.
void keepHeap()
{
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    mallopt(M_MMAP_THRESHOLD, 256 << 20);
}

// Arguments: channels, bytes of a record with its length word, records waiting in each socket; whether the
// frames are taken after every event, which then counts as work, or wait in their pipes until all are
// drained.
void Drain(benchmark::State &state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const auto waiting = static_cast<size_t>(state.range(2));
    const auto worker = state.range(3) != 0 ? Channel::readAndTake : proxyNode_IoEvent;
    std::vector<uint8_t> record(static_cast<size_t>(state.range(1)));
    vu::storeBig(record.data(), static_cast<uint32_t>(record.size() - 4));
    keepHeap();
    struct ev_loop *const loop = ev_default_loop(0);
    const Channels channels = openChannels(count);
    const auto bytes = static_cast<int64_t>(count * waiting * record.size());
    const auto samples = static_cast<int64_t>(waiting * (record.size() - 12) / 4); // of a channel
    // One write a record, as an acquisition process sends them.
    const auto fill = [&](auto *reader) {
        for (const auto &channel : channels) {
            ev_set_cb(channel->node->watcher, reader);
            for (size_t i = 0; i < waiting; i++)
                channel->sockets.send(record);
        }
    };
    const auto wantMore = [&](int64_t expected) {
        return channels.back()->node->sample_count < expected ||
               channels.front()->node->sample_count < expected;
    };
    int64_t expected = 0;
    vu::bench::Turns turns;
    for (auto _ : state) {
        fill(Channel::readOnly);
        Channel::received = 0;
        turns.limit([&] {
            while (Channel::received < bytes)
                ev_run(loop, EVRUN_NOWAIT);
        });
        fill(worker);
        expected += samples;
        turns.work([&] {
            while (wantMore(expected))
                ev_run(loop, EVRUN_NOWAIT);
        });
        state.SetIterationTime(turns.lastWork());
        for (const auto &channel : channels)
            pipeFlushFrames(channel->pipe);
    }
    const auto records = static_cast<double>(state.iterations()) * static_cast<double>(count * waiting);
    state.counters["records"] = benchmark::Counter(records, benchmark::Counter::kIsRate);
    state.counters["of_read_only"] = turns.ratio();
}
BENCHMARK(Drain)
    ->ArgNames({"channels", "record", "waiting", "taken"})
    ->ArgsProduct({{1, 16, 256}, {20}, {1, 100}, {0, 1}})
    ->ArgsProduct({{1, 16, 256}, {412}, {1, 50}, {0, 1}})
    ->ArgsProduct({{1, 16, 256}, {4012}, {1, 20}, {0, 1}})
    ->UseManualTime();

// What a node that waits costs: the heap's growth, a node's sockets left out.
void IdleNode(benchmark::State &state)
{
    constexpr size_t kNodes = 256;
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        const Channels channels = openChannels(kNodes);
        const size_t grown = mallinfo2().uordblks - before;
        state.counters["bytes"] = static_cast<double>(grown) / kNodes;
        state.counters["of_them_inbuf"] = kBuffer;
    }
}
BENCHMARK(IdleNode)->Iterations(1);

} // namespace
