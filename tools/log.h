// All that orvfile writes to standard error or to the system's log: its own messages, and the lines that the libraries
// report.
#ifndef ORV_TOOLS_LOG_H
#define ORV_TOOLS_LOG_H

#include <string>
#include <vector>

// A line that a library reported, as it was reported: not escaped.
struct Report {
    std::string source;  // such as "orv_safe"
    std::string text;    // such as "CopyFile: open(a) failed (2, No such file or directory)."
};

// The lines that were reported since the last call. Throws std::bad_alloc if memory ran out for one of them: then
// nobody knows what it said.
std::vector<Report> TakeReports();

// Whether the lines of the libraries are only kept, not printed.
void HoldLines(bool hold);

// From now on, everything goes to syslog(3), each line as a message of its own.
void UseSyslog();
bool UsesSyslog();

// Writes whole lines, all in one write. They must be escaped.
void PrintLines(const std::string& lines);

// Reports the end of the program, without any memory.
void PrintLastWords(const char* problem);

#endif  // ORV_TOOLS_LOG_H
