// Shared by the substitutes in this folder: makes the text of a report, escaped so that it is one line of a log.
#ifndef ORV_DLOG_TEXT_H
#define ORV_DLOG_TEXT_H

#include <cstdarg>
#include <string>

namespace dlog_text {

// Appends `text` to `line`, with control characters and backslashes escaped as in C, so that a path that contains a
// line feed cannot forge a second line. The control characters from U+0080 to U+009F, which terminals obey, are escaped
// in UTF-8 and as single bytes; all other bytes stay. Throws std::bad_alloc.
void AppendEscaped(std::string& line, const std::string& text);

// Returns the message of printf's format and arguments, not escaped. Throws std::bad_alloc.
__attribute__((format(printf, 1, 0))) std::string Format(const char* format, std::va_list arguments);

// Appends "SOURCE: MESSAGE", escaped, to `line`. Throws std::bad_alloc.
__attribute__((format(printf, 3, 0))) void AppendReport(std::string& line, const char* sourceTag, const char* format,
                                                        std::va_list arguments);

}  // namespace dlog_text

#endif  // ORV_DLOG_TEXT_H
