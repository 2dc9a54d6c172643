// Message records to frames, beside a loop that decodes the same bytes and stores them without frames; and
// messages to periodic samples, beside the plainest loop for that.
#include <cmath>

#include "bench/fed_node.h"
#include "bench/plain_stream.h"
#include "bench/turns.h"
#include "libvu/bus/can_set.h"
#include "libvu/core/wire_private.h"

namespace {

using vu::bench::FedNode;
using Bytes = std::vector<uint8_t>;

constexpr size_t kRecords = 2000;

struct Kind {
    const char *name;
    size_t entry, value, head; // bytes: an entry, its value if it has one, what comes before the entries
    void (*limit)(const Bytes &wire, std::vector<void *> &blocks);
};
template <size_t entry, size_t value, size_t head>
void decodeAndStore(const Bytes &wire, std::vector<void *> &blocks);
template <size_t entry, size_t value, size_t head>
constexpr Kind kind(const char *name)
{
    return {name, entry, value, head, decodeAndStore<entry, value, head>};
}
const Kind kKinds[] = {kind<64, 0, 0>("raw"),         kind<21, 0, 0>("can"),
                       kind<12, 4, 0>("float32"),     kind<16, 8, 0>("float64"),
                       kind<12, 4, 8>("float32_ntp"), kind<16, 8, 8>("float64_ntp")};

std::string stanza(const std::string &kind, const std::string &more = "")
{
    return R"({"name":"m","connector":"c","data_type":"message_)" + kind + '"' + more + '}';
}

template <typename T>
void put(Bytes &bytes, T value)
{
    value = libvu::reversed(value);
    const auto *from = reinterpret_cast<const uint8_t *>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

// Records of entries whose times rise by `step`; every value is 1.0 or near it.
Bytes records(const Kind &kind, size_t count, size_t entries, int64_t step = 1000)
{
    Bytes bytes;
    int64_t time = 0;
    for (size_t i = 0; i < count; i++) {
        put(bytes, static_cast<uint32_t>(kind.head + entries * kind.entry));
        bytes.resize(bytes.size() + kind.head);
        for (size_t e = 0; e < entries; e++) {
            put(bytes, time += step);
            bytes.resize(bytes.size() + kind.entry - 8, kind.value ? 0x3F : 0);
        }
    }
    return bytes;
}

// What no reader can leave out: memory of its own for every record, and in it every byte, with times and
// values turned round. Values that are no numbers are left out.
template <size_t entry, size_t value, size_t head>
void decodeAndStore(const Bytes &wire, std::vector<void *> &blocks)
{
    for (size_t at = 0; at + 4 <= wire.size();) {
        const size_t length = libvu::loadBig<uint32_t>(&wire[at]), end = at + 4 + length;
        auto *to = static_cast<uint8_t *>(std::malloc(length));
        blocks.push_back(to);
        for (at += 4 + head; at < end; at += entry) {
            std::memcpy(to, &wire[at], entry);
            libvu::toHostInPlace<int64_t>(to);
            if (value == 4 && std::isnan(std::bit_cast<float>(libvu::toHostInPlace<uint32_t>(to + 8))))
                continue;
            if (value == 8 && std::isnan(std::bit_cast<double>(libvu::toHostInPlace<uint64_t>(to + 8))))
                continue;
            to += entry;
        }
    }
}

// Gives the channel the same bytes again, and the limit and the reader their turn at them.
template <typename Between, typename Limit>
void takeTurns(benchmark::State &state, FedNode &channel, const Bytes &wire, const char *ratio,
               Between &&between, Limit &&limit)
{
    vu::bench::Turns turns;
    for (auto _ : state) {
        between();
        turns.limit(limit);
        channel.node->inbuf.size = channel.node->read_count = 0;
        channel.bring(wire);
        turns.work([&] { channel.read(); });
        state.SetIterationTime(turns.lastWork());
    }
    state.counters[ratio] = turns.ratio();
}

// Arguments: kind, entries a record.
void Messages(benchmark::State &state)
{
    const Kind &kind = kKinds[state.range(0)];
    const auto entries = static_cast<size_t>(state.range(1));
    const Bytes wire = records(kind, kRecords, entries);
    std::vector<void *> blocks;
    FedNode channel(stanza(kind.name));
    channel.node->can_set = can_set_create(); // lives as long as the process
    Pipe *pipe = pipeAttachPipe(&channel.node->pipes);
    const auto release = [&] {
        pipeFlushFrames(pipe);
        for (void *block : blocks)
            std::free(block);
        blocks.clear();
    };
    takeTurns(state, channel, wire, "of_limit", release, [&] { kind.limit(wire, blocks); });
    release();
    state.SetLabel(kind.name);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kRecords * entries));
}
BENCHMARK(Messages)->UseManualTime()->ArgsProduct({{0}, {1}})->ArgsProduct({{1, 2, 3, 4, 5}, {1, 10, 100}});

// Arguments: kind, sample rate, samples a value.
void Sequentialized(benchmark::State &state)
{
    const Kind &kind = kKinds[state.range(0)];
    const auto rate = static_cast<double>(state.range(1));
    const auto step = static_cast<int64_t>(vu::bench::kTicks / rate * static_cast<double>(state.range(2)));
    const size_t values = 100'000 / static_cast<size_t>(state.range(2)), frame = 1000;
    Bytes wire = records(kind, values, 1, step);
    FedNode channel(
        stanza(kind.name, R"(,"sample_rate":)" + std::to_string(rate) +
                              R"(,"stale_data_expiration_time":5,"invalid_data_output_value":-1)"),
        rate / frame);
    vu::bench::PlainStream plain(rate, static_cast<uint32_t>(kind.value), frame, 5.0);
    const auto plainAtStart = plain;
    const SampleClock atStart = channel.node->clock;
    const auto restart = [&] {
        plain = plainAtStart;
        channel.node->clock = atStart;
    };
    takeTurns(state, channel, wire, "x_plain", restart, [&] {
        for (size_t at = 4; at < wire.size(); at += 4 + kind.entry)
            plain.take(static_cast<double>(libvu::loadBig<int64_t>(&wire[at])), 1.0);
    });
    if (plain.current != channel.node->clock.current_tick)
        state.SkipWithError("not the same samples");
    state.SetLabel(kind.name);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(values) * state.range(2));
}
BENCHMARK(Sequentialized)->UseManualTime()->ArgsProduct({{2, 3}, {1000, 7000}, {1, 10, 100, 1000}});

} // namespace
