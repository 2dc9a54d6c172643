/* Storage conversion: a channel of floats stored in another type, quantised, or as runs.
 *
 * stored = round((value - offset) / scale), halves away from zero, as an integer of 8 to 64 bits; 32 and 64
 * bits stop at their bounds, 8 and 16 bits keep the low bits of the 32-bit result, a NaN gives 0. A float of
 * the other width is stored unscaled, a run of it scaled and not rounded.
 *
 * A run is a pair of elements of the stored type: how often, and the value as stored. A run ends with its
 * block, and where an integer count is at its largest. A float32 count cannot pass 2^24: longer runs in one
 * block read as 2^24. */
#ifndef LIBVU_DATAFILE_STORAGE_CONVERT_H
#define LIBVU_DATAFILE_STORAGE_CONVERT_H

#include "libvu/datafile/krd_buffer.h"

/* One way to store a sample. */
struct StorageConvertor {
    /* Stores `value` at `target`. Negative: one element was stored, minus its bytes. 0: it joined the open
     * run at `target`. Positive: it opened a run that many bytes further on. */
    int32_t (*convert)(const KRDBuffer *record, void *target, double value);
    uint32_t element_size; /* bytes of a stored element */
};

/* Chooses how the frames of `record` are stored from the names of two types: "sequential_" or "message_float"
 * and the width as digits in `source`; in `destination` "sequential_" or "message_", the width, and "_uint"
 * or "_float" (without either: signed). `sequential` not 0: frames hold bare values whatever `source` says.
 * `encoding` "rle" asks for runs, anything else or null for plain elements; a message channel is stored
 * plain, with a logged warning.
 *
 * A pair that is not meant for conversion leaves the record as it is: stored as it comes. A width that no
 * convertor has takes the filter away and leaves a text for libvuLastError(). A type's own name is no
 * identity: "sequential_float32" to itself quantises to signed 32 bits. The host sets `scale`, `offset` and
 * `uniform_frames`.
 *
 * At a flush: a batch that a run-length frame cannot hold (each sample another value), or a batch larger than
 * the pipe said, is dropped with a text for libvuLastError() and no block. */
VU_API void KRDBuffer_set_storage_convert(KRDBuffer *record, const char *source, const char *destination,
                                          int32_t sequential, const char *encoding);

#endif
