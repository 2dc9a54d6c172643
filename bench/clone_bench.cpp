// One more consumer of a frame: the clone and its deletion, beside the memory traffic that it cannot do
// without.
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "libvu/core/frame.h"
#include "libvu/time/sequentializer.h"

namespace {

constexpr int kRound = 20000;

template <typename Work>
double secondsOf(Work work)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kRound; i++)
        work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Clone and limit take turns, so that both see the same noise.
void CloneAndDelete(benchmark::State &state)
{
    Frame *root = frameCreate(1000, 4, nullptr);
    double clones = 0, limit = 0;
    for (auto _ : state) {
        const double clone = secondsOf([&] {
            Frame *made = frameClone(root);
            benchmark::DoNotOptimize(made);
            frameDelete(made);
        });
        limit += secondsOf([&] {
            void *header = std::calloc(1, offsetof(Frame, aux_inline));
            benchmark::DoNotOptimize(header);
            std::memcpy(header, root, offsetof(Frame, aux_inline));
            benchmark::ClobberMemory();
            std::free(header);
        });
        clones += clone;
        state.SetIterationTime(clone);
    }
    state.SetItemsProcessed(state.iterations() * kRound);
    state.counters["of_limit"] = limit / clones;
    frameDelete(root);
}
BENCHMARK(CloneAndDelete)->UseManualTime();

// A stream in its steady state: frames circulate between pool and consumer.
void PoolRound(benchmark::State &state)
{
    PipeList list{};
    Pipe *pipe = pipeAttachPipe(&list);
    Sequentializer *seq = createSequentializer(4, 100, 10000, 10, -1);
    seq->pipes = &list;
    double time = 0;
    for (auto _ : state) {
        time += 400000; // one frame of 100 samples
        sequentialize_value(seq, time, time);
        while (Frame *frame = pipeGetFrame(pipe))
            frameDelete(frame);
    }
    state.SetItemsProcessed(state.iterations() * 100);
    pipeDetachPipe(&list, pipe);
    for (Frame *frame = seq->free_frames; frame;) {
        Frame *next = frame->next;
        std::free(frame);
        frame = next;
    }
    std::free(seq->current_frame);
    std::free(seq->clock);
    destroySequentializer(seq);
}
BENCHMARK(PoolRound);

} // namespace
