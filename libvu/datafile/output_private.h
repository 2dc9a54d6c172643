// The way of a block's bytes to the disk, shared by blocks of bytes and blocks of frames.
#pragma once

#include "libvu/datafile/krd_buffer.h"

namespace libvu {

// The KRD_HEADER_SIZE bytes of the block's header, which are three fields of the record.
inline const uint8_t *headerOf(const KRDBuffer *record)
{
    return reinterpret_cast<const uint8_t *>(record) + offsetof(KRDBuffer, block_size_word);
}

// Writes `count` pieces of the record's scatter list from entry `first` on. `down` is what earlier calls of
// the same block have put into the file: a short write cuts that off as well. Returns the bytes written, 0
// after a failure, which has been reported and has turned all output to discarding.
int64_t writePieces(KRDBuffer *record, int first, int count, int64_t down);

// Lists a block of `length` bytes in the record's index, if it has one. Comes before the block itself: a full
// index buffer goes to the file first.
void recordIndexEntry(KRDBuffer *record, uint32_t group_word, double length);

} // namespace libvu
