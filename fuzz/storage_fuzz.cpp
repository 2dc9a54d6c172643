// Arbitrary type names, scalings and frames through every storage convertor and into a file. Besides the
// sanitizers' checks: a forced flush leaves no frame in the pipe; what it says is what the file has, an
// element for each sample, or a pair for each run.
#include <cmath>
#include <sys/mman.h>
#include <syslog.h>

#include "fuzz/host.h"

void syslog(int, const char *, ...) {}
void vsyslog(int, const char *, va_list) {}

// Queues a frame of arbitrary bytes that may claim any element size; the samples or records in it.
static uint64_t queueFrame(FuzzedDataProvider &input, Pipe *pipe, size_t record_size)
{
    const uint32_t element_size = input.PickValueInArray({1u, 2u, 4u, 8u, 12u, 16u});
    const auto bytes = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 600));
    Frame *frame = frameCreate(static_cast<uint32_t>(bytes.size()), 1, nullptr);
    std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t *>(frame->data));
    const uint32_t length = static_cast<uint32_t>(bytes.size()) / element_size;
    frame->element_size = element_size;
    frame->start = input.ConsumeIntegral<int64_t>();
    const bool grows = input.ConsumeIntegralInRange(0, 15) == 0; // in the pipe
    frame->length = grows ? input.ConsumeIntegralInRange(0u, length) : length;
    pipeAddFrame(pipe, frame);
    frame->length = length;
    return std::min<uint64_t>(length, uint64_t{length} * element_size / record_size);
}

void fuzz(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("krd", 0);
    static KRDBuffer record;
    record = {};
    FuzzedDataProvider input(data, size);
    PipeList list = {};
    record.fd = file;
    record.name = "fuzz";
    record.pipe = pipeAttachPipe(&list);
    record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
    record.sample_limit = input.ConsumeBool() ? -1 : input.ConsumeIntegralInRange<int64_t>(0, 400);
    record.uniform_frames = record.no_position = 1;
    record.scale = input.ConsumeBool() ? 1.0 : input.ConsumeFloatingPoint<double>();
    record.offset = input.ConsumeBool() ? 0.0 : input.ConsumeFloatingPoint<double>();
    // What is stored can be foretold of known names alone.
    const bool known = input.ConsumeIntegralInRange(0, 9) > 0;
    const std::string source =
        known ? input.PickValueInArray({"sequential_float32", "sequential_float64", "message_float32",
                                        "message_float64", "message_float", "sequential_int16",
                                        "sequential_uint8"})
              : input.ConsumeRandomLengthString(20);
    std::string destination = source[0] == 'm' ? "message" : "sequential";
    if (input.ConsumeIntegralInRange(0, 9) == 0)
        destination = input.ConsumeRandomLengthString(20);
    else
        destination += input.PickValueInArray({"_uint", "_int", "_float"}) +
                       std::to_string(input.PickValueInArray({8, 16, 32, 64, 24}));
    const bool sequential = input.ConsumeBool(), bare = sequential || source[0] == 's';
    KRDBuffer_set_storage_convert(&record, source.c_str(), destination.c_str(), sequential,
                                  input.PickValueInArray({"rle", "", "RLE"}));
    const size_t time_size = bare ? 0 : sizeof(int64_t), value_size = source.ends_with("64") ? 8 : 4;
    while (input.remaining_bytes() > 0) {
        require(ftruncate(file, 0) == 0 && lseek(file, 0, SEEK_SET) == 0);
        double samples = 0;
        for (int frames = input.ConsumeIntegralInRange(1, 6); frames > 0; frames--)
            samples += static_cast<double>(queueFrame(input, record.pipe, time_size + value_size));
        const double before = record.amount_written, stored = KRDBuffer_flush_frames(&record, 1);
        const double written = record.amount_written - before;
        require(!pipeHasFrames(record.pipe) && lseek(file, 0, SEEK_END) == static_cast<off_t>(written));
        require(stored <= 0 || written > 0);
        if (written == 0 || !record.pipe_filter || record.sample_limit >= 0 || !known)
            continue;
        // A NaN as the first sample leaves an empty pair in front of the others.
        require(written == stored * static_cast<double>(record.convertor->element_size + time_size) + 20);
        require(record.rle_extra ? std::fmod(stored, 2) == 0 && stored / 2 <= samples + 1
                                 : stored == samples);
    }
    pipeDetachPipe(&list, record.pipe);
}
