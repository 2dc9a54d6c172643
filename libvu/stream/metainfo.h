/* Metainfo of a module stream: JSON records that bind signal numbers to signals, keep a watch on the peer and
 * say what form the data has.
 *
 * Failures are reported through libvuError() and change nothing else: the stream goes on. Not reentrant by
 * design of its one text buffer, though a report's callback may feed another node. Thread: the loop's. */
#ifndef LIBVU_STREAM_METAINFO_H
#define LIBVU_STREAM_METAINFO_H

#include "libvu/proxy/proxy_node.h"

struct yajl_val_s;

/* One method of the metainfo. The handler gets the parsed JSON and returns null, or what went wrong: fixed
 * texts from "fill" and "alive", memory for the caller to free from all others. */
typedef struct StreamMethod StreamMethod;
struct StreamMethod {
    const char *name;
    const char *(*handler)(ProxyNode *node, uint32_t signal_number, struct yajl_val_s *tree);
};

enum { STREAM_METHODS = 10 };
/* Compared with the JSON's "method" from row 0 on, exactly. */
VU_API const StreamMethod methods[STREAM_METHODS];

/* Handles one metainfo text of `length` bytes, which need not be terminated. A method that no row names
 * is ignored. */
VU_API void process_metainfo(ProxyNode *node, uint32_t signal_number, const void *text, uint32_t length);

#endif
