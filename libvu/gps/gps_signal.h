/* GPS signals: values cut out of the sentences of one receiver.
 *
 * The channel is a node whose stanza has data_type "message_raw" and a connector that contains "gps". The
 * host makes a signal from its stanza, links it through `next` into the list at the channel's `gps_set`, and
 * attaches its consumers to `pipes`.
 *
 * Stanza keys, in the order in which they are read; a number marked * is not read for text:
 *   data_type                    contains "_float32", "_float64" or "message_raw" (text)
 *   name
 *   source_database              "TRKR-300", "TRKR-300-Plus" or "Garmin GPS" (if absent), in any case
 *   connector                    begins with the name of a channel of that receiver
 *   pipe_rate                    frames per second
 *   scale, offset *              value x scale + offset
 *   rezero_offset *              subtracted from that; 0.0 if absent
 *   sample_rate *                samples per second
 *   invalid_data_output_value *  output while there is no fresh value
 *   stale_data_expiration_time * seconds after which a value is void
 *
 * Ownership: the signal belongs to the host from its creation; the library has no operation that destroys
 * one. Errors: reported through libvuError(). Thread: the loop's. */
#ifndef LIBVU_GPS_GPS_SIGNAL_H
#define LIBVU_GPS_GPS_SIGNAL_H

#include "libvu/core/pipe.h"
#include "libvu/gps/extractors.h"
#include "libvu/time/sequentializer.h"

struct ProxyNode;

typedef struct GpsSignal GpsSignal;
struct GpsSignal {
    GpsSignal *next; /* host: the next signal of the channel */
    char *json;      /* copy of the stanza */
    char *name;
    int32_t width; /* 4: float32 samples, 8: float64 samples, -1: text */
    double scale;
    double offset;
    double rezero_offset;           /* subtracted from every value; replaced at each rezero */
    int32_t rezero_pending;         /* host: not 0 asks for a zero at the next value */
    Sequentializer *sequentializer; /* null for text */
    GpsExtractor *extractor;        /* own copy of a row; null if the connector matched none */
    PipeList pipes;                 /* host: the consumers */
    struct ProxyNode *parent;       /* the channel */
    char *source_database;
};
static_assert(offsetof(GpsSignal, width) == 24 && offsetof(GpsSignal, scale) == 32 &&
                  offsetof(GpsSignal, rezero_pending) == 56 && offsetof(GpsSignal, sequentializer) == 64 &&
                  offsetof(GpsSignal, extractor) == 72 && offsetof(GpsSignal, pipes) == 80 &&
                  offsetof(GpsSignal, parent) == 88 && sizeof(GpsSignal) == 104,
              "GpsSignal layout");

/* Makes a signal of the GPS channel `channel`, whose `channel_aux` is set. `stanza` need not outlive the
 * call. A connector that no channel of the receiver matches gives a signal without an extractor, which is
 * reported at every record instead. Null after a report, also where a numeric channel is asked for as text or
 * text as a number. Not reentrant. */
VU_API GpsSignal *gpsSignalInit(struct ProxyNode *channel, const char *stanza);

/* Takes one record of a GPS channel through the list of its signals.
 *
 * `record` is the record as it came on the connection: a length word, big-endian, then as many bytes: 8 of
 * timestamp and the text. It is rewritten in place. `timestamp` is its arrival in ticks.
 *
 * A heartbeat of 5 characters ("#hb" and two more) moves every stream on to `timestamp`. Any other text gets
 * its adjusted time, and each signal that listens to the sentence takes its value out of it: a number goes,
 * scaled, into the signal's stream, text into a frame of its own. That frame holds one element in host order:
 * a length word, as many bytes: 8 of adjusted time in ticks and the characters, without a NUL.
 *
 * A zero is taken as value x scale - offset, so that the value that serves it comes out as twice the offset;
 * it waits while there is no libvuRezeroCallback. A null list, or a channel without `channel_aux`, drops the
 * record. Errors: 32 fields or more, and a signal without an extractor, which ends the walk. */
VU_API void gpsProcessSignals(GpsSignal *signals, void *record, int64_t timestamp);

#endif
