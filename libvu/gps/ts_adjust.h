/* From the arrival of a sentence back to the pulse per second that it belongs to.
 *
 * A channel keeps its latest pulses. A sentence whose time of day is a whole second takes the latest pulse
 * before its arrival as its time, and the channel is in step: sentences of one fix then share a time, those
 * between whole seconds get their distance from the pulse, and a missing pulse is bridged by counting
 * on. Whatever does not fit loses step; sentences keep their arrival time until the next pulse ties them
 * again. No sentence leaves later than it arrived or more than 0.25 s earlier, and the times of a channel
 * never run backwards.
 *
 * A time of day that jumps by more than 5 s is rejected and leaves the state alone, so that one garbled
 * sentence costs nothing. A receiver that jumps for good therefore stays rejected, until step is lost by
 * other means: a sentence without a time of day more than 0.25 s after the last accepted one.
 *
 * Times are seconds as doubles, except ticks of 25 ns at the boundary. Memory is fixed. Errors: none is
 * reported. Thread: the loop's. */
#ifndef LIBVU_GPS_TS_ADJUST_H
#define LIBVU_GPS_TS_ADJUST_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

enum { GPS_PULSES_KEPT = 20 };

/* The record under work. */
typedef struct GpsTsMessage GpsTsMessage;
struct GpsTsMessage {
    char sentence_id[16]; /* first field, NUL-terminated */
    char utc_field[16];   /* time of day hhmmss.sss, NUL-terminated; empty: the sentence has none */
    double message_time;  /* arrival */
    double adjusted_time; /* result */
    uint8_t rejected;     /* 1: dropped for a jump in its time of day */
};
static_assert(offsetof(GpsTsMessage, utc_field) == 16 && offsetof(GpsTsMessage, message_time) == 32 &&
                  offsetof(GpsTsMessage, adjusted_time) == 40 && offsetof(GpsTsMessage, rejected) == 48 &&
                  sizeof(GpsTsMessage) == 56,
              "GpsTsMessage layout");

/* How sentences and pulses hang together. */
typedef struct GpsPpsState GpsPpsState;
struct GpsPpsState {
    uint8_t unsynced;                    /* 0 while sentences are tied to pulses */
    double pulse_times[GPS_PULSES_KEPT]; /* ring */
    int32_t newest_pulse;                /* index of the newest entry; 19 before the first */
    int32_t pulse_count;                 /* pulses since step was lost last, not bounded by the ring */
    double last_pulse;                   /* pulse, real or counted on, of the latest whole second */
    double missed_pulses;                /* seconds counted on since the last real pulse */
    double utc_now;                      /* time of day of this sentence, seconds of the day */
    double utc_prev;                     /* that of the one before; -1000.0: none */
    double last_message_time;            /* arrival of the latest sentence that carried on the state */
    double last_adjusted_time;           /* its result */
    double sync_pulse;                   /* `last_pulse` at the latest whole second */
    double sync_utc;                     /* `utc_now` at the latest whole second */
};
static_assert(offsetof(GpsPpsState, pulse_times) == 8 && offsetof(GpsPpsState, newest_pulse) == 168 &&
                  offsetof(GpsPpsState, last_pulse) == 176 && offsetof(GpsPpsState, utc_prev) == 200 &&
                  offsetof(GpsPpsState, sync_utc) == 232 && sizeof(GpsPpsState) == 240,
              "GpsPpsState layout");

/* The state of one GPS channel, in the `channel_aux` of its node. */
typedef struct GpsTsAdjust GpsTsAdjust;
struct GpsTsAdjust {
    GpsTsMessage message; /* cleared at the start of each record */
    GpsPpsState pps;
    double heartbeat_latency; /* a heartbeat means the time this long before it: 0.33333 s */
    double last_output;       /* latest time handed out; -1000.0 before the first */
};
static_assert(offsetof(GpsTsAdjust, pps) == 56 && offsetof(GpsTsAdjust, heartbeat_latency) == 296 &&
                  offsetof(GpsTsAdjust, last_output) == 304 && sizeof(GpsTsAdjust) == 312,
              "GpsTsAdjust layout");

/* A new state, out of step, which the caller frees; null if memory is short. */
VU_API GpsTsAdjust *gpsInitializeTsAdjust(void);

/* The same adjustment for the host, on a state of its own: `sentence` is NUL-terminated text that arrived at
 * `timestamp`, of which 4084 characters are looked at: a sentence, "#pps" for a pulse or "#hb" for a
 * heartbeat. Returns the adjusted time in ticks; -1 for a null sentence, a negative timestamp, text that is
 * none of the three, a rejected sentence, or short memory. Not reentrant. */
VU_API int64_t gpsAdjustNmeaTimestamp(int64_t timestamp, const char *sentence);
/* Starts that state over. */
VU_API void gpsReinitNmeaTSAdjust(void);

/* Works out `adjusted_time` and `rejected` of a sentence out of its `message_time` and `utc_field`. */
VU_API void pps_recalc_nmea_msg_ts(GpsPpsState *pps, GpsTsMessage *message);

#endif
