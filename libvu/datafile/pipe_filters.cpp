#include "libvu/datafile/pipe_filters_private.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>

#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/datafile/storage_table_private.h"

namespace libvu {

namespace {

constexpr size_t kTimestamp = sizeof(int64_t);

struct GiveUp {
    void operator()(Frame *frame) const { frameDelete(frame); }
};
using FrameReference = std::unique_ptr<Frame, GiveUp>;

// Complete entries of a frame, whose element size may be smaller than an entry.
size_t entriesIn(const Frame *frame, size_t entry_size)
{
    const uint64_t bytes = uint64_t{frame->length} * frame->element_size;
    return std::min<uint64_t>(frame->length, bytes / entry_size);
}

// A frame with room for twice the batch, which starts where its oldest frame does. Null, with a text for
// libvuLastError(), if there is none.
FrameReference outputFor(const Frame *oldest, int64_t batch, uint32_t element_size)
{
    if (batch > std::numeric_limits<uint32_t>::max() / 2) {
        libvuSetError("%s", kOverrun);
        return nullptr;
    }
    FrameReference output(frameCreate(static_cast<uint32_t>(2 * batch), element_size, nullptr));
    if (!output)
        return nullptr;
    output->start = oldest->start;
    if (oldest->aux)
        output->aux[1] = oldest->aux[1];
    return output;
}

// The rest of a batch that could not be converted goes with it. A report may have run a callback that took
// the pipe away.
double drop(KRDBuffer *record)
{
    if (record->pipe)
        pipeFlushFrames(record->pipe);
    return 0.0;
}

double handOn(KRDBuffer *record, FrameReference output)
{
    const double bytes = static_cast<double>(output->element_size) * output->length;
    pipeAddFrame(record->pipe, output.release());
    return bytes;
}

template <typename Source>
double convertBare(KRDBuffer *record)
{
    const auto *entry = static_cast<const StorageEntry *>(record->convertor);
    FrameReference input(pipeGetFrame(record->pipe));
    const int64_t batch = addSaturated(input->length, record->pipe->queued);
    FrameReference output = outputFor(input.get(), batch, entry->element_size);
    if (!output)
        return drop(record);
    Conversion conversion = {record, output.get(), static_cast<uint8_t *>(output->data)};
    // The open run has a count of 0 until the first value joins it.
    std::memset(output->data, 0, std::min<size_t>(output->capacity, 2) * entry->element_size);
    bool any = false;
    for (; input; input.reset(pipeGetFrame(record->pipe))) {
        const size_t count = entriesIn(input.get(), sizeof(Source));
        if (count == 0)
            continue;
        any = true;
        if (const char *failure =
                entry->batch(conversion, static_cast<const uint8_t *>(input->data), count)) {
            libvuSetError("%s", failure);
            return drop(record);
        }
    }
    if (!any)
        return 0.0;
    output->length += record->rle_extra;
    return handOn(record, std::move(output));
}

// Copies timestamps and converts values, entry by entry. False: more than the frame holds.
template <typename Source>
bool appendMessages(const KRDBuffer *record, const Frame *input, Frame *output)
{
    constexpr size_t kEntry = kTimestamp + sizeof(Source);
    const size_t count = entriesIn(input, kEntry);
    if (count > frameAvailable(output))
        return false;
    const auto *from = static_cast<const uint8_t *>(input->data);
    auto *to = static_cast<uint8_t *>(frameTail(output));
    for (size_t i = 0; i < count; i++) {
        std::memcpy(to, from, kTimestamp);
        record->convertor->convert(record, to + kTimestamp, loadHost<Source>(from + kTimestamp));
        from += kEntry;
        to += output->element_size;
    }
    output->length += static_cast<uint32_t>(count);
    return true;
}

template <typename Source>
double convertMessages(KRDBuffer *record)
{
    const int64_t batch = record->pipe->queued;
    FrameReference input(pipeGetFrame(record->pipe));
    const auto element_size = static_cast<uint32_t>(kTimestamp + record->convertor->element_size);
    FrameReference output = outputFor(input.get(), batch, element_size);
    if (!output)
        return drop(record);
    for (; input; input.reset(pipeGetFrame(record->pipe)))
        if (!appendMessages<Source>(record, input.get(), output.get())) {
            libvuSetError("%s", kOverrun);
            return drop(record);
        }
    return output->length > 0 ? handOn(record, std::move(output)) : 0.0;
}

} // namespace

double sequential_float32_filter(KRDBuffer *record)
{
    return convertBare<float>(record);
}

double sequential_float64_filter(KRDBuffer *record)
{
    return convertBare<double>(record);
}

double message_float32_filter(KRDBuffer *record)
{
    return convertMessages<float>(record);
}

double message_float64_filter(KRDBuffer *record)
{
    return convertMessages<double>(record);
}

} // namespace libvu
