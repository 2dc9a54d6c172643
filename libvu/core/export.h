/* How a name leaves the library: C linkage and default visibility. Everything else stays hidden. */
#ifndef LIBVU_CORE_EXPORT_H
#define LIBVU_CORE_EXPORT_H

#include <assert.h> /* static_assert in C11 */

#ifdef __cplusplus
#define VU_API extern "C" __attribute__((visibility("default")))
#else
#define VU_API extern __attribute__((visibility("default")))
#endif

/* The compiler checks the arguments of a printf-like function against its format. */
#define VU_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

#endif
