/* Values with timestamps become a periodic stream: the last value is held, written once per sample instant
 * that time has passed, and replaced by an invalid value when it is older than it may be.
 *
 * A stream moves only when its caller gives it a time; there is no timer. Sample i is written at the first
 * call whose time exceeds its instant by more than half a period, and carries the last value given up to
 * then. Memory: while nobody takes frames out of its pipes, a stream keeps growing by one frame per frame
 * time. Ownership: frames point at `free_frames`, so the record outlives every frame in any pipe; the host
 * frees the frames of the pool, `current_frame`, `clock` and the record. Errors: libvuError(). Thread: the
 * loop's. */
#ifndef LIBVU_TIME_SEQUENTIALIZER_H
#define LIBVU_TIME_SEQUENTIALIZER_H

#include "libvu/core/pipe.h"
#include "libvu/time/sample_clock.h"

typedef struct Sequentializer Sequentializer;
struct Sequentializer {
    PipeList *pipes;       /* where full frames go; set by the creator right after creation */
    Frame *free_frames;    /* the pool, linked by next and prev */
    double pipe_rate;      /* frames per second wanted by the consumers */
    Frame *current_frame;  /* being filled, or null */
    int32_t frame_samples; /* capacity of every frame, in samples */
    uint32_t element_size; /* 8: float64 samples; else float32 */
    SampleClock *clock;
    double value;              /* what the next sample carries */
    double invalid_value;      /* what replaces it when it expires */
    int64_t last_target;       /* target of the latest call, in ticks */
    int64_t stale_ticks;       /* life of a value in ticks, less one */
    int64_t expiry_tick;       /* the clock's position after which `value` is void */
    int64_t sample_count;      /* samples written so far: the number of the next one */
    int64_t half_period_ticks; /* samples are cut half a period late */
};
static_assert(offsetof(Sequentializer, pipe_rate) == 16 && offsetof(Sequentializer, element_size) == 36 &&
                  offsetof(Sequentializer, value) == 48 &&
                  offsetof(Sequentializer, half_period_ticks) == 96 && sizeof(Sequentializer) == 104,
              "Sequentializer layout");

/* A stream at tick 0 that carries `invalid_value`, with a pool of five seconds' frames, or as many as memory
 * allows. `element_size` 4 or 8 bytes (any other makes frames of float32), rates per second, life of a value
 * in seconds. Null after a report: "Invalid pipe rate: %g" (not above 0, above 1,000,000 or not finite), what
 * sampleClockInit() says of the sample rate, or no memory for the record or its clock. */
VU_API Sequentializer *createSequentializer(uint32_t element_size, double pipe_rate, double sample_rate,
                                            double stale_seconds, double invalid_value);
/* Writes every sample up to `time`, in ticks, with the value held. A call with a time that is not finite does
 * nothing. */
VU_API void sequentialize(Sequentializer *seq, double time);
/* sequentialize(), then holds `value`, whose life counts from the clock's next sample. */
VU_API void sequentialize_value(Sequentializer *seq, double time, double value);
/* Frees the record and nothing else: clock and frames stay the caller's. */
VU_API void destroySequentializer(Sequentializer *seq);

#endif
