// What is done to every sample of a periodic channel, beside a copy of the same frame in the first-level
// cache. Kernel and copy take turns in the same run; "of_memcpy" is the ratio of their medians.
#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

#include "bench/turns.h"
#include "libvu/proxy/calibration.h"

namespace {

constexpr uint32_t kSamples = 1000; // a frame
constexpr int kCalls = 256;         // per timing

template <typename Sample, typename Kernel>
void perFrame(benchmark::State &state, Kernel kernel)
{
    ProxyNode node{};
    node.scale = -1.0;
    node.offset = 0.5;
    Frame *const frame = frameCreate(kSamples, sizeof(Sample), nullptr);
    frame->length = kSamples;
    std::memset(frame->data, 0x3f, kSamples * sizeof(Sample));
    std::vector<Sample> copy(kSamples);
    vu::bench::Turns turns;
    for (auto _ : state) {
        turns.limit([&] {
            for (int i = 0; i < kCalls; i++) {
                std::memcpy(copy.data(), frame->data, kSamples * sizeof(Sample));
                benchmark::ClobberMemory();
            }
        });
        turns.work([&] {
            for (int i = 0; i < kCalls; i++) {
                kernel(&node, frame);
                benchmark::ClobberMemory();
            }
        });
        state.SetIterationTime(turns.lastWork());
    }
    frameDelete(frame);
    state.SetItemsProcessed(state.iterations() * kCalls * kSamples);
    state.counters["of_memcpy"] = turns.ratio();
}

void ScaleOffsetFloat(benchmark::State &state)
{
    perFrame<float>(state, proxyNode_applyFloatScaleOffset);
}
void ScaleOffsetDouble(benchmark::State &state)
{
    perFrame<double>(state, proxyNode_applyDoubleScaleOffset);
}
void SwapFloat(benchmark::State &state)
{
    perFrame<float>(state, proxyNode_swapFloatSamples);
}
void SwapDouble(benchmark::State &state)
{
    perFrame<double>(state, proxyNode_swapDoubleSamples);
}
BENCHMARK(ScaleOffsetFloat)->UseManualTime();
BENCHMARK(ScaleOffsetDouble)->UseManualTime();
BENCHMARK(SwapFloat)->UseManualTime();
BENCHMARK(SwapDouble)->UseManualTime();

} // namespace
