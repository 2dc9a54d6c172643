/* The float samples of a frame, whatever their width; a frame to a chain of pipes; what a pipe holds.
 *
 * Readers and writers check nothing: the caller knows that the index lies in the frame and that the frame's
 * elements have that width. Errors: as each function says, through libvuError() and libvuCriticalError().
 * Thread: the loop's. */
#ifndef LIBVU_MONITOR_ELEMENT_ACCESS_H
#define LIBVU_MONITOR_ELEMENT_ACCESS_H

#include "libvu/core/pipe.h"

typedef double (*FrameBufReader)(const Frame *frame, uint32_t index);
typedef void (*FrameBufWriter)(Frame *frame, uint32_t index, double value);

/* The float32 or float64 at an element index, as a double. */
VU_API double frameBuf32Reader(const Frame *frame, uint32_t index);
VU_API double frameBuf64Reader(const Frame *frame, uint32_t index);
/* Stores `value`, narrowed to float32 or as it is. `length` stays. */
VU_API void frameBuf32Writer(Frame *frame, uint32_t index, double value);
VU_API void frameBuf64Writer(Frame *frame, uint32_t index, double value);
/* The reader or writer of elements of 4 or 8 bytes; null after a critical report for any other size. */
VU_API FrameBufReader getFrameBufReader(int32_t element_size);
VU_API FrameBufWriter getFrameBufWriter(int32_t element_size);

/* Hands the frame to the first pipe and a clone to each further one: 1, and the frame is the pipes'. With no
 * pipe in the list, or without list or frame, which is reported, 0: the frame stays the caller's. */
VU_API int32_t Put_Frame(Frame *frame, PipeList *list);

/* Smallest and largest element queued in the pipe to `min_max[0]` and `min_max[1]`, nothing taken out; NaNs
 * do not count. Returns 0; or -1 if there is none, with the largest finite double and its negative there. */
VU_API int32_t calculate_min_max_float32(Pipe *pipe, double *min_max);
VU_API int32_t calculate_min_max_float64(Pipe *pipe, double *min_max);

#endif
