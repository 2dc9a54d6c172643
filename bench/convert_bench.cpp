// Storage conversion of a batch at its flush, beside a plain loop with one indirect call a sample over the
// same values in the same run: "of_call_a_sample" above 1 is faster than that.
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "bench/turns.h"
#include "libvu/datafile/storage_convert.h"

namespace {

constexpr uint32_t kSamples = 10000;

using Convert = int32_t (*)(const KRDBuffer *record, void *target, double value);

template <typename T>
T cut(double rounded)
{
    using Wide = std::conditional_t<sizeof(T) == 8, int64_t,
                                    std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>>;
    constexpr auto kMost = static_cast<double>(std::numeric_limits<Wide>::max());
    constexpr auto kLeast = static_cast<double>(std::numeric_limits<Wide>::min());
    if (!(rounded == rounded))
        return 0;
    if (rounded >= kMost)
        return static_cast<T>(std::numeric_limits<Wide>::max());
    return static_cast<T>(rounded <= kLeast ? std::numeric_limits<Wide>::min() : static_cast<Wide>(rounded));
}

template <typename T>
int32_t plainCall(const KRDBuffer *record, void *target, double value)
{
    const T stored = cut<T>(std::round((value - record->offset) / record->scale));
    std::memcpy(target, &stored, sizeof stored);
    return -static_cast<int32_t>(sizeof stored);
}

template <typename T>
int32_t runCall(const KRDBuffer *record, void *target, double value)
{
    const T stored = cut<T>(std::round((value - record->offset) / record->scale));
    T pair[2];
    std::memcpy(pair, target, sizeof pair);
    if (pair[0] != 0 && (pair[0] == std::numeric_limits<T>::max() || stored != pair[1])) {
        const T opened[2] = {1, stored};
        std::memcpy(static_cast<char *>(target) + sizeof pair, opened, sizeof opened);
        return sizeof opened;
    }
    pair[0] = static_cast<T>(pair[0] + 1);
    pair[1] = stored;
    std::memcpy(target, pair, sizeof pair);
    return 0;
}

template <typename Source>
size_t callEach(const KRDBuffer *record, const Source *values, char *out, size_t element_size,
                Convert convert)
{
    char *at = out;
    std::memset(at, 0, 2 * element_size);
    for (size_t i = 0; i < kSamples; i++) {
        const int32_t moved = convert(record, at, static_cast<double>(values[i]));
        at += moved < 0 ? -moved : moved;
    }
    return static_cast<size_t>(at - out);
}

template <typename Source, typename T>
void convertBatch(benchmark::State &state, const char *destination, bool runs)
{
    const auto record = std::make_unique<KRDBuffer>();
    PipeList list = {};
    record->pipe = pipeAttachPipe(&list);
    record->scale = 0.01;
    record->offset = 1.5;
    KRDBuffer_set_storage_convert(record.get(),
                                  sizeof(Source) == 8 ? "sequential_float64" : "sequential_float32",
                                  destination, 1, runs ? "rle" : nullptr);
    Frame *pool = nullptr;
    Frame *const frame = frameCreate(kSamples, sizeof(Source), nullptr);
    frame->length = kSamples;
    frame->pool = &pool;
    auto *values = static_cast<Source *>(frame->data);
    for (uint32_t i = 0; i < kSamples; i++)
        values[i] = runs ? static_cast<Source>(i / 50 % 300)
                         : static_cast<Source>(std::rand() % 60000 - 30000) * static_cast<Source>(0.005);
    std::vector<char> out((2 * kSamples + 4) * sizeof(T));
    volatile Convert convert = runs ? runCall<T> : plainCall<T>;
    size_t called = 0, filtered = 0;
    vu::bench::Turns turns;
    for (auto _ : state) {
        turns.limit([&] {
            called = callEach(record.get(), values, out.data(), sizeof(T), convert);
            benchmark::ClobberMemory();
        });
        turns.work([&] {
            frame->refcount = 1;
            pipeAddFrame(record->pipe, frame);
            filtered = static_cast<size_t>(record->pipe_filter(record.get()));
            pipeFlushFrames(record->pipe);
        });
        state.SetIterationTime(turns.lastWork());
    }
    state.counters["of_call_a_sample"] = turns.ratio();
    frame->refcount = 1;
    pipeAddFrame(record->pipe, frame);
    record->pipe_filter(record.get());
    if (std::memcmp(record->pipe->oldest->data, out.data(), filtered) != 0 ||
        filtered != called + (runs ? 2 * sizeof(T) : 0))
        state.SkipWithError("the two differ");
    pipeDetachPipe(&list, record->pipe);
    std::free(frame);
    state.SetItemsProcessed(state.iterations() * kSamples);
}

template <typename Source, typename T>
void offer(const std::string &source, const std::string &target)
{
    for (const bool runs : {false, true})
        benchmark::RegisterBenchmark((source + (runs ? " to runs of " : " to ") + target).c_str(),
                                     [=](benchmark::State &state) {
                                         convertBatch<Source, T>(state, ("sequential_" + target).c_str(),
                                                                 runs);
                                     })
            ->UseManualTime();
}

const bool offered = [] {
    offer<float, uint8_t>("float32", "uint8");
    offer<float, int16_t>("float32", "int16");
    offer<float, uint32_t>("float32", "uint32");
    offer<float, int32_t>("float32", "int32");
    offer<float, int64_t>("float32", "int64");
    offer<double, uint8_t>("float64", "uint8");
    offer<double, int16_t>("float64", "int16");
    offer<double, int32_t>("float64", "int32");
    offer<double, int64_t>("float64", "int64");
    return true;
}();

} // namespace
