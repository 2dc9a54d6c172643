/* The numbers of the wire that every party to a connection has to know: the library, a host that reads
 * frames, and a process that serves a channel. */
#ifndef LIBVU_CORE_WIRE_FORMAT_H
#define LIBVU_CORE_WIRE_FORMAT_H

#include <stdint.h>

/* The time base: one tick is 25 ns. */
#define VU_TICKS_PER_SECOND INT64_C(40000000)

/* Sizes in bytes. */
enum {
    VU_MARKER_BYTES = 2, /* once, first: FE ED if floats are big-endian, ED FE if they are little-endian */
    VU_LENGTH_BYTES = 4, /* ahead of every record: its length without these, big-endian */
    VU_TIME_BYTES = 8,   /* a timestamp: ticks, signed, or u32 seconds and fraction of an NTP time */
    VU_UNREAD_BYTES = 8, /* what begins the body of sequential and NTP records and is not read */
    VU_CAN_RECORD_BYTES = 21,    /* CanRecord */
    VU_STREAM_SAMPLE_BYTES = 12, /* a module stream's sample: NTP time and float32 */
};

#endif
