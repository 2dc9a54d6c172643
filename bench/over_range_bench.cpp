// A detector's run over frames that are in range, which is nearly all of its work in practice, beside a scan
// of the same samples with one call of a reader each and beside one pass over their bytes. All take turns in
// the same run.
#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

#include "bench/turns.h"
#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range.h"

namespace {

constexpr double kLimit = 1000.0;

size_t scanByCalls(const Frame *frame, FrameBufReader read)
{
    size_t outside = 0;
    for (uint32_t i = 0; i < frame->length; i++) {
        const double value = read(frame, i);
        outside += value > kLimit || value < -kLimit;
    }
    return outside;
}

uint64_t passOver(const Frame *frame)
{
    uint64_t all = 0, word;
    const auto *bytes = static_cast<const char *>(frame->data);
    for (size_t i = 0; i + sizeof word <= size_t{frame->length} * frame->element_size; i += sizeof word) {
        std::memcpy(&word, bytes + i, sizeof word);
        all |= word;
    }
    return all;
}

// Arguments: bytes of a sample, samples of a frame. Sixteen channels, each of which brings a frame a run; a
// window goes out with every run.
void Run(benchmark::State &state)
{
    constexpr size_t kChannels = 16;
    const auto elementSize = static_cast<uint16_t>(state.range(0));
    const auto length = static_cast<uint32_t>(state.range(1));
    PipeList output{};
    Pipe *const out = pipeAttachPipe(&output);
    std::vector<PipeList> lists(kChannels);
    std::vector<OverRngChannelConfig> channels;
    for (PipeList &list : lists)
        channels.push_back({"c", 10.0 * length, OVER_RNG_BOTH_LIMITS, 0, elementSize, -kLimit, kLimit,
                            pipeAttachPipe(&list)});
    const OverRngModuleConfig config{"bench", 10.0, kChannels, &output};
    const int32_t module = Over_Rng_Detect_init(&config, channels.data());
    const FrameBufReader read = getFrameBufReader(elementSize);
    int64_t position = 0;
    const auto feed = [&] {
        for (const auto &channel : channels) {
            Frame *const frame = frameCreate(length, elementSize, nullptr);
            std::memset(frame->data, 0, size_t{length} * elementSize);
            frame->length = length;
            frame->start = position;
            pipeAddFrame(channel.pipe, frame);
        }
        position += length;
    };
    const auto run = [&] { Over_Rng_Detect_run(module); };
    vu::bench::Turns calls, passes;
    for (auto _ : state) {
        feed();
        calls.limit([&] {
            for (const auto &channel : channels)
                benchmark::DoNotOptimize(scanByCalls(channel.pipe->oldest, read));
        });
        calls.work(run);
        state.SetIterationTime(calls.lastWork());
        feed();
        passes.limit([&] {
            for (const auto &channel : channels)
                benchmark::DoNotOptimize(passOver(channel.pipe->oldest));
        });
        passes.work(run);
        pipeFlushFrames(out);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kChannels * length));
    state.counters["of_one_call"] = calls.ratio();
    state.counters["of_one_pass"] = passes.ratio();
    Over_Rng_Detect_stop(module);
    pipeDetachPipe(&output, out);
    for (size_t i = 0; i < kChannels; i++)
        pipeDetachPipe(&lists[i], channels[i].pipe);
}
BENCHMARK(Run)->ArgNames({"bytes", "samples"})->ArgsProduct({{4, 8}, {100, 1000, 10000}})->UseManualTime();

} // namespace
