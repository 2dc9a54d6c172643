/* Pipes: a queue of frames to one consumer each, chained in the list of a channel or signal.
 *
 * Ownership: a frame in a pipe belongs to the pipe until pipeGetFrame() hands it on. A consumer may look into
 * a pipe without taking frames out: from `oldest` along `prev`. Errors: reported through libvuError();
 * nothing changes then. Thread: the loop's. */
#ifndef LIBVU_CORE_PIPE_H
#define LIBVU_CORE_PIPE_H

#include "libvu/core/frame.h"

typedef struct Pipe Pipe;
struct Pipe {
    Pipe *next; /* the chain of the PipeList */
    Pipe *prev;
    int64_t queued; /* elements waiting: the sum of `length` as frames went in and out, never below 0 */
    Frame *newest;  /* frames enter here */
    Frame *oldest;  /* and leave here */
};
static_assert(offsetof(Pipe, queued) == 16 && offsetof(Pipe, newest) == 24 && offsetof(Pipe, oldest) == 32,
              "Pipe layout");

typedef struct PipeList PipeList;
struct PipeList {
    Pipe *first; /* null: nobody listens */
};

/* A new empty list, which the caller frees; null, without a report, if memory is short. */
VU_API PipeList *pipeNewPipeList(void);
/* A new empty pipe at the end of the chain; it lives until pipeDetachPipe(). */
VU_API Pipe *pipeAttachPipe(PipeList *list);
/* Unlinks the pipe, deletes the frames in it and frees it. */
VU_API void pipeDetachPipe(PipeList *list, Pipe *pipe);
/* Takes over the caller's reference to `frame`. */
VU_API void pipeAddFrame(Pipe *pipe, Frame *frame);
/* The oldest frame, now the caller's; null if the pipe is empty. */
VU_API Frame *pipeGetFrame(Pipe *pipe);
VU_API void pipeFlushFrames(Pipe *pipe);
/* Unlinks and deletes `frame` wherever it is in the pipe; a frame that is not there is left alone. */
VU_API void pipeRemoveFrame(Pipe *pipe, Frame *frame);
/* 1 if a frame waits, else 0. */
VU_API int32_t pipeHasFrames(const Pipe *pipe);

#endif
