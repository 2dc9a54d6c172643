/* The data file on disk: a plain sequence of checksummed blocks. Writer and readers share this header.
 *
 *     block   [size 4][group 4][tag 4][payload n][checksum 4][size 4]       size = n + 20, at both ends
 *     frames  payload = [position 8, unless left out][aux 8, type 0x42 only][samples]
 *     bytes   payload = what the host appended: catalogue, closing block, or a run of index entries
 *
 * Sizes, checksum and index entries are big-endian; `position`, `aux` and samples lie as they were in
 * memory. The checksum is the CRC-32 of zlib's crc32() over header and payload. */
#ifndef LIBVU_DATAFILE_KRD_FORMAT_H
#define LIBVU_DATAFILE_KRD_FORMAT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

enum {
    KRD_HEADER_SIZE = 12,                                  /* size, group, tag */
    KRD_TRAILER_SIZE = 8,                                  /* checksum, size again */
    KRD_FRAMING_SIZE = KRD_HEADER_SIZE + KRD_TRAILER_SIZE, /* the smallest block */
    KRD_POSITION_SIZE = 8,
    KRD_AUX_SIZE = 8,
    KRD_INDEX_ENTRY_SIZE = 12,
};

/* What the leading fields of a frame block hold. */
enum {
    KRD_BLOCK_RUNNING = 0,      /* position: number of the first element, counted by the record */
    KRD_BLOCK_START = 0x40,     /* position: `start` of the oldest frame */
    KRD_BLOCK_START_AUX = 0x42, /* the same, and its `reserved` as a second field */
};

/* Numbering as the reference host writes it; the library only copies the words. */
enum {
    KRD_GROUP_CATALOGUE = 0, /* first block and last block of a file, JSON */
    KRD_GROUP_INDEX = 1,
    KRD_GROUP_FIRST_CHANNEL = 2,
};

/* The bytes "KRD1" of `tag_word`. */
#define KRD_TAG "KRD1"

typedef struct KrdBlockHeader KrdBlockHeader;
struct KrdBlockHeader {
    uint32_t size;  /* bytes of the block, header and trailer included, big-endian */
    uint32_t group; /* whose block it is, big-endian */
    uint32_t tag;   /* KRD_TAG, as bytes */
};
static_assert(sizeof(KrdBlockHeader) == KRD_HEADER_SIZE, "block header");

typedef struct KrdBlockTrailer KrdBlockTrailer;
struct KrdBlockTrailer {
    uint32_t checksum; /* CRC-32 of header and payload, big-endian */
    uint32_t size;     /* the same four bytes as in the header */
};
static_assert(sizeof(KrdBlockTrailer) == KRD_TRAILER_SIZE, "block trailer");

/* Bytes, since entries follow one another without padding. */
typedef struct KrdIndexEntry KrdIndexEntry;
struct KrdIndexEntry {
    uint8_t file_offset[8]; /* where the block begins, big-endian */
    uint8_t group[4];       /* the group word of its header */
};
static_assert(sizeof(KrdIndexEntry) == KRD_INDEX_ENTRY_SIZE, "index entry");

#endif
