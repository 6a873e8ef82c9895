#include "quoting.h"

#include "dlog_text.h"

namespace {

const char kLetters[] = "_abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
const char kDigits[] = "0123456789";

// In quotation marks, with `quote` in place of each of them in the text.
std::string InQuotes(const std::string& text, const char* quote)
{
    std::string quoted = "'";
    for (const char byte : text) {
        if (byte == '\'') {
            quoted += quote;
        } else {
            quoted += byte;
        }
    }
    return quoted + "'";
}

bool IsPlain(const std::string& text)
{
    static const std::string kPlain = std::string(kLetters) + kDigits + "%+,-./:@";
    return !text.empty() && text.find_first_not_of(kPlain) == std::string::npos;
}

}  // namespace

bool IsVariableName(const std::string& name)
{
    static const std::string kAllowed = std::string(kLetters) + kDigits;
    return name.find_first_of(kLetters) == 0 && name.find_first_not_of(kAllowed) == std::string::npos;
}

std::string ShellWord(const std::string& text)
{
    return InQuotes(text, "'\\''");
}

std::string TerminalWord(const std::string& text)
{
    std::string escaped;
    dlog_text::AppendEscaped(escaped, text);
    if (escaped != text) {
        return "$" + InQuotes(escaped, "\\'");
    }
    return IsPlain(text) ? text : ShellWord(text);
}
