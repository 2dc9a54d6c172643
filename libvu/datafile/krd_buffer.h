/* KRDBuffer: one stored channel, or one series of byte blocks, on its way into the data file.
 *
 * The host keeps the records side by side in an array, zeroed, fills the fields marked "host" and drives the
 * functions below; the library makes no record and opens no file. The file is opened with O_APPEND: a write
 * that a full disk cut short shortens the file and leaves the descriptor after its end.
 *
 * Frames in `pipe` become one block a flush, written from where they lie and then released. Bytes are
 * gathered in `buffer` and become a block by KRDBuffer_flush().
 *
 * Errors: the first failed write of any record makes every later write of all records succeed without a file
 * (KRDWriter_is_disk_full() is 1), so that a test runs on; a block that was complete before it stays.
 * A full disk is logged, any other refusal reported through libvuError(). Thread: the loop's. */
#ifndef LIBVU_DATAFILE_KRD_BUFFER_H
#define LIBVU_DATAFILE_KRD_BUFFER_H

#include <sys/uio.h>

#include "libvu/core/membuf.h"
#include "libvu/core/pipe.h"
#include "libvu/datafile/krd_format.h"

typedef struct StorageConvertor StorageConvertor;

enum { KRD_BUFFER_PIECES = 1024 }; /* pieces that one writev() takes */

typedef struct KRDBuffer KRDBuffer;
struct KRDBuffer {
    int32_t idx;           /* host: number of the record; negative: out of use, nothing is flushed */
    int32_t fd;            /* host: the data file; frames are flushed only above 0 */
    int32_t group;         /* host: group number in host order, for messages */
    Pipe *pipe;            /* host: where its frames queue up; null if it carries bytes only */
    const char *name;      /* host: for messages */
    int32_t block_type;    /* host: KRD_BLOCK_... */
    uint32_t flush_size;   /* host: buffered bytes above which KRDBuffer_flush() writes unforced */
    int32_t no_position;   /* host: not 0: frame blocks have no position field */
    int32_t min_samples;   /* host: fewest queued elements that are worth a block, unforced */
    uint64_t aux_value;    /* second leading field of the last KRD_BLOCK_START_AUX block */
    int64_t position;      /* host: where it starts; then elements stored so far */
    int64_t prev_position; /* `position` before the last KRDWriter_flush_these() */
    uint64_t file_offset;  /* index record only; host: length of the file before the first indexed block */
    uint32_t entry_group;  /* index record only: group word of the entry being recorded */
    KRDBuffer *index;      /* host: the record that lists this one's blocks, or null */
    struct iovec iov[KRD_BUFFER_PIECES]; /* host: entry 0, at `block_size_word`, length 12 */
    uint32_t block_size_word;            /* big-endian; with the next two words the block's header */
    uint32_t group_word;                 /* host: the group number in its form on disk */
    uint32_t tag_word;                   /* host: KRD_TAG */
    Membuf buffer;                       /* host: initialised and freed; bytes of the block being gathered */
    uint32_t crc_word;                   /* big-endian; with the next word the block's trailer */
    uint32_t block_size_tail;            /* big-endian */
    double amount_written;               /* host: 0; then bytes that really went into the file */
    int64_t sample_limit;   /* host: how far `position` may go; below 0: no limit; 0: exhausted, frames are
                               thrown away. Never above 0 on a message channel of KRD_BLOCK_START, whose
                               position is a time, nor with run-length storage, where it would cut a pair */
    int32_t uniform_frames; /* host: not 0: all frames have one element size; storage conversion needs it */
    double scale;           /* host: stored = (value - offset) / scale */
    double offset;          /* host */
    double (*pipe_filter)(KRDBuffer *record); /* puts one converted frame into `pipe`; null: none. Set by */
    const StorageConvertor *convertor;        /* KRDBuffer_set_storage_convert(), as are these two */
    uint32_t rle_extra;                       /* host: 0; then 2 while run-length storage is on */
};
static_assert(offsetof(KRDBuffer, pipe) == 16 && offsetof(KRDBuffer, block_type) == 32 &&
                  offsetof(KRDBuffer, aux_value) == 48 && offsetof(KRDBuffer, file_offset) == 72 &&
                  offsetof(KRDBuffer, index) == 88 && offsetof(KRDBuffer, iov) == 96,
              "KRDBuffer layout");
static_assert(offsetof(KRDBuffer, group_word) == offsetof(KRDBuffer, block_size_word) + 4 &&
                  offsetof(KRDBuffer, tag_word) == offsetof(KRDBuffer, block_size_word) + 8 &&
                  offsetof(KRDBuffer, block_size_tail) == offsetof(KRDBuffer, crc_word) + 4,
              "header and trailer are one piece each");
static_assert(offsetof(KRDBuffer, block_size_word) == 16480 && offsetof(KRDBuffer, buffer) == 16496 &&
                  offsetof(KRDBuffer, crc_word) == 16512 && offsetof(KRDBuffer, sample_limit) == 16528 &&
                  offsetof(KRDBuffer, scale) == 16544 && offsetof(KRDBuffer, pipe_filter) == 16560 &&
                  offsetof(KRDBuffer, rle_extra) == 16576 && sizeof(KRDBuffer) == 16584,
              "KRDBuffer layout");

/* Copies bytes into `buffer`, which grows only while it holds at most 255 bytes. Returns `length`, or -1 with
 * nothing copied: flush first, or memory was short (reported). */
VU_API int64_t KRDBuffer_enq(KRDBuffer *record, const void *data, uint32_t length);
/* KRDBuffer_enq(), with a forced flush where the bytes would not fit. Returns the bytes now buffered, 0 if
 * the data was not taken. */
VU_API int64_t KRDBuffer_append(KRDBuffer *record, const void *data, uint32_t length);
/* Writes the gathered bytes as one block, if there are more than `flush_size` or `force` is set, and empties
 * the buffer whatever the disk said. Returns the length of the block, 0 if none was due or the record is out
 * of use. */
VU_API int64_t KRDBuffer_flush(KRDBuffer *record, int32_t force);
/* 1 if `sample_limit` is below 1 (no limit counts as well), else 0. */
VU_API int32_t KRDBuffer_at_limit(const KRDBuffer *record);
/* Writes all queued frames as one block and releases them, also where the disk refused. Without `force`
 * fewer than `min_samples` elements stay queued. Returns the elements stored, 0.0 if no block went out.
 * `position` is not advanced, and KRD_BLOCK_START leaves the block's own in it: counting on is left to
 * KRDWriter_flush_these(). Frames of fewer bytes than `uniform_frames` promises, or of 4 GiB and more, are
 * reported through libvuError() and dropped. */
VU_API double KRDBuffer_flush_frames(KRDBuffer *record, int32_t force);

/* KRDBuffer_flush_frames() over `count` records from `records[first]` on, advancing each `position` by what
 * was stored. Records without frames, with a negative `idx` or an `fd` not above 0 are passed over. */
VU_API void KRDWriter_flush_these(int32_t first, int32_t count, KRDBuffer *records, int32_t force);
/* Whole bytes that `count` records have really put into the file. */
VU_API double KRDWriter_amount_written(int32_t count, const KRDBuffer *records);
/* 1 since a write failed for whatever reason, else 0. */
VU_API int32_t KRDWriter_is_disk_full(void);
/* Lets writes reach the file again. After a failure the host also sets `file_offset` of its index record to
 * the length of the file: it ran on meanwhile. */
VU_API void KRDWriter_restore_writer(void);

#endif
