/* libvu: from acquisition processes over sockets to frames, streams, signals and a checked data file.
 * This header brings all public ones; each can also be included alone. */
#ifndef LIBVU_LIBVU_H
#define LIBVU_LIBVU_H

#include "libvu/bus/can_record.h"
#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/frame.h"
#include "libvu/core/membuf.h"
#include "libvu/core/pipe.h"
#include "libvu/core/report.h"
#include "libvu/core/wire_format.h"
#include "libvu/datafile/krd_buffer.h"
#include "libvu/datafile/krd_format.h"
#include "libvu/datafile/storage_convert.h"
#include "libvu/gps/extractors.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/gps/ts_adjust.h"
#include "libvu/monitor/element_access.h"
#include "libvu/monitor/over_range.h"
#include "libvu/proxy/calibration.h"
#include "libvu/proxy/channel_kind.h"
#include "libvu/proxy/proxy_node.h"
#include "libvu/stream/metainfo.h"
#include "libvu/stream/stream_signal.h"
#include "libvu/time/sample_clock.h"
#include "libvu/time/sequentializer.h"

#endif
