#include "libvu/core/report.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <syslog.h>

#include "libvu/core/c_locale_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/owned_private.h"

int32_t (*libvuErrorCallback)(const char *) = nullptr;
int32_t (*libvuCriticalErrorCallback)(const char *) = nullptr;
int32_t (*libvuRezeroCallback)(const char *, double) = nullptr;
int32_t (*libvuChannelDisconnectCallback)(const char *) = nullptr;

namespace {

using Callback = int32_t (*)(const char *);
constexpr const char *kFormattingFailed = "Unable to format error message";

char *lastError = nullptr;

void logLine(int severity, const char *text)
{
    syslog(LOG_USER | severity, "%s", text);
}

void logFormattingFailed(const char *format)
{
    syslog(LOG_USER | LOG_ERR, "Unable to format error message: %s", format);
}

libvu::Owned<char> formatted(const char *format, va_list arguments)
{
    const libvu::CLocaleScope decimalPoints;
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        text = nullptr;
    return libvu::Owned<char>(text);
}

// The callback pointer is read once: a callback may clear it, or report an error of its own.
void report(Callback callback, const char *format, va_list arguments)
{
    {
        const auto text = formatted(format, arguments);
        if (callback && callback(text ? text.get() : kFormattingFailed))
            return;
        if (text)
            logLine(LOG_ERR, text.get());
        else
            logFormattingFailed(format);
    }
    raise(SIGINT); // after the text is freed, since a host may leave its signal handler by a jump
}

} // namespace

__attribute__((constructor)) void lib_init(void)
{
    logLine(LOG_NOTICE, "Using release version of libvu");
}

#define VU_LOG_FUNCTION(name, severity)                                                                      \
    void name(const char *format, ...)                                                                       \
    {                                                                                                        \
        va_list arguments;                                                                                   \
        va_start(arguments, format);                                                                         \
        const libvu::CLocaleScope decimalPoints;                                                             \
        vsyslog(LOG_USER | (severity), format, arguments);                                                   \
        va_end(arguments);                                                                                   \
    }

VU_LOG_FUNCTION(logError, LOG_ERR)
VU_LOG_FUNCTION(logWarning, LOG_WARNING)
VU_LOG_FUNCTION(logNotice, LOG_NOTICE)
VU_LOG_FUNCTION(logInfo, LOG_INFO)
VU_LOG_FUNCTION(logDebug, LOG_DEBUG)

void asprintf_or_die(char **out, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(out, format, arguments);
    va_end(arguments);
    if (length < 0)
        std::exit(-42);
}

void libvuSetError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    auto text = formatted(format, arguments);
    va_end(arguments);
    if (!text) {
        logFormattingFailed(format);
        return;
    }
    // The arguments may have pointed into the earlier text, which can only go now.
    std::free(lastError);
    lastError = text.release();
    logLine(LOG_ERR, lastError);
}

const char *libvuLastError(void)
{
    return lastError;
}

void libvuError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report(libvuErrorCallback, format, arguments);
    va_end(arguments);
}

void libvuCriticalError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    report(libvuCriticalErrorCallback, format, arguments);
    va_end(arguments);
}
