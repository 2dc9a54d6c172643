/* Measurements of an XCP-over-IP channel, found by their position: the first one added has index 0.
 *
 * A message is one byte 0xFF (time has passed, no value), or entries one after the other: an index of 2
 * bytes, big-endian, and the value of that measurement. All entries of a message share its timestamp.
 *
 * Ownership: the set and its measurements belong to the library until xcp_ip_set_destroy(); names and
 * Sequentializers are the host's to free, taken out of the measurements before. Measurements are not zeroed.
 * Errors: null, after a report through libvuError(). Thread: the loop's. */
#ifndef LIBVU_BUS_XCP_SET_H
#define LIBVU_BUS_XCP_SET_H

#include "libvu/core/pipe.h"
#include "libvu/time/sequentializer.h"

/* A value out of `value_size` bytes at any alignment, widened. */
typedef double (*XcpReadValue)(const uint8_t *value);

typedef struct XcpMeasurement XcpMeasurement;
struct XcpMeasurement {
    char *name; /* copy */
    XcpReadValue read_value;
    uint32_t value_size; /* bytes in a message: 1, 2, 4 or 8 */
    double scale;        /* value = raw x scale + offset, rounded at each step */
    double offset;
    double rezero_offset; /* from the stanza; not used */
    Sequentializer *sequentializer;
    PipeList pipes;        /* host: the measurement's consumers */
    uint32_t element_size; /* bytes per output sample: 4 or 8 */
    int32_t state;         /* 2 once the measurement is complete; not read by the library */
};
static_assert(offsetof(XcpMeasurement, value_size) == 16 && offsetof(XcpMeasurement, scale) == 24 &&
                  offsetof(XcpMeasurement, sequentializer) == 48 && offsetof(XcpMeasurement, pipes) == 56 &&
                  offsetof(XcpMeasurement, state) == 68 && sizeof(XcpMeasurement) == 72,
              "XcpMeasurement layout");

typedef struct XcpIpSet XcpIpSet;
struct XcpIpSet {
    uint32_t capacity;
    uint32_t count;
    XcpMeasurement **measurements;
};
static_assert(offsetof(XcpIpSet, measurements) == 8 && sizeof(XcpIpSet) == 16, "XcpIpSet layout");

/* An empty set; null, without a report, if memory is short. */
VU_API XcpIpSet *xcp_ip_set_create(void);
/* A measurement with its Sequentializer from a stanza, at the next index; reachable at once. Null after a
 * report, and then no index is taken. */
VU_API XcpMeasurement *xcp_ip_set_add_measurement(XcpIpSet *set, const char *json);
/* Takes one message of `length` bytes. `timestamp` is in ticks of 25 ns, in host order. An index beyond the
 * set, or a value cut short, ends the message silently; what came before it counts. */
VU_API void xcp_ip_set_process(XcpIpSet *set, int64_t timestamp, const void *data, uint32_t length);
/* Frees the measurements and the set itself. Null is fine. */
VU_API void xcp_ip_set_destroy(XcpIpSet *set);

#endif
