/* libvu: from acquisition processes over sockets to frames, streams, signals and a checked data file.
 * This header brings all public ones; each also stands alone. */
#ifndef LIBVU_LIBVU_H
#define LIBVU_LIBVU_H

#include "libvu/core/callbacks.h"
#include "libvu/core/frame.h"
#include "libvu/core/membuf.h"
#include "libvu/core/pipe.h"
#include "libvu/core/report.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/time/sample_clock.h"
#include "libvu/time/sequentializer.h"

#endif
