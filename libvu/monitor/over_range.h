/* Over-range detector: a group of sequential channels, watched for samples outside their limits.
 *
 * Time is cut into windows of 1 / `rate` seconds. Once every channel has delivered data past a window's end,
 * the module puts out one frame with one float64: 1.0 if any channel was out of range in that window, else
 * 0.0; `start` is the window's number. A channel's first excursion over and first one under each give a
 * notice, in the system log and, if the channel asks for it, in the list that a run returns.
 *
 * A sample of a frame has the time (`start` + its index) / `sample_rate`, so only frames of periodic channels
 * are meant. A sample equal to a limit is in range, and so is a NaN. Frames of length 0, or of elements of
 * another size than configured, are reported and released.
 *
 * A run puts out 4095 windows at most. Further runs put out the rest, whether or not a frame has come since:
 * run until nothing more comes out. A channel may be 2^20 windows ahead of the slowest one; marks of windows
 * beyond that are lost, with a logged warning, while its notices are still given.
 *
 * Memory: all of it is made at init; a run makes the frames alone. Errors: libvuCriticalError(). Thread: the
 * loop's. */
#ifndef LIBVU_MONITOR_OVER_RANGE_H
#define LIBVU_MONITOR_OVER_RANGE_H

#include "libvu/core/pipe.h"

enum {
    OVER_RNG_NAME_SIZE = 104,
    OVER_RNG_NOTICES = 50,      /* texts in one run's list */
    OVER_RNG_NOTICE_SIZE = 256, /* bytes of one, with its end */
};

/* OverRngChannelConfig.mode */
enum {
    OVER_RNG_BOTH_LIMITS = 1,
    OVER_RNG_UPPER_LIMIT = 2,
    OVER_RNG_LOWER_LIMIT = 3,
};

typedef struct OverRngModuleConfig OverRngModuleConfig;
struct OverRngModuleConfig {
    char name[OVER_RNG_NAME_SIZE]; /* NUL-terminated unless it fills the field */
    double rate;                   /* windows, and output frames, per second */
    uint32_t channel_count;
    PipeList *output; /* where the output frames go; the host's */
};
static_assert(offsetof(OverRngModuleConfig, rate) == 104 && offsetof(OverRngModuleConfig, output) == 120 &&
                  sizeof(OverRngModuleConfig) == 128,
              "OverRngModuleConfig layout");

typedef struct OverRngChannelConfig OverRngChannelConfig;
struct OverRngChannelConfig {
    char name[OVER_RNG_NAME_SIZE]; /* NUL-terminated unless it fills the field */
    double sample_rate;            /* samples per second */
    uint8_t mode;                  /* OVER_RNG_BOTH_LIMITS and so on */
    uint8_t report;                /* not 0: notices also go in the list of the run */
    uint16_t element_size;         /* bytes per sample: 4 or 8, floats */
    double lower_limit;            /* below this is under range */
    double upper_limit;            /* above this is over range */
    Pipe *pipe;                    /* where the channel's frames arrive; the module takes them out */
};
static_assert(offsetof(OverRngChannelConfig, sample_rate) == 104 &&
                  offsetof(OverRngChannelConfig, element_size) == 114 &&
                  offsetof(OverRngChannelConfig, lower_limit) == 120 &&
                  offsetof(OverRngChannelConfig, pipe) == 136 && sizeof(OverRngChannelConfig) == 144,
              "OverRngChannelConfig layout");

typedef struct OverRngNotices OverRngNotices;
struct OverRngNotices {
    uint32_t count;               /* texts of this run */
    uint32_t dropped;             /* notices of this run that found no free text */
    char *text[OVER_RNG_NOTICES]; /* one line each, after a line break; cut at 255 bytes */
};
static_assert(offsetof(OverRngNotices, text) == 8 && sizeof(OverRngNotices) == 408, "OverRngNotices layout");

/* Makes a module out of its configuration and that of `channel_count` channels, whose texts are copied. The
 * result is its number, counted from 0; -1 after a report if memory is short, an element size is not 4 or 8,
 * or rates are not positive and finite or lie too far apart. */
VU_API int32_t Over_Rng_Detect_init(const OverRngModuleConfig *config, const OverRngChannelConfig *channels);
/* Empties the channels' pipes and puts out the windows that are complete, 4095 at most. Returns the notices
 * of this run, valid until the module's next run or stop, or null if there is none. */
VU_API OverRngNotices *Over_Rng_Detect_run(int32_t module_id);
/* Releases the module. Its number is never given out again. */
VU_API void Over_Rng_Detect_stop(int32_t module_id);

#endif
