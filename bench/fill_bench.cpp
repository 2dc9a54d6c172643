// Values to periodic samples, at 1 to 1,000 samples a value, beside the plain loop and a bare fill.
#include <algorithm>

#include "bench/plain_stream.h"
#include "libvu/time/sequentializer.h"

namespace {

using vu::bench::PlainStream;

constexpr int64_t kSamples = 100'000;
constexpr size_t kFrame = 1000;

// Arguments: sample rate, samples a value, bytes a sample.
void Fill(benchmark::State &state)
{
    const auto rate = static_cast<double>(state.range(0));
    const int64_t messages = kSamples / state.range(1);
    const auto bytes = static_cast<uint32_t>(state.range(2));
    const double step = std::floor(vu::bench::kTicks / rate * static_cast<double>(state.range(1)));
    PlainStream plain(rate, bytes, kFrame, 5.0);
    Sequentializer *seq = createSequentializer(bytes, rate / kFrame, rate, 5.0, -1.0);
    PipeList nobody{};
    seq->pipes = &nobody;
    double ourTime = 0, plainTime = 0;
    vu::bench::compare(
        state, [] {},
        [&] {
            for (int64_t i = 0; i < messages; i++)
                sequentialize_value(seq, ourTime += step, static_cast<double>(i & 1023));
        },
        [&] {
            for (int64_t i = 0; i < messages; i++)
                plain.take(plainTime += step, static_cast<double>(i & 1023));
        });
    if (plain.count != seq->sample_count)
        state.SkipWithError("not the same samples");
    state.SetItemsProcessed(state.iterations() * messages * state.range(1));
    // The records of a benchmark live as long as its process.
}
BENCHMARK(Fill)->UseManualTime()->ArgsProduct({{1000, 20000, 7000, 44100}, {1, 2, 4, 10, 100, 1000}, {4, 8}});

void BareFill(benchmark::State &state)
{
    std::vector<char> frame(kFrame * static_cast<size_t>(state.range(0)));
    double value = 0;
    for (auto _ : state) {
        value += 1;
        if (state.range(0) == 8)
            std::fill_n(reinterpret_cast<double *>(frame.data()), kFrame, value);
        else
            std::fill_n(reinterpret_cast<float *>(frame.data()), kFrame, static_cast<float>(value));
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kFrame));
}
BENCHMARK(BareFill)->Arg(4)->Arg(8);

} // namespace
