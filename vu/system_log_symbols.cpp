// syslog() for this process and the libraries in it: the executable's own symbols come first.
#include <cstdarg>

#include "vu/record/system_log.h"

extern "C" {

__attribute__((visibility("default"))) void vsyslog(int priority, const char *format, va_list arguments)
{
    vu::SystemLog::own().write(priority, format, arguments);
}

__attribute__((visibility("default"))) void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vu::SystemLog::own().write(priority, format, arguments);
    va_end(arguments);
}

__attribute__((visibility("default"))) void __vsyslog_chk(int priority, int, const char *format,
                                                          va_list arguments)
{
    vu::SystemLog::own().write(priority, format, arguments);
}

__attribute__((visibility("default"))) void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vu::SystemLog::own().write(priority, format, arguments);
    va_end(arguments);
}
}
