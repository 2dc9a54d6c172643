/* Extractors: one channel of a receiver each, out of the fields of a sentence.
 *
 * A receiver's table has a row for every channel that it offers. A signal owns a copy of its row; the row's
 * function is called for every sentence that the row names and leaves its result in `value` and `valid`. An
 * extractor never reports: what it cannot use leaves `valid` at 0.
 *
 * Numbers are read as strtod() reads them in the "C" locale, whatever follows them. A field that the sentence
 * does not have reads as empty; a date or time that is too short for its form is not valid. Thread: the
 * loop's. */
#ifndef LIBVU_GPS_EXTRACTORS_H
#define LIBVU_GPS_EXTRACTORS_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"
#include "libvu/gps/ts_adjust.h"

/* Slots for the fields of a sentence; the last is never filled, so that a sentence has at most 31. */
enum { GPS_TOKEN_SLOTS = 32, GPS_SENTENCE_IDS = 16 };

typedef struct GpsExtractor GpsExtractor;
struct GpsExtractor {
    int32_t sentence_count;                    /* ids in `sentence_id` */
    const char *sentence_id[GPS_SENTENCE_IDS]; /* what feeds the row; the last one delivers; then null */
    const char *name;                          /* the channel */
    /* `tokens` has GPS_TOKEN_SLOTS texts, empty from `count` on, which end with the call. */
    void (*extract)(GpsExtractor *extractor, const char *const *tokens, int32_t count);
    union {
        double number;
        const char *text; /* `utc_date_time` alone; owned by `scratch` */
    } value;
    int32_t valid; /* 1: `value` is a result of the latest call */
    void *scratch; /* UTC channels: the status word of all of them; `utc_date_time`: its text, owned */
    GpsTsAdjust *ts_state; /* of the signal's channel; null in a table */
};
static_assert(offsetof(GpsExtractor, sentence_id) == 8 && offsetof(GpsExtractor, name) == 136 &&
                  offsetof(GpsExtractor, extract) == 144 && offsetof(GpsExtractor, value) == 152 &&
                  offsetof(GpsExtractor, valid) == 160 && offsetof(GpsExtractor, scratch) == 168 &&
                  offsetof(GpsExtractor, ts_state) == 176 && sizeof(GpsExtractor) == 184,
              "GpsExtractor layout");

#endif
