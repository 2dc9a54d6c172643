/* Signals of a module stream: values that arrive ready, each with its own time, and go into the signal's
 * Sequentializer.
 *
 * A signal is a CanSignalNode of which only `next`, `config`, `name`, `element_size`, `scale`, `offset`,
 * `rezero_offset`, `rezero_pending`, `sequentializer`, `pipes`, `proxy` and `state` are used. The host links
 * signals through `next` into the node's `cs_list` and sets each one's `proxy` before the stream runs.
 * Ownership: the signal is the host's, which frees `config`, `name`, the Sequentializer with its clock and
 * frames, and the record. Thread: the loop's. */
#ifndef LIBVU_STREAM_STREAM_SIGNAL_H
#define LIBVU_STREAM_STREAM_SIGNAL_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

struct CanSignalNode;

/* The place of one signal number in a stream channel's table, the node's `channel_aux`. */
typedef struct StreamSlot StreamSlot;
struct StreamSlot {
    /* Decodes `payload_size` bytes of samples; rewrites them in place. Null in the slots below
     * STREAM_FIRST_SLOT. */
    void (*handler)(struct CanSignalNode *context, void *payload, uint32_t payload_size, float scale,
                    float offset);
    struct CanSignalNode *context; /* null until metainfo "subscribe" binds a signal */
};
static_assert(offsetof(StreamSlot, context) == 8 && sizeof(StreamSlot) == 16, "StreamSlot layout");

enum {
    STREAM_SLOTS = 2048,    /* slots in a table */
    STREAM_FIRST_SLOT = 16, /* the slots below have no handler */
};

/* Makes a signal out of its stanza: data_type, name, scale, offset, pipe_rate, sample_rate,
 * invalid_data_output_value, stale_data_expiration_time, all required. `scale` and `offset` are only stored.
 * Null after a report. */
VU_API struct CanSignalNode *streamCANSignalInit(const char *stanza);

/* The samples of one data record, 12 bytes each and a rest ignored: seconds since 2000-01-01, fraction of
 * 2^-32 s, float32 value, all big-endian; in the forms LE fraction, seconds, value, all little-endian. A
 * value with the bits 0x58E35FA9 only moves the signal's time on. `scale` and `offset` are the channel's; the
 * forms without scaling use neither, nor do they zero. The time words end up in host order, seconds first. */
VU_API void streamProcessCANSignalNoScaling(struct CanSignalNode *signal, void *payload,
                                            uint32_t payload_size, float scale, float offset);
VU_API void streamProcessCANSignalNoScalingLE(struct CanSignalNode *signal, void *payload,
                                              uint32_t payload_size, float scale, float offset);
VU_API void streamProcessCANSignalScaleOffset(struct CanSignalNode *signal, void *payload,
                                              uint32_t payload_size, float scale, float offset);
VU_API void streamProcessCANSignalScaleOffsetLE(struct CanSignalNode *signal, void *payload,
                                                uint32_t payload_size, float scale, float offset);

#endif
