// Writes each report as one line to standard error: "[SEVERITY] SOURCE: MESSAGE".
// One write for each line, so that lines of several threads and processes do not mix.

#include "dlog.h"
#include "dlog_pipe.h"
#include "dlog_text.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <new>
#include <string>

namespace {

void WriteLine(const char* line, std::size_t bytes)
{
    const dlog_pipe::ScopedNoSignal noSignal;
    const ssize_t written = write(STDERR_FILENO, line, bytes);
    (void)written;  // a failure cannot be reported anywhere
}

}  // namespace

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        std::string line = "[" + std::to_string(severity) + "] ";
        dlog_text::AppendReport(line, sourceTag, format, arguments);
        line += '\n';
        WriteLine(line.data(), line.size());
    } catch (const std::bad_alloc&) {
        static const char kLost[] = "dlog: out of memory, a report was lost\n";
        WriteLine(kLost, sizeof kLost - 1);
    }
    va_end(arguments);
    errno = callersErrno;
}
