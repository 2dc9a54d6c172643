/* What the library reports: log lines, errors offered to the host, and the last error text.
 *
 * Errors: none of these functions fails visibly; only asprintf_or_die() ends the process.
 * Thread: the loop's. Every caller of libvuError() and libvuCriticalError() survives their return. */
#ifndef LIBVU_CORE_REPORT_H
#define LIBVU_CORE_REPORT_H

#include "libvu/core/export.h"

/* Runs at load time and logs which library this is. */
VU_API void lib_init(void);

/* One line to the system log, facility user, at severity error, warning, notice, info or debug. */
VU_API void logError(const char *format, ...) VU_PRINTF(1, 2);
VU_API void logWarning(const char *format, ...) VU_PRINTF(1, 2);
VU_API void logNotice(const char *format, ...) VU_PRINTF(1, 2);
VU_API void logInfo(const char *format, ...) VU_PRINTF(1, 2);
VU_API void logDebug(const char *format, ...) VU_PRINTF(1, 2);

/* Formats into new memory, which the caller frees. Ends the process with status -42 if it cannot. */
VU_API void asprintf_or_die(char **out, const char *format, ...) VU_PRINTF(2, 3);

/* Keeps a failure that the caller handles itself as the last error text, and logs it: no callback, no signal.
 */
VU_API void libvuSetError(const char *format, ...) VU_PRINTF(1, 2);
/* The text of the last libvuSetError(), valid until the next one; null before the first. Owned by the
 * library. */
VU_API const char *libvuLastError(void);

/* Offers an error to the host's callback; unless the host takes it, logs it and raises SIGINT. Numbers have a
 * decimal point in every locale, here and in log lines. */
VU_API void libvuError(const char *format, ...) VU_PRINTF(1, 2);
VU_API void libvuCriticalError(const char *format, ...) VU_PRINTF(1, 2);

#endif
