// Passes each report to syslog(3) as "SOURCE: MESSAGE". The severities are those of syslog: 3 is LOG_ERR. The program
// chooses identity, facility and options with openlog(3); otherwise syslog uses the program's name and LOG_USER.

#include "dlog.h"
#include "dlog_pipe.h"
#include "dlog_text.h"

#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <new>
#include <string>

namespace {

// syslog would take a number outside this range for a facility.
int Priority(int severity)
{
    return severity >= LOG_EMERG && severity <= LOG_DEBUG ? severity : LOG_ERR;
}

}  // namespace

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    const dlog_pipe::ScopedNoSignal noSignal;  // with LOG_PERROR, syslog also writes to standard error
    std::va_list arguments;
    va_start(arguments, format);
    try {
        std::string line;
        dlog_text::AppendReport(line, sourceTag, format, arguments);
        syslog(Priority(severity), "%s", line.c_str());
    } catch (const std::bad_alloc&) {
        syslog(Priority(severity), "dlog: out of memory, a report was lost");
    }
    va_end(arguments);
    errno = callersErrno;
}
