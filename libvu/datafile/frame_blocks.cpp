// Queued frames to one block: what is due, how large it gets, where the limit cuts it, and its pieces.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/datafile/checksum_private.h"
#include "libvu/datafile/output_private.h"

namespace {

// Sizes are summed as doubles: a block that no size word can hold is still a number.
struct BlockSize {
    double bytes = kFraming;
    int64_t elements = 0;

    bool fitsSizeWord() const { return bytes <= std::numeric_limits<uint32_t>::max(); }

    static constexpr double kFraming = static_cast<double>(KRD_FRAMING_SIZE);
};

uint64_t bytesOf(const Frame *frame)
{
    return uint64_t{frame->length} * frame->element_size;
}

// A report may have run a callback that took the frames, or the pipe: nothing kept from before it is used.
double releaseFrames(KRDBuffer *record)
{
    if (record->pipe)
        pipeFlushFrames(record->pipe);
    return 0.0;
}

// Elements that `position` may still move on by, for a limit above 0. Their difference is in range where a
// sum of position and elements would not be.
int64_t leftToLimit(const KRDBuffer *record)
{
    return libvu::subtractSaturated(record->sample_limit, record->position);
}

bool isDue(const KRDBuffer *record, int32_t force)
{
    const int64_t queued = record->pipe->queued;
    if (record->sample_limit > 0 && queued >= leftToLimit(record))
        return true;
    return force || queued >= record->min_samples;
}

// Fills in the leading fields while the oldest frame is still the one that came in.
void stampLeadingFields(KRDBuffer *record, BlockSize &size)
{
    const Frame *oldest = record->pipe->oldest;
    if (!record->no_position)
        size.bytes += sizeof record->position;
    if (record->block_type != KRD_BLOCK_START && record->block_type != KRD_BLOCK_START_AUX)
        return;
    record->position = oldest->start;
    if (record->block_type == KRD_BLOCK_START_AUX) {
        record->aux_value = oldest->reserved;
        size.bytes += sizeof record->aux_value;
    }
}

bool converts(const KRDBuffer *record)
{
    return record->uniform_frames && record->pipe_filter;
}

// Runs the conversion, if there is one, and adds up what is then queued. False: the batch is gone.
bool measureSamples(KRDBuffer *record, BlockSize &size)
{
    if (converts(record)) {
        size.bytes += std::floor(record->pipe_filter(record));
        if (!record->pipe || !record->pipe->oldest)
            return false;
        size.elements = record->pipe->oldest->length;
        return true;
    }
    const Pipe *pipe = record->pipe;
    if (record->uniform_frames) {
        size.bytes += static_cast<double>(pipe->oldest->element_size) * static_cast<double>(pipe->queued);
        size.elements = pipe->queued;
        return true;
    }
    for (const Frame *frame = pipe->oldest; frame; frame = frame->prev) {
        size.bytes += static_cast<double>(bytesOf(frame));
        size.elements += frame->length;
    }
    return true;
}

void shorten(Frame *frame, int64_t excess, BlockSize &size)
{
    frame->length -= static_cast<uint32_t>(excess);
    size.bytes -= static_cast<double>(excess) * frame->element_size;
    size.elements -= excess;
}

// Takes complete frames off the newest end, then the rest off the end of the one before them. False: no frame
// is left.
bool dropNewest(Pipe *pipe, int64_t excess, BlockSize &size)
{
    Frame *frame = pipe->newest;
    while (frame && excess >= frame->length) {
        Frame *const older = frame->next;
        excess -= frame->length;
        size.elements -= frame->length;
        size.bytes -= static_cast<double>(bytesOf(frame));
        pipeRemoveFrame(pipe, frame);
        frame = older;
    }
    if (!frame)
        return false;
    shorten(frame, excess, size);
    return true;
}

// Cuts the batch so that `position` reaches the limit and no further; the record is exhausted then. False:
// nothing of it may be stored.
bool clipAtLimit(KRDBuffer *record, BlockSize &size)
{
    const int64_t left = leftToLimit(record);
    if (record->sample_limit <= 0 || size.elements <= left)
        return true;
    record->sample_limit = 0;
    if (left < 1) {
        releaseFrames(record);
        return false;
    }
    const int64_t excess = size.elements - left;
    if (!converts(record))
        return dropNewest(record->pipe, excess, size);
    if (record->pipe->oldest->length >= excess)
        shorten(record->pipe->oldest, excess, size);
    return true;
}

void reportMismatch(const KRDBuffer *record, int64_t gathered, double wanted)
{
    libvuError("%s(): tot2write != block_len, %lld -> %.0lf, idx: %d, group: %d, fd: %d",
               "write_block_frames", static_cast<long long>(gathered), wanted, record->idx, record->group,
               record->fd);
}

// The scatter list of one block. A full list goes out at once; the next call begins after the header.
class Pieces {
public:
    // With the leading fields, which lie in the record like the header.
    explicit Pieces(KRDBuffer *record)
        : record_(record), gathered_(static_cast<int64_t>(record->iov[0].iov_len))
    {
        // Summed up together, since a call for each would cost a short block as much as its samples do.
        uint8_t head[KRD_HEADER_SIZE + KRD_POSITION_SIZE + KRD_AUX_SIZE];
        size_t bytes = KRD_HEADER_SIZE;
        std::memcpy(head, libvu::headerOf(record), KRD_HEADER_SIZE);
        const auto lead = [&](void *field, size_t size) {
            std::memcpy(head + bytes, field, size);
            bytes += size;
            list(field, size);
        };
        if (!record->no_position)
            lead(&record->position, KRD_POSITION_SIZE);
        if (record->block_type == KRD_BLOCK_START_AUX)
            lead(&record->aux_value, KRD_AUX_SIZE);
        checksum_ = libvu::checksum(0, head, bytes);
    }

    // False: the disk refused. An empty piece takes no place: a list of nothing else would make a write of 0
    // bytes, which looks like a full disk.
    bool add(void *data, size_t bytes)
    {
        if (bytes == 0)
            return true;
        list(data, bytes);
        checksum_ = libvu::checksum(checksum_, data, bytes);
        return next_ < KRD_BUFFER_PIECES || write();
    }
    void addTrailer()
    {
        record_->crc_word = libvu::reversed(checksum_);
        record_->block_size_tail = record_->block_size_word;
        record_->iov[next_++] = {&record_->crc_word, KRD_TRAILER_SIZE};
    }
    bool write()
    {
        const int64_t written = libvu::writePieces(record_, first_, next_ - first_, down_);
        down_ += written;
        first_ = next_ = 1;
        return written > 0;
    }
    // Bytes of the block so far, the trailer included, whether or not it has been added.
    int64_t blockBytes() const { return gathered_ + KRD_TRAILER_SIZE; }

private:
    void list(void *data, size_t bytes)
    {
        record_->iov[next_++] = {data, bytes};
        gathered_ += static_cast<int64_t>(bytes);
    }

    KRDBuffer *record_;
    uint32_t checksum_ = 0;
    int64_t gathered_;
    int64_t down_ = 0; // bytes of the block that are in the file
    int first_ = 0;
    int next_ = 1;
};

bool writeBlock(KRDBuffer *record, const BlockSize &size)
{
    record->block_size_word = libvu::reversed(libvu::saturated<uint32_t>(size.bytes));
    Pieces pieces(record);
    const auto wanted = libvu::saturated<int64_t>(size.bytes);
    int64_t left = libvu::subtractSaturated(wanted, pieces.blockBytes());
    for (Frame *frame = record->pipe->oldest; frame && left > 0; frame = frame->prev) {
        const uint64_t bytes = std::min(bytesOf(frame), static_cast<uint64_t>(left));
        if (!pieces.add(frame->data, bytes))
            return false;
        left -= static_cast<int64_t>(bytes);
    }
    pieces.addTrailer();
    if (pieces.blockBytes() != wanted) {
        reportMismatch(record, pieces.blockBytes(), size.bytes);
        return false;
    }
    return pieces.write();
}

} // namespace

double KRDBuffer_flush_frames(KRDBuffer *record, int32_t force)
{
    if (!record->pipe || !record->pipe->oldest)
        return 0.0;
    if (record->sample_limit == 0)
        return releaseFrames(record);
    if (!isDue(record, force))
        return 0.0;
    BlockSize size;
    stampLeadingFields(record, size);
    if (!measureSamples(record, size) || !clipAtLimit(record, size))
        return 0.0;
    if (!size.fitsSizeWord()) {
        reportMismatch(record, KRD_FRAMING_SIZE, size.bytes);
        return releaseFrames(record);
    }
    libvu::recordIndexEntry(record, record->group_word, size.bytes);
    // The index may have been full and its file refused: a callback may have emptied the pipe.
    const bool written = record->pipe && writeBlock(record, size);
    releaseFrames(record);
    return written ? static_cast<double>(size.elements) : 0.0;
}

void KRDWriter_flush_these(int32_t first, int32_t count, KRDBuffer *records, int32_t force)
{
    for (int32_t i = 0; i < count; i++) {
        KRDBuffer *record = records + first + i;
        if (!record->pipe || !record->pipe->oldest || record->idx < 0 || record->fd <= 0)
            continue;
        record->prev_position = record->position;
        const double stored = KRDBuffer_flush_frames(record, force);
        record->position = libvu::saturated<int64_t>(static_cast<double>(record->prev_position) + stored);
    }
}
