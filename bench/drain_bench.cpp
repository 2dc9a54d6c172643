// Sockets filled beforehand, drained into frames: beside the same drain that only reads, and beside one that
// does no more than frames need, a block from malloc and one copy of their samples. All take turns in the
// same run, so they see the same noise.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <ev.h>
#include <malloc.h>
#include <memory>
#include <unistd.h>
#include <utility>
#include <vector>

#include "bench/sockets.h"
#include "bench/turns.h"
#include "libvu/core/wire_private.h"
#include "libvu/proxy/proxy_node.h"

namespace {

constexpr size_t kBuffer = 65536; // of either side
constexpr uint8_t kMarker[] = {0xFE, 0xED};

// What a drain has to do for frames of 1000 samples, and nothing of what else a reader does: no marker, no
// swap, no pipe.
class BareFrames {
public:
    // Number of bytes of the complete records in `arrived`.
    size_t take(const uint8_t *arrived, size_t size)
    {
        size_t at = 0;
        while (size - at >= 4) {
            const size_t whole = 4 + size_t{libvu::loadBig<uint32_t>(arrived + at)};
            if (size - at < whole)
                break;
            store(arrived + at + kHead, whole - kHead);
            at += whole;
        }
        return at;
    }
    ~BareFrames()
    {
        release();
        std::free(frame_);
    }
    void release()
    {
        for (void *block : full_)
            std::free(block);
        full_.clear();
    }

private:
    static constexpr size_t kHead = 12, kSamples = 4000; // bytes

    void store(const uint8_t *from, size_t bytes)
    {
        while (bytes > 0) {
            if (!frame_)
                frame_ = static_cast<uint8_t *>(std::malloc(sizeof(Frame) + kSamples));
            const size_t taken = std::min(bytes, kSamples - filled_);
            std::memcpy(frame_ + sizeof(Frame) + filled_, from, taken);
            from += taken;
            bytes -= taken;
            filled_ += taken;
            if (filled_ < kSamples)
                continue;
            full_.push_back(std::exchange(frame_, nullptr));
            filled_ = 0;
        }
    }

    uint8_t *frame_ = nullptr;
    size_t filled_ = 0;
    std::vector<void *> full_;
};

// A float32 channel in frames of 1000. For the limits its watcher is lent to callbacks that make the one read
// of an event, into the same buffer, and no frame or bare ones.
struct Channel {
    vu::bench::Sockets sockets;
    ProxyNode *node;
    Pipe *pipe;
    BareFrames bare;
    size_t waiting = 0;                 // bytes of an unfinished record, for the bare frames
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
    // Lends the watcher out; a callback of the library's finds its node there, one of ours its channel.
    void lend(void (*callback)(struct ev_loop *, ev_io *, int), void *data)
    {
        ev_set_cb(node->watcher, callback);
        node->watcher->data = data;
    }
    static void readOnly(struct ev_loop *, ev_io *watcher, int)
    {
        const ProxyNode &node = *static_cast<const Channel *>(watcher->data)->node;
        received += read(node.fd, node.inbuf.buf, node.inbuf.capacity);
    }
    template <bool taken>
    static void readBare(struct ev_loop *, ev_io *watcher, int)
    {
        auto &channel = *static_cast<Channel *>(watcher->data);
        const Membuf &in = channel.node->inbuf;
        const ssize_t got = read(channel.node->fd, in.buf + channel.waiting, in.capacity - channel.waiting);
        received += got;
        channel.waiting += static_cast<size_t>(got);
        const size_t used = channel.bare.take(in.buf, channel.waiting);
        channel.waiting -= used;
        std::memmove(in.buf, in.buf + used, channel.waiting);
        if (taken)
            channel.bare.release();
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
    const bool taken = state.range(3) != 0;
    std::vector<uint8_t> record(static_cast<size_t>(state.range(1)));
    libvu::storeBig(record.data(), static_cast<uint32_t>(record.size() - 4));
    keepHeap();
    struct ev_loop *const loop = ev_default_loop(0);
    const Channels channels = openChannels(count);
    const auto bytes = static_cast<int64_t>(count * waiting * record.size());
    const auto samples = static_cast<int64_t>(waiting * (record.size() - 12) / 4); // of a channel
    int64_t expected = 0;
    // One write a record, as an acquisition process sends them.
    const auto fill = [&] {
        for (const auto &channel : channels)
            for (size_t i = 0; i < waiting; i++)
                channel->sockets.send(record);
    };
    vu::bench::Turns turns;
    const auto limit = [&](size_t which, auto *callback) {
        for (const auto &channel : channels)
            channel->lend(callback, channel.get());
        fill();
        Channel::received = 0;
        turns.limit(
            [&] {
                while (Channel::received < bytes)
                    ev_run(loop, EVRUN_NOWAIT);
            },
            which);
        for (const auto &channel : channels)
            channel->bare.release();
    };
    const auto wantMore = [&](int64_t wanted) {
        return channels.back()->node->sample_count < wanted || channels.front()->node->sample_count < wanted;
    };
    for (auto _ : state) {
        limit(0, Channel::readOnly);
        limit(1, taken ? Channel::readBare<true> : Channel::readBare<false>);
        for (const auto &channel : channels)
            channel->lend(taken ? Channel::readAndTake : proxyNode_IoEvent, channel->node);
        fill();
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
    state.counters["of_bare_frames"] = turns.ratio(1);
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
