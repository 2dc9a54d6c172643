/* Frames: blocks of equal elements on their way from a channel to its consumers.
 *
 * Ownership: whoever makes a frame or takes one out of a pipe holds one reference and ends it with
 * frameDelete() or hands it on with pipeAddFrame(). A clone shares its root's payload and keeps it alive:
 *
 *     root  [header | aux_inline | payload ......]
 *               ^          ^           ^
 *     clone [header]-------aux--------data      one reference to the root
 *
 * Errors: null, after a report through libvuError(). Thread: the loop's; counts are plain fields. */
#ifndef LIBVU_CORE_FRAME_H
#define LIBVU_CORE_FRAME_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

typedef struct Frame Frame;
struct Frame {
    Frame *next;            /* in a pipe the older neighbour, in a pool the next free frame */
    Frame *prev;            /* in a pipe the newer neighbour */
    Frame *parent;          /* a clone's root; null in a root */
    Frame **pool;           /* head of the free list that takes this frame back; null: it is freed */
    uint16_t is_message;    /* 1: made by frameCreateMessage(), `aux` is a block of its own */
    int16_t refcount;       /* references held, at most 32767 */
    uint32_t element_size;  /* bytes per element */
    uint32_t capacity;      /* elements that the payload can hold */
    uint32_t length;        /* elements held now; private to each clone */
    uint64_t reserved;      /* the host's own; copied into a block of type 0x42 */
    int64_t start;          /* first element: sample number, or 25 ns ticks on message channels */
    void *data;             /* the payload after the header, or a buffer that the host keeps */
    uint32_t *aux;          /* two words: 0, and `start` as a 32-bit float */
    uint32_t aux_inline[2]; /* roots only: a clone's allocation ends before this field */
};
static_assert(offsetof(Frame, is_message) == 32 && offsetof(Frame, refcount) == 34 &&
                  offsetof(Frame, length) == 44 && offsetof(Frame, start) == 56 &&
                  offsetof(Frame, data) == 64 && offsetof(Frame, aux) == 72 &&
                  offsetof(Frame, aux_inline) == 80 && sizeof(Frame) == 88,
              "Frame layout");

/* A root frame with one reference, `length` 0, and room for `capacity` elements of `element_size` bytes, not
 * cleared. With `external` the payload is that buffer, which this library never frees. */
VU_API Frame *frameCreate(uint32_t capacity, uint32_t element_size, void *external);
/* frameCreate() with elements of one byte and `is_message` set. Before its last reference goes, the caller
 * points `aux` at a block from malloc(), which is freed with the frame, or at null. */
VU_API Frame *frameCreateMessage(void *external, uint32_t capacity);
/* One reference more, in a header of its own. `length` is the root's at this moment, whoever is passed in. */
VU_API Frame *frameClone(Frame *frame);
/* Gives up one reference; the last one returns the frame to its pool or the heap. Null is fine. */
VU_API void frameDelete(Frame *frame);
/* Elements per frame of a periodic channel: floor(sample_rate / pipe_rate), 1 to 2^31 - 1, 1 for a NaN. */
VU_API int32_t frameBufsize(double sample_rate, double pipe_rate);
VU_API uint32_t frameLength(const Frame *frame);
/* Elements that still fit. */
VU_API uint32_t frameAvailable(const Frame *frame);
/* Where the next element goes. */
VU_API void *frameTail(const Frame *frame);

#endif
