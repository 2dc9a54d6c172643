// Frames to blocks in a file in memory, beside a bare writev of the same pieces in the same run: "of_writev"
// is what is left of its speed without any checksum, "of_writev_crc" with zlib's.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>
#include <zlib.h>

#include "bench/turns.h"
#include "libvu/datafile/krd_buffer.h"

namespace {

constexpr int64_t kLargestFile = 32 << 20;
constexpr size_t kTouched = 4 << 20; // frames are used again once so many bytes of them have gone out

int memoryFile()
{
    const int fd = open("/dev/shm", O_TMPFILE | O_RDWR | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        std::abort();
    return fd;
}

// As many frames as one block takes, from a ring of them.
class Frames {
public:
    Frames(uint32_t samples, size_t a_block)
    {
        const size_t bytes = samples * sizeof(float);
        const size_t count = std::max(a_block, kTouched / bytes / a_block * a_block);
        for (size_t i = 0; i < count; i++) {
            Frame *frame = frameCreate(samples, sizeof(float), nullptr);
            frame->length = samples;
            frame->pool = &pool_;
            auto *values = static_cast<float *>(frame->data);
            for (uint32_t k = 0; k < samples; k++)
                values[k] = static_cast<float>(std::rand());
            ring_.push_back(frame);
        }
    }
    ~Frames()
    {
        for (Frame *frame : ring_)
            std::free(frame);
    }
    Frames(const Frames &) = delete;
    Frame *next()
    {
        pool_ = nullptr; // what has come back is only found again here
        Frame *frame = ring_[at_];
        at_ = at_ + 1 == ring_.size() ? 0 : at_ + 1;
        return frame;
    }

private:
    std::vector<Frame *> ring_;
    Frame *pool_ = nullptr;
    size_t at_ = 0;
};

uint32_t summed(uint32_t crc, const void *data, size_t bytes)
{
    return static_cast<uint32_t>(crc32(crc, static_cast<const Bytef *>(data), static_cast<uInt>(bytes)));
}

// Writes blocks with zlib's checksum or with none.
class Bare {
public:
    explicit Bare(bool sums) : sums_(sums) {}
    void block(Frames &frames, size_t count, size_t bytes)
    {
        head_[0] = __builtin_bswap32(static_cast<uint32_t>(bytes + 28));
        uint32_t crc = sums_ ? summed(summed(0, head_, sizeof head_), &position_, sizeof position_) : 0;
        pieces_[0] = {head_, sizeof head_};
        pieces_[1] = {&position_, sizeof position_};
        size_t n = 2;
        for (size_t i = 0; i < count; i++) {
            const Frame *frame = frames.next();
            pieces_[n++] = {frame->data, bytes / count};
            if (sums_)
                crc = summed(crc, frame->data, bytes / count);
            if (n == pieces_.size())
                write(n);
        }
        uint32_t tail[2] = {__builtin_bswap32(crc), head_[0]};
        pieces_[n++] = {tail, sizeof tail};
        write(n);
    }
    int fd = memoryFile();

private:
    void write(size_t &n)
    {
        if (writev(fd, pieces_.data(), static_cast<int>(n)) < 0)
            std::abort();
        n = 0;
    }
    const bool sums_;
    std::vector<iovec> pieces_{1024};
    uint32_t head_[3] = {0, 1, 2};
    uint64_t position_ = 0;
};

struct Recorded {
    PipeList list = {};
    KRDBuffer *record = static_cast<KRDBuffer *>(std::calloc(1, sizeof(KRDBuffer)));
    Recorded()
    {
        record->fd = memoryFile();
        record->name = "bench";
        record->pipe = pipeAttachPipe(&list);
        record->iov[0] = {&record->block_size_word, KRD_HEADER_SIZE};
        record->sample_limit = -1;
        record->uniform_frames = 1;
    }
    ~Recorded()
    {
        pipeDetachPipe(&list, record->pipe);
        close(record->fd);
        std::free(record);
    }
    void queue(Frames &frames, size_t count)
    {
        for (size_t i = 0; i < count; i++) {
            Frame *frame = frames.next();
            frame->refcount = 1;
            pipeAddFrame(record->pipe, frame);
        }
    }
};

void FramesToFile(benchmark::State &state)
{
    const auto count = static_cast<size_t>(state.range(0));
    const auto samples = static_cast<uint32_t>(state.range(1));
    const size_t bytes = count * samples * sizeof(float);
    const int64_t room = kLargestFile / static_cast<int64_t>(bytes);
    Frames frames(samples, count);
    Bare bare(false), withSum(true);
    Recorded recorded;
    vu::bench::Turns turns;
    int64_t blocks = 0;
    for (auto _ : state) {
        if (blocks++ % room == 0 &&
            (ftruncate(bare.fd, 0) || ftruncate(withSum.fd, 0) || ftruncate(recorded.record->fd, 0)))
            std::abort();
        turns.limit([&] { bare.block(frames, count, bytes); });
        turns.limit([&] { withSum.block(frames, count, bytes); }, 1);
        recorded.queue(frames, count);
        turns.work([&] { KRDWriter_flush_these(0, 1, recorded.record, 1); });
        state.SetIterationTime(turns.lastWork());
    }
    state.counters["of_writev"] = turns.ratio();
    state.counters["of_writev_crc"] = turns.ratio(1);
    close(bare.fd);
    close(withSum.fd);
    const double wanted = static_cast<double>(blocks) * static_cast<double>(bytes + 28);
    if (KRDWriter_is_disk_full() || recorded.record->amount_written != wanted)
        state.SkipWithError("not everything reached the file");
    state.SetBytesProcessed(static_cast<int64_t>(recorded.record->amount_written));
}
BENCHMARK(FramesToFile)
    ->UseManualTime()
    ->MinTime(0.2)
    ->ArgNames({"frames", "samples"})
    ->Args({1, 100})
    ->Args({100, 100})
    ->Args({1, 10000})
    ->Args({1000, 100})
    ->Args({2000, 100})
    ->Args({100, 10000});

} // namespace
