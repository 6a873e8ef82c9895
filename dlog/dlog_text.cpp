#include "dlog_text.h"

#include <cstddef>
#include <cstdio>

namespace dlog_text {

std::string Format(const char* format, std::va_list arguments)
{
    std::va_list measured;
    va_copy(measured, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): false positive for a copy of a parameter
    const int bytes = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (bytes < 0) {
        return format;  // the message is too long for printf; its format still says what failed
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

void AppendReport(std::string& line, const char* sourceTag, const char* format, std::va_list arguments)
{
    AppendEscaped(line, sourceTag);
    line += ": ";
    AppendEscaped(line, Format(format, arguments));
}

}  // namespace dlog_text
