/* The four callbacks that a host sets: plain variables, null until the host assigns them.
 *
 * They are called on the loop's thread, from inside the library. A callback may detach pipes, set
 * `rezero_pending` and call proxyNode_Stop(). It may not free a node, a signal or a Sequentializer: the
 * reader that called it goes on with them. A delivery goes on with the next pipe that is still attached.
 * Texts belong to the library and end with the call. */
#ifndef LIBVU_CORE_CALLBACKS_H
#define LIBVU_CORE_CALLBACKS_H

#include <stdint.h>

#include "libvu/core/export.h"

/* An error, as one line of text. Non-zero: the host took it over. Zero: the library logs it and raises
 * SIGINT. */
VU_API int32_t (*libvuErrorCallback)(const char *text);
/* The same for errors that end a channel or a watch. */
VU_API int32_t (*libvuCriticalErrorCallback)(const char *text);
/* A new zero of a channel or signal: the value that is subtracted from now on. The result is ignored. */
VU_API int32_t (*libvuRezeroCallback)(const char *name, double zero);
/* A channel's peer closed the connection. Without this callback the library logs it and raises SIGHUP. */
VU_API int32_t (*libvuChannelDisconnectCallback)(const char *name);

#endif
