#include "log.h"

#include "dlog.h"
#include "dlog_text.h"
#include "progress.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <sstream>
#include <utility>

namespace {

const char kName[] = "orvfile";
const char kWarning[] = "warning: ";

bool usesSyslog = false;

// The identity of the messages is the name of the program already.
void SendLines(const std::string& lines)
{
    static const std::string kPrefix = std::string(kName) + ": ";
    std::istringstream stream(lines);
    int priority = LOG_ERR;
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, kPrefix.size(), kPrefix) == 0) {
            line.erase(0, kPrefix.size());
            priority = line.compare(0, sizeof kWarning - 1, kWarning) == 0 ? LOG_WARNING : LOG_ERR;
        }
        syslog(priority, "%s", line.c_str() + std::min(line.size(), line.find_first_not_of(' ')));
    }
}

// Not guarded, because orvfile has one thread.
std::vector<Report> reports;
bool areHeld = false;
bool isLost = false;  // a report, because memory ran out

void WriteAll(const char* bytes, std::size_t count)
{
    const ssize_t written = write(STDERR_FILENO, bytes, count);
    (void)written;  // a failure cannot be reported anywhere
}

// Without memory. TakeReports() tells the command.
void Lose()
{
    static const char kLine[] = "dlog: out of memory, a report was lost\n";
    WriteAll(kLine, sizeof kLine - 1);
    isLost = true;
}

}  // namespace

std::vector<Report> TakeReports()
{
    if (std::exchange(isLost, false)) {
        throw std::bad_alloc();
    }
    return std::exchange(reports, {});
}

void HoldLines(bool hold)
{
    areHeld = hold;
}

void UseSyslog()
{
    openlog(kName, LOG_PID, LOG_USER);
    usesSyslog = true;
}

bool UsesSyslog()
{
    return usesSyslog;
}

void PrintLines(const std::string& lines)
{
    if (usesSyslog) {
        SendLines(lines);
        return;
    }
    const std::string text = EraseProgress() + lines;
    WriteAll(text.data(), text.size());
}

void PrintLastWords(const char* problem)
{
    static const char kRemedy[] = "free memory, or use a smaller input";
    if (usesSyslog) {
        syslog(LOG_ERR, "%s", problem);
        syslog(LOG_ERR, "Next: %s", kRemedy);
    } else {
        (void)std::fprintf(stderr, "%s: %s\n  Next: %s\n", kName, problem, kRemedy);
    }
}

void __dlog_printf(int severity, const char* sourceTag, const char* format, ...)
{
    const int callersErrno = errno;
    std::va_list arguments;
    va_start(arguments, format);
    try {
        const Report report = {sourceTag, dlog_text::Format(format, arguments)};
        std::string line;
        dlog_text::AppendEscaped(line, report.source + ": " + report.text);
        if (!areHeld) {
            PrintLines((usesSyslog ? "" : "[" + std::to_string(severity) + "] ") + line + "\n");
        }
        reports.push_back(report);
    } catch (const std::bad_alloc&) {
        Lose();
    }
    va_end(arguments);
    errno = callersErrno;
}
