/* Growable byte buffer: socket bytes and file blocks are gathered in it.
 *
 * Embedded in other records or standing alone; zeroed before first use. `capacity` only grows, and nothing
 * here releases it: whoever owns the record frees `buf`.
 * Errors: a failed growth is reported through libvuError() and leaves the buffer as it was. */
#ifndef LIBVU_CORE_MEMBUF_H
#define LIBVU_CORE_MEMBUF_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

typedef struct Membuf Membuf;
struct Membuf {
    uint32_t size;     /* bytes in use */
    uint32_t capacity; /* bytes allocated at buf */
    uint8_t *buf;      /* null until the first growth */
};
static_assert(offsetof(Membuf, capacity) == 4 && offsetof(Membuf, buf) == 8 && sizeof(Membuf) == 16,
              "Membuf layout");

/* Makes `capacity` at least `wanted` bytes, rounded up to a power of two, and clears the bytes after `size`.
 * More than 2^31 bytes are a failed growth. */
VU_API void membufExpand(Membuf *m, uint32_t wanted);
/* Doubles a full buffer. A buffer of capacity 0 stays as it is. */
VU_API void membufAssureAvailable(Membuf *m);
/* Appends `len` bytes; with a null `src` it declares bytes that somebody already put there. */
VU_API void membufAppend(Membuf *m, const void *src, uint32_t len);
/* membufExpand(), then membufAppend() if `src` is given. Returns `m`. */
VU_API Membuf *membufInitialize(Membuf *m, uint32_t wanted, const void *src, uint32_t len);
/* Cuts `len` bytes out at `pos`; a range beyond `size` is reported and changes nothing. */
VU_API void membufRemove(Membuf *m, uint32_t pos, uint32_t len);
/* Cuts bytes out and returns a copy, which the caller frees. Null, with the bytes cut, if memory is short;
 * null, with nothing changed, after a report for a range beyond `size`. */
VU_API void *membufExtract(Membuf *m, uint32_t pos, uint32_t len);
/* A new buffer, holding a copy of `len` bytes of `src` if `len` is above 0. The caller frees it and its
 * `buf`. */
VU_API Membuf *membufNew(const char *src, int32_t len);

#endif
