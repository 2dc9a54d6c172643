/* All signals of a CAN channel: groups of equal identifier and mask, reached through 256 hash buckets.
 *
 * Calling order: can_set_create(), can_set_add_signal() for each signal, can_set_finalize() once after the
 * last one, can_set_process() for each batch, can_set_destroy(). Nothing may be added after finalizing: the
 * buckets point into `groups`.
 *
 * Ownership: set, groups and signals belong to the library until can_set_destroy(); names, Sequentializers
 * and the CanSet record itself stay the host's to free, names and Sequentializers being taken out of the
 * signals before. Errors: null, after a report through libvuError(). Thread: the loop's. */
#ifndef LIBVU_BUS_CAN_SET_H
#define LIBVU_BUS_CAN_SET_H

#include "libvu/bus/can_record.h"
#include "libvu/core/pipe.h"
#include "libvu/time/sequentializer.h"

/* The raw value of a field in the 8 payload bytes, at any alignment. */
typedef double (*CanExtract)(const uint8_t *payload, uint32_t left_shift, uint32_t right_shift);

typedef struct CanSetSignal CanSetSignal;
struct CanSetSignal {
    char *name;           /* copy */
    uint32_t left_shift;  /* brings the field's top bit to bit 63 of the payload's word */
    uint32_t right_shift; /* 64 - bit length */
    CanExtract extract;
    uint32_t mode_left_shift; /* the same for the mode field */
    uint32_t mode_right_shift;
    CanExtract mode_extract; /* null: not multiplexed */
    uint32_t mode_value;     /* decoded only while the mode field holds this */
    double scale;            /* value = raw x scale + offset - rezero_offset, rounded at each step */
    double offset;
    double rezero_offset;
    int32_t rezero_pending; /* host: not 0 asks for a zero */
    Sequentializer *sequentializer;
    PipeList pipes;        /* host: the signal's consumers */
    uint32_t element_size; /* bytes per output sample: 4 or 8 */
    int32_t state;         /* 2 once the signal is complete; not read by the library */
};
static_assert(offsetof(CanSetSignal, extract) == 16 && offsetof(CanSetSignal, mode_extract) == 32 &&
                  offsetof(CanSetSignal, scale) == 48 && offsetof(CanSetSignal, rezero_pending) == 72 &&
                  offsetof(CanSetSignal, sequentializer) == 80 && offsetof(CanSetSignal, pipes) == 88 &&
                  offsetof(CanSetSignal, state) == 100 && sizeof(CanSetSignal) == 104,
              "CanSetSignal layout");

typedef struct CanSetGroup CanSetGroup;
struct CanSetGroup {
    uint32_t id; /* identifier and mask in wire order, as they lie in a record */
    uint32_t mask;
    uint32_t capacity;
    uint32_t count;
    CanSetSignal **signals;
};
static_assert(offsetof(CanSetGroup, count) == 12 && offsetof(CanSetGroup, signals) == 16 &&
                  sizeof(CanSetGroup) == 24,
              "CanSetGroup layout");

typedef struct CanSetBucket CanSetBucket;
struct CanSetBucket {
    uint32_t capacity;
    uint32_t count;
    CanSetGroup **entries; /* in the order of the groups' creation; null while empty */
};
static_assert(offsetof(CanSetBucket, entries) == 8 && sizeof(CanSetBucket) == 16, "CanSetBucket layout");

enum { CAN_SET_BUCKETS = 256 };

typedef struct CanSet CanSet;
struct CanSet {
    uint32_t group_capacity;
    uint32_t group_count;
    CanSetGroup *groups; /* by value: moves while signals are added */
    CanSetBucket buckets[CAN_SET_BUCKETS];
};
static_assert(offsetof(CanSet, groups) == 8 && offsetof(CanSet, buckets) == 16 && sizeof(CanSet) == 4112,
              "CanSet layout");

/* An empty set; null, without a report, if memory is short. */
VU_API CanSet *can_set_create(void);
/* A signal with its Sequentializer from a stanza. Null after a report: the stanza is no JSON, a key is
 * missing or out of its list, a field leaves the 64-bit word, the Sequentializer cannot be made, or memory is
 * short. The set stays usable, at most with one empty group more. */
VU_API CanSetSignal *can_set_add_signal(CanSet *set, const char *json);
/* Fills the buckets. Harmless when called again. */
VU_API void can_set_finalize(CanSet *set);
/* Decodes `count` records. Turns every timestamp to host order, whatever matches. A record that matches no
 * signal, or not a signal's mode, advances no Sequentializer; a time-only record advances all. A pending zero
 * is served by the next record that is decoded or time-only: raw x scale + offset, or the invalid value. What
 * the callback writes into the signal counts for that record already. */
VU_API void can_set_process(CanSet *set, void *records, uint32_t count);
/* Frees signals, groups and buckets, and leaves the set empty. */
VU_API void can_set_destroy(CanSet *set);
/* The bucket, 0 to 255, of an identifier in wire order. Given a mask: the bucket bits that it covers. */
VU_API uint32_t get_bucket_id(uint32_t id);

#endif
