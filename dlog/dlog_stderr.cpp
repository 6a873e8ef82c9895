// Writes each report as one line to standard error: "[SEVERITY] SOURCE: MESSAGE".
// One write per line, so that lines of several threads and processes do not mix. Control characters and backslashes
// are escaped as in C, so that a path that holds a line feed cannot forge a second line.

#include "dlog.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <new>
#include <string>

namespace {

__attribute__((format(printf, 1, 0))) std::string Format(const char* format, std::va_list arguments)
{
    std::va_list measured;
    va_copy(measured, arguments);
    const int bytes = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (bytes < 0) {
        return format;  // the message is longer than printf can tell: its format still says what failed
    }
    std::string text(static_cast<std::size_t>(bytes) + 1, '\0');
    (void)std::vsnprintf(&text[0], text.size(), format, arguments);
    text.resize(text.size() - 1);
    return text;
}

void AppendEscaped(std::string& line, const std::string& text)
{
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            line += "\\\\";
        } else if (c == '\n') {
            line += "\\n";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escape[sizeof "\\x00"];
            (void)std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned int>(byte));
            line += escape;
        } else {
            line += c;
        }
    }
}

void WriteLine(const char* line, std::size_t bytes)
{
    const ssize_t written = write(STDERR_FILENO, line, bytes);
    (void)written;  // there is no place left to report to
}

}  // namespace

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        std::string line = "[" + std::to_string(severity) + "] ";
        AppendEscaped(line, sourceTag);
        line += ": ";
        AppendEscaped(line, Format(format, arguments));
        line += '\n';
        WriteLine(line.data(), line.size());
    } catch (const std::bad_alloc&) {
        static const char kLost[] = "dlog: out of memory, a report was lost\n";
        WriteLine(kLost, sizeof kLost - 1);
    }
    va_end(arguments);
    errno = callersErrno;
}
