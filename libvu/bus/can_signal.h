/* CAN signals one by one: every signal of a list looks at every record. For many signals there is the hashed
 * way of can_set.h.
 *
 * Ownership: a node belongs to the host from canSignalInit() on and has no operation that destroys it; the
 * host links nodes through `next`, attaches consumers to `pipes`, and frees `config`, `name`, the
 * Sequentializer and the record. Errors: null, after a report through libvuError(). Thread: the loop's. */
#ifndef LIBVU_BUS_CAN_SIGNAL_H
#define LIBVU_BUS_CAN_SIGNAL_H

#include "libvu/bus/can_record.h"
#include "libvu/core/pipe.h"
#include "libvu/time/sequentializer.h"

struct ProxyNode;

typedef struct CanSignalNode CanSignalNode;
/* The finished value out of the 8 payload bytes, at any alignment. */
typedef double (*CanSignalHandler)(CanSignalNode *node, const uint8_t *payload);

struct CanSignalNode {
    CanSignalNode *next;   /* host: the list, null at its end */
    char *config;          /* copy of the stanza, for messages */
    char *name;            /* copy */
    uint32_t element_size; /* bytes per output sample: 4 or 8 */
    int32_t right_shift;   /* 64 - bit_length */
    int32_t left_shift;    /* brings the field's top bit to bit 63 of the payload's word */
    double scale;          /* value = raw x scale + offset - rezero_offset, rounded at each step */
    double offset;
    double rezero_offset;
    int32_t rezero_pending; /* host: not 0 asks for a zero */
    double bit_length;
    double bit_start;
    uint32_t id; /* identifier in wire order */
    Sequentializer *sequentializer;
    CanSignalHandler handler;
    PipeList pipes;          /* host: the signal's consumers */
    struct ProxyNode *proxy; /* stream signals only: the channel */
    uint32_t mask;           /* identifier bits that count, in wire order */
    int32_t state;           /* stream signals only */
};
static_assert(offsetof(CanSignalNode, element_size) == 24 && offsetof(CanSignalNode, scale) == 40 &&
                  offsetof(CanSignalNode, rezero_pending) == 64 && offsetof(CanSignalNode, id) == 88 &&
                  offsetof(CanSignalNode, sequentializer) == 96 && offsetof(CanSignalNode, pipes) == 112 &&
                  offsetof(CanSignalNode, mask) == 128 && offsetof(CanSignalNode, state) == 132 &&
                  sizeof(CanSignalNode) == 136,
              "CanSignalNode layout");

/* A format and its decoder. LSB is Intel order, MSB Motorola; U unsigned, S signed, F binary32, D binary64.
 */
typedef struct CanDataHandler CanDataHandler;
struct CanDataHandler {
    const char *name;
    CanSignalHandler handler;
};
enum { CAN_DATA_HANDLERS = 8 };
/* ULSB, UMSB, SLSB, SMSB, FLSB, FMSB, DLSB, DMSB; no end marker. */
VU_API const CanDataHandler data_handlers[CAN_DATA_HANDLERS];

/* A node with its Sequentializer from a signal's stanza; null after a report. No field is refused: where its
 * shifts leave 0 to 63 it reads raw 0, and the bits of a Motorola integer after the end of the payload read
 * 0. */
VU_API CanSignalNode *canSignalInit(const char *json);
/* Decodes `count` records for each node of `list` in turn. Turns their timestamps to host order, also with
 * an empty list. A record that does not match a node leaves that node's time where it is; a time-only record
 * advances all. A pending zero is served by the next record of either kind: the value itself, which then
 * reads 0.0 and in which the zero before is subtracted already, or the invalid value. */
VU_API void canProcessSignals(CanSignalNode *list, void *records, int32_t count);

#endif
