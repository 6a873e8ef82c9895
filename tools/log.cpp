#include "log.h"

#include "dlog.h"
#include "dlog_text.h"
#include "progress.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <new>
#include <utility>

namespace {

std::mutex mutex;  // guards the reports; the libraries may report on any thread
std::vector<Report> reports;
bool areHeld = false;

void Keep(const Report& report)
{
    const std::lock_guard<std::mutex> lock(mutex);
    reports.push_back(report);
}

}  // namespace

std::vector<Report> TakeReports()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(reports, {});
}

void HoldLines(bool hold)
{
    areHeld = hold;
}

void PrintLines(const std::string& lines)
{
    const std::string text = EraseProgress() + lines;
    const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
    (void)written;  // a failure cannot be reported anywhere
}

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        const Report report = {sourceTag, dlog_text::Format(format, arguments)};
        std::string line = "[" + std::to_string(severity) + "] ";
        dlog_text::AppendEscaped(line, report.source + ": " + report.text);
        if (!areHeld) {
            PrintLines(line + "\n");
        }
        Keep(report);
    } catch (const std::bad_alloc&) {
        PrintLines("dlog: out of memory, a report was lost\n");
    }
    va_end(arguments);
    errno = callersErrno;
}
