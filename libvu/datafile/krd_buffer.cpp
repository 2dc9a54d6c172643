#include "libvu/datafile/krd_buffer.h"

#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/datafile/checksum_private.h"
#include "libvu/datafile/output_private.h"

namespace {

// A buffer that holds more than this is flushed rather than grown.
constexpr uint32_t kGrowsUpTo = 255;

uint32_t room(const Membuf &buffer)
{
    return buffer.capacity - buffer.size;
}

// Writes the gathered bytes as one block and empties the buffer. The length of the block, whether or not the
// disk took it.
int64_t seal(KRDBuffer *record)
{
    Membuf &bytes = record->buffer;
    const uint32_t length = bytes.size + KRD_FRAMING_SIZE;
    record->block_size_word = libvu::reversed(length);
    const uint32_t header = libvu::checksum(0, libvu::headerOf(record), KRD_HEADER_SIZE);
    record->crc_word = libvu::reversed(libvu::checksum(header, bytes.buf, bytes.size));
    record->block_size_tail = record->block_size_word;
    record->iov[1] = {bytes.buf, bytes.size};
    record->iov[2] = {&record->crc_word, KRD_TRAILER_SIZE};
    libvu::writePieces(record, 0, 3, 0);
    bytes.size = 0;
    return length;
}

} // namespace

int64_t KRDBuffer_enq(KRDBuffer *record, const void *data, uint32_t length)
{
    Membuf &bytes = record->buffer;
    if (room(bytes) < length && bytes.size > kGrowsUpTo)
        return -1;
    const uint32_t before = bytes.size;
    membufAppend(&bytes, data, length);
    return bytes.size - before == length ? int64_t{length} : -1;
}

int64_t KRDBuffer_append(KRDBuffer *record, const void *data, uint32_t length)
{
    if (KRDBuffer_enq(record, data, length) >= 0)
        return record->buffer.size;
    KRDBuffer_flush(record, 1);
    return KRDBuffer_enq(record, data, length) >= 0 ? int64_t{record->buffer.size} : 0;
}

int64_t KRDBuffer_flush(KRDBuffer *record, int32_t force)
{
    if (record->idx < 0 || record->fd < 0)
        return 0;
    if (record->buffer.size <= record->flush_size && !force)
        return 0;
    const uint32_t length = record->buffer.size + KRD_FRAMING_SIZE;
    libvu::recordIndexEntry(record, record->group_word, length);
    return seal(record);
}

int32_t KRDBuffer_at_limit(const KRDBuffer *record)
{
    return record->sample_limit < 1 ? 1 : 0;
}

void libvu::recordIndexEntry(KRDBuffer *record, uint32_t group_word, double length)
{
    KRDBuffer *index = record->index;
    if (!index)
        return;
    index->entry_group = group_word;
    // The index block goes ahead of the block that is being listed, and has no entry itself.
    if (room(index->buffer) < KRD_INDEX_ENTRY_SIZE)
        index->file_offset += static_cast<uint64_t>(seal(index));
    KrdIndexEntry entry;
    storeBig(entry.file_offset, index->file_offset);
    storeHost(entry.group, index->entry_group);
    KRDBuffer_enq(index, &entry, sizeof entry);
    index->file_offset = saturated<uint64_t>(static_cast<double>(index->file_offset) + length);
}
