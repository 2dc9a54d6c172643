// Reading a data file back: the walk over its blocks beside zlib's crc32 over the same pieces ("of_crc32"),
// the search for the next block through damage beside memmem ("of_memmem"), and samples to CSV lines beside
// the formatting of their numbers alone ("of_formatting").
#include <benchmark/benchmark.h>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <random>
#include <string>
#include <zlib.h>

#include "bench/turns.h"
#include "libvu/datafile/krd_format.h"
#include "vu/krdfile/export/export_formats.h"

namespace {

using namespace vu::krd;

constexpr size_t kFileBytes = 32 << 20;

void appendBig(std::string &to, size_t value)
{
    const uint32_t word = __builtin_bswap32(static_cast<uint32_t>(value));
    to.append(reinterpret_cast<const char *>(&word), sizeof word);
}

// Blocks of one channel with positions and noise for samples.
std::string dataFile(size_t samplesPerBlock)
{
    std::mt19937 random(1);
    std::string file;
    for (int64_t position = 0; file.size() < kFileBytes; position += static_cast<int64_t>(samplesPerBlock)) {
        const size_t begin = file.size(),
                     size = KRD_FRAMING_SIZE + KRD_POSITION_SIZE + samplesPerBlock * sizeof(float);
        appendBig(file, size);
        appendBig(file, KRD_GROUP_FIRST_CHANNEL);
        file += KRD_TAG;
        file.append(reinterpret_cast<const char *>(&position), sizeof position);
        for (size_t i = 0; i < samplesPerBlock; ++i) {
            const float value = static_cast<float>(random()) * 1e-9F;
            file.append(reinterpret_cast<const char *>(&value), sizeof value);
        }
        appendBig(file,
                  crc32_z(0, reinterpret_cast<const Bytef *>(file.data() + begin), file.size() - begin));
        appendBig(file, size);
    }
    return file;
}

Bytes asBytes(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

void Walk(benchmark::State &state)
{
    const auto samples = static_cast<size_t>(state.range(0));
    const std::string file = dataFile(samples);
    vu::bench::Turns turns;
    for (auto _ : state) {
        turns.limit([&] {
            const size_t block = KRD_FRAMING_SIZE + KRD_POSITION_SIZE + samples * sizeof(float);
            for (Bytes rest = asBytes(file); !rest.empty(); rest = rest.subspan(block))
                benchmark::DoNotOptimize(crc32_z(0, rest.data(), block - KRD_TRAILER_SIZE));
        });
        turns.work([&] {
            const InputFile input(asBytes(file), "file");
            BlockWalk walk(input);
            while (const auto piece = walk.next())
                benchmark::DoNotOptimize(piece->block.offset);
        });
        state.SetIterationTime(turns.lastWork());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file.size()));
    state.counters["of_crc32"] = turns.ratio();
}
BENCHMARK(Walk)->ArgName("samples")->Arg(10)->Arg(100)->Arg(10000)->UseManualTime();

// Nothing but damage, with a tag every 4 kB that begins no block.
void Damage(benchmark::State &state)
{
    std::string file = dataFile(1000);
    for (size_t at = 0; at < file.size(); at += 1000)
        ++file[at];
    vu::bench::Turns turns;
    for (auto _ : state) {
        turns.limit([&] {
            const char *from = file.data(), *end = from + file.size();
            size_t tags = 0;
            while (const void *tag = memmem(from, static_cast<size_t>(end - from), KRD_TAG, 4)) {
                from = static_cast<const char *>(tag) + 1;
                ++tags;
            }
            benchmark::DoNotOptimize(tags);
        });
        turns.work([&] {
            const InputFile input(asBytes(file), "file");
            benchmark::DoNotOptimize(BlockWalk(input).next()->bytes);
        });
        state.SetIterationTime(turns.lastWork());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file.size()));
    state.counters["of_memmem"] = turns.ratio();
}
BENCHMARK(Damage)->UseManualTime();

void CsvLines(benchmark::State &state)
{
    const std::string file = dataFile(1000);
    std::vector<Block> blocks;
    const InputFile input(asBytes(file), "file");
    for (BlockWalk walk(input); blocks.size() < 500;)
        blocks.push_back(walk.next()->block);
    Channel channel;
    channel.kind = Kind::kSequential;
    channel.element = Element::kFloat32;
    channel.elementSize = sizeof(float);
    channel.sampleRate = 1000;
    const auto path = std::filesystem::path("/dev/shm") / fmt::format("krdfile_bench{}.csv", getpid());
    vu::bench::Turns turns;
    int64_t samples = 0;
    for (auto _ : state) {
        turns.limit([&] {
            fmt::memory_buffer text;
            samples = 0;
            BlockReader reader;
            for (const Block &block : blocks) {
                for (Bytes data = samplesOf(channel, reader.payload(block)); !data.empty();
                     data = data.subspan(sizeof(float))) {
                    fmt::format_to(std::back_inserter(text), "{},{},{}\n", samples,
                                   static_cast<double>(samples) / 1000, loadLittle<float>(data.data()));
                    ++samples;
                    if (text.size() > 1 << 16)
                        text.clear();
                }
            }
        });
        turns.work([&] {
            vu::TextFile csv(path, true);
            kCsvFormat.write(channel, blocks,
                             {.ticksPerSecond = 40'000'000, .progress = nullptr, .fill = {}, .bus = {}}, csv);
            csv.finish();
        });
        state.SetIterationTime(turns.lastWork());
    }
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations() * samples);
    state.counters["of_formatting"] = turns.ratio();
}
BENCHMARK(CsvLines)->UseManualTime();

} // namespace
