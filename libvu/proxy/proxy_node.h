/* ProxyNode: the library's end of one channel, from its socket to its pipes.
 *
 * The host opens a non-blocking stream socket to the process that produces the channel, makes a node from the
 * channel's JSON stanza, fills the fields marked "host", and runs libev's default loop. From then on the node
 * works by itself on readable events, until proxyNode_Stop() or the end of the connection.
 *
 * Ownership: the node belongs to the host from its creation; the library has no operation that destroys one.
 * Where the buffer cannot grow to hold a record, the growth is reported once and `watcher` rests; nothing
 * received is lost, and a host that has made room may start it again. The host closes `fd` (unless it has
 * become -1) and frees `inbuf.buf`, `frame`, `name`, `channel_aux`, `heartbeat`, `watcher` and the record. A
 * callback that runs inside a reader may detach pipes, set `rezero_pending` and call proxyNode_Stop(); it may
 * not free the node or a signal. The host ignores or catches SIGPIPE. Thread: the loop's. */
#ifndef LIBVU_PROXY_PROXY_NODE_H
#define LIBVU_PROXY_PROXY_NODE_H

#include "libvu/core/membuf.h"
#include "libvu/core/pipe.h"
#include "libvu/time/sample_clock.h"

struct ev_io;
struct ev_timer;
struct ev_loop;
struct CanSignalNode;
struct CanSet;
struct XcpIpSet;
struct GpsSignal;

enum {
    PROXY_NODE_AWAITS_MARKER = 0,
    PROXY_NODE_RECORDS_FLOW = 2,
    PROXY_NODE_DISCARDS = 3,
};

typedef struct ProxyNode ProxyNode;
struct ProxyNode {
    Membuf inbuf;            /* bytes received and not yet consumed */
    Frame *frame;            /* being filled, or null */
    PipeList pipes;          /* host: the channel's consumers */
    int32_t state;           /* PROXY_NODE_AWAITS_MARKER and so on; the host reads it */
    uint32_t parse_pos;      /* offset in inbuf of the next record */
    uint32_t record_size;    /* bytes per sample or entry on the wire */
    uint32_t element_size;   /* bytes per element in a frame; 0xFFFFFFFF where records vary in length */
    uint32_t frame_length;   /* elements per frame of a periodic channel, else 1 */
    int32_t message_channel; /* 1: the channel brings timestamped records; the host reads it */
    int32_t fd;              /* the socket; -1 once the library has closed it */
    uint32_t read_count;     /* bytes of the last read while the reader has not finished with them */
    int32_t disconnected;    /* 1 at the end of the connection; the host reads it */
    int32_t last_errno;      /* error of the failed read, ECONNRESET at end of file; the host reads it */
    int32_t last_read;       /* result of the read that ended the connection; the host reads it */
    char *name;              /* private copy */
    double scale;            /* 1.0 unless the stanza says otherwise */
    double offset;
    double rezero_offset;      /* subtracted from every value */
    int32_t rezero_pending;    /* host: not 0 asks for a zero */
    SampleClock clock;         /* sequentialized channels only */
    double held_value;         /* what a sequentialized channel repeats */
    double invalid_value;      /* what a stale value becomes */
    int64_t last_message_time; /* ticks */
    int64_t stale_ticks;       /* life of a value in ticks, less one */
    int64_t stale_deadline;    /* clock time after which held_value is stale */
    int64_t half_period;       /* ticks */
    int64_t sample_count;      /* samples seen so far, also those that nobody listened to */
    int32_t is_logical;        /* 1 for a logical channel; the host reads it */
    void (*byte_swap)(ProxyNode *node,
                      void *target);              /* wire order to host order: a Frame or one wire entry */
    void (*apply)(ProxyNode *node, Frame *frame); /* calibration of a full frame, or null */
    void (*reader)(ProxyNode *node);              /* what a readable event runs now */
    void (*main_reader)(ProxyNode *node); /* what follows the marker; the host may replace it before then */
    struct CanSignalNode *cs_list;        /* host: signals of a stream channel, linked by `next` */
    struct CanSet *can_set;               /* host: signals of a CAN channel */
    struct XcpIpSet *xcp_set;             /* host: measurements of an XCP channel */
    struct GpsSignal *gps_set;            /* host: signals of a GPS channel, linked by `next` */
    int64_t start_time;                   /* start of the test in ticks since 1970-01-01 UTC */
    struct ev_timer *heartbeat;           /* stream channels, from their first metainfo "alive" on */
    void *channel_aux;     /* stream handler table, timestamp state of a GPS channel, or null */
    struct ev_io *watcher; /* on the default loop */
};
static_assert(offsetof(ProxyNode, state) == 32 && offsetof(ProxyNode, fd) == 56 &&
                  offsetof(ProxyNode, name) == 80 && offsetof(ProxyNode, rezero_pending) == 112 &&
                  offsetof(ProxyNode, clock) == 120 && offsetof(ProxyNode, sample_count) == 248 &&
                  offsetof(ProxyNode, byte_swap) == 264 && offsetof(ProxyNode, main_reader) == 288 &&
                  offsetof(ProxyNode, cs_list) == 296 && offsetof(ProxyNode, start_time) == 328 &&
                  offsetof(ProxyNode, watcher) == 352 && sizeof(ProxyNode) == 360,
              "ProxyNode layout");

/* Makes a node from a channel stanza and starts its watcher; nothing happens before the host runs the loop.
 * `fd` is an open non-blocking stream socket, which stays the host's; `pipe_rate` is in frames per second.
 * Null after a report. */
VU_API ProxyNode *proxyNode_Create(const char *stanza, int32_t fd, double pipe_rate);
/* Text "2026-03-15T10:15:30.25", local time, to `start_time`; null gives 2^63 - 1, text that does not parse
 * gives 0. */
VU_API void proxyNode_SetStartTime(ProxyNode *node, const char *text);
/* Stops the watcher and sends the peer "Stop". Nothing is delivered: an unfinished frame stays in `frame`. */
VU_API void proxyNode_Stop(ProxyNode *node);

/* The watcher's callback: runs the node's reader. */
VU_API void proxyNode_IoEvent(struct ev_loop *loop, struct ev_io *watcher, int revents);
/* One read into `inbuf`, unless bytes of an earlier one still wait; handles the end of the connection. */
VU_API void proxyNode_ReadSocket(ProxyNode *node);

/* Readers. They take the node alone; the host may install one in `main_reader`. */
VU_API void proxyNode_ProxyReaderMarker(ProxyNode *node);
VU_API void proxyNode_ProxyReaderDiscard(ProxyNode *node);
/* Samples as they come. */
VU_API void proxyNode_ProxyReaderSequentialNoScaling(ProxyNode *node);
/* Samples through `apply`. */
VU_API void proxyNode_ProxyReaderSequentialScaling(ProxyNode *node);
/* Takes the first sample of the first full frame as the channel's zero, then becomes the reader above. Sound
 * only on a node whose `apply` is set. */
VU_API void proxyNode_ProxyReaderSequentialZeroing(ProxyNode *node);
/* Timestamped records of bytes, of NMEA sentences, of CAN records, of XCP messages. A frame holds one record:
 * of bytes or NMEA, one element, a u32 that counts the bytes after it, the timestamp, the content, numbers
 * in host order; of CAN, the messages as CanRecord, with `start` 0. XCP makes no frames of its own. */
VU_API void proxyNode_ProxyReaderMessageRaw(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageNMEA(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageCAN(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageXCPIP(ProxyNode *node);
/* Timestamped float32 and float64 values; the NTP forms carry absolute times. An element is 8 bytes of time,
 * then the value in host order. The time is big-endian as it came; of the NTP forms it is in ticks since
 * 1970-01-01 in host order, with `start` 0. NaNs are dropped. */
VU_API void proxyNode_ProxyReaderMessageFloat(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageDouble(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageNTPFloat(ProxyNode *node);
VU_API void proxyNode_ProxyReaderMessageNTPDouble(ProxyNode *node);
/* The same values as a periodic stream: held, repeated at `sample_rate`, marked when stale. A float32 NTP
 * channel takes no value while libvuRezeroCallback is null; a float64 NTP channel reports zeros and subtracts
 * none. */
VU_API void proxyNode_ProxyReaderSequentializedMessage(ProxyNode *node);
VU_API void proxyNode_ProxyReaderSequentializedNTPMessage(ProxyNode *node);
/* Data and metainfo of a module. */
VU_API void proxyNode_ProxyReaderZNTStream(ProxyNode *node);

/* Wire order to host order: the frame's samples, or the value at offset 8 of one message entry. */
VU_API void proxyNode_swapFloatSamples(ProxyNode *node, void *frame);
VU_API void proxyNode_swapDoubleSamples(ProxyNode *node, void *frame);
VU_API void proxyNode_swapFloatValue(ProxyNode *node, void *entry);
VU_API void proxyNode_swapDoubleValue(ProxyNode *node, void *entry);
VU_API void proxyNode_swapNone(ProxyNode *node, void *target);

/* Ticks since 1970-01-01 of an NTP entry: seconds since 2000-01-01 and fraction of 2^-32 s, both u32 in host
 * order at any alignment. In f64, so present-day times fall on multiples of about 9.5 ticks. */
VU_API double ntp_to_ts(const void *entry);

#endif
