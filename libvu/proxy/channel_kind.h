/* Which kind of channel a stanza's `data_type` and `connector` make: one rule for the library, for whoever
 * checks a stanza before it is used, and for a process that serves a channel. Null texts are not allowed. */
#ifndef LIBVU_PROXY_CHANNEL_KIND_H
#define LIBVU_PROXY_CHANNEL_KIND_H

#include <stdbool.h>
#include <string.h>

typedef enum {
    PROXY_NODE_KIND_UNKNOWN, /* proxyNode_Create() refuses it */
    PROXY_NODE_KIND_STREAM,  /* many signals of a module, whatever the data type says */
    PROXY_NODE_KIND_SEQUENTIAL_FLOAT32,
    PROXY_NODE_KIND_SEQUENTIAL_FLOAT64,
    PROXY_NODE_KIND_RAW,
    PROXY_NODE_KIND_GPS,  /* sentences of a receiver, whose times are moved onto its pulses */
    PROXY_NODE_KIND_NMEA, /* sentences as they come */
    PROXY_NODE_KIND_CAN,
    PROXY_NODE_KIND_XCP_IP,
    PROXY_NODE_KIND_FLOAT32,
    PROXY_NODE_KIND_FLOAT64,
    PROXY_NODE_KIND_FLOAT32_NTP,
    PROXY_NODE_KIND_FLOAT64_NTP,
} ProxyNodeKind;

/* A connector with the first part makes a big-endian module stream, with the second one a little-endian one.
 * One with both is little-endian. */
#define PROXY_NODE_BIG_STREAM "pd806h"
#define PROXY_NODE_LITTLE_STREAM "pd806k"

static inline bool proxyNodeIsLittleStream(const char *connector)
{
    return strstr(connector, PROXY_NODE_LITTLE_STREAM) != NULL;
}

static inline bool proxyNodeIsStream(const char *connector)
{
    return strstr(connector, PROXY_NODE_BIG_STREAM) != NULL || proxyNodeIsLittleStream(connector);
}

/* Bridges are zeroed by their own means: a stanza's `rezero_offset` is not for them. */
static inline bool proxyNodeIsBridge(const char *connector)
{
    return strstr(connector, "brg_") != NULL || strstr(connector, "hls_") != NULL;
}

/* Whether float messages become a periodic stream: held and repeated `sample_rate` times a second. */
static inline bool proxyNodeIsSequentialized(const char *data_type, double sample_rate)
{
    return strstr(data_type, "message_float") != NULL && sample_rate > 0.0;
}

/* The kinds of bare samples need only be contained in the data type; the others are the whole of it. */
static inline ProxyNodeKind proxyNodeKindOf(const char *data_type, const char *connector)
{
    if (proxyNodeIsStream(connector))
        return PROXY_NODE_KIND_STREAM;
    if (strstr(data_type, "sequential_float32") != NULL)
        return PROXY_NODE_KIND_SEQUENTIAL_FLOAT32;
    if (strstr(data_type, "sequential_float64") != NULL)
        return PROXY_NODE_KIND_SEQUENTIAL_FLOAT64;
    if (strcmp(data_type, "message_raw") == 0)
        return strstr(connector, "gps") != NULL ? PROXY_NODE_KIND_GPS : PROXY_NODE_KIND_RAW;
    if (strcmp(data_type, "message_nmea") == 0)
        return PROXY_NODE_KIND_NMEA;
    if (strcmp(data_type, "message_can") == 0)
        return PROXY_NODE_KIND_CAN;
    if (strcmp(data_type, "message_xcp_ip") == 0)
        return PROXY_NODE_KIND_XCP_IP;
    if (strcmp(data_type, "message_float32") == 0)
        return PROXY_NODE_KIND_FLOAT32;
    if (strcmp(data_type, "message_float64") == 0)
        return PROXY_NODE_KIND_FLOAT64;
    if (strcmp(data_type, "message_float32_ntp") == 0)
        return PROXY_NODE_KIND_FLOAT32_NTP;
    if (strcmp(data_type, "message_float64_ntp") == 0)
        return PROXY_NODE_KIND_FLOAT64_NTP;
    return PROXY_NODE_KIND_UNKNOWN;
}

#endif
