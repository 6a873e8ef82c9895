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

namespace {

// A character in UTF-8. A byte that is not part of one has its own value as code: C1 control characters of other
// encodings are single bytes from 0x80 to 0x9F.
struct Character {
    unsigned int code;
    std::size_t bytes;
};

// A NUL must be at the end of the text.
Character CharacterAt(const char* text)
{
    const unsigned int first = static_cast<unsigned char>(*text);
    const std::size_t bytes = first < 0xC0 || first > 0xF7 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    unsigned int code = bytes == 1 ? first : first & (0x7FU >> bytes);
    for (std::size_t i = 1; i < bytes; ++i) {
        const unsigned int next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0U) != 0x80) {
            return Character{first, 1};
        }
        code = (code << 6U) | (next & 0x3FU);
    }
    static const unsigned int kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // by bytes; a longer form is not UTF-8
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeast[bytes] || isSurrogate || code > 0x10FFFF) {
        return Character{first, 1};
    }
    return Character{code, bytes};
}

bool IsControl(unsigned int code)
{
    return code < 0x20 || (code >= 0x7F && code <= 0x9F);
}

void AppendHexadecimal(std::string& line, const std::string& text, std::size_t begin, std::size_t bytes)
{
    for (std::size_t i = begin; i < begin + bytes; ++i) {
        char escape[sizeof "\\x00"];
        (void)std::snprintf(escape, sizeof escape, "\\x%02x",
                            static_cast<unsigned int>(static_cast<unsigned char>(text[i])));
        line += escape;
    }
}

}  // namespace

void AppendEscaped(std::string& line, const std::string& text)
{
    for (std::size_t i = 0; i < text.size();) {
        const Character character = CharacterAt(text.c_str() + i);
        if (character.code == '\\') {
            line += "\\\\";
        } else if (character.code == '\n') {
            line += "\\n";
        } else if (IsControl(character.code)) {
            AppendHexadecimal(line, text, i, character.bytes);
        } else {
            line.append(text, i, character.bytes);
        }
        i += character.bytes;
    }
}

void AppendReport(std::string& line, const char* sourceTag, const char* format, std::va_list arguments)
{
    AppendEscaped(line, sourceTag);
    line += ": ";
    AppendEscaped(line, Format(format, arguments));
}

}  // namespace dlog_text
