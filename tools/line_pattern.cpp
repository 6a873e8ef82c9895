#include "line_pattern.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace explain {

namespace {

const std::size_t kMostSplits = 100;

struct Token {
    bool isPlaceholder;
    std::string text;  // a literal, or the name of the placeholder
};

bool IsCapital(char c)
{
    return std::isupper(static_cast<unsigned char>(c)) != 0;
}

std::vector<Token> Tokens(const std::string& pattern)
{
    std::vector<Token> tokens;
    std::size_t begin = 0;
    while (begin != pattern.size()) {
        const auto end =
            std::find_if_not(pattern.begin() + static_cast<std::ptrdiff_t>(begin), pattern.end(), IsCapital);
        const std::size_t length = static_cast<std::size_t>(end - pattern.begin()) - begin;
        if (length >= 2) {
            tokens.push_back({true, pattern.substr(begin, length)});
        } else {
            if (tokens.empty() || tokens.back().isPlaceholder) {
                tokens.push_back({false, ""});
            }
            tokens.back().text += pattern.substr(begin, std::max<std::size_t>(length, 1));
        }
        begin += std::max<std::size_t>(length, 1);
    }
    return tokens;
}

bool IsInteger(const std::string& text)
{
    return !text.empty() && IsAll(text, std::isdigit);
}

// "ERRNO, TEXT"
bool IsError(const std::string& text)
{
    const std::size_t comma = text.find(", ");
    return comma != std::string::npos && IsInteger(text.substr(0, comma)) && comma + 2 < text.size();
}

bool IsWord(const std::string& text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0;
    });
}

bool IsOctal(const std::string& text)
{
    return IsInteger(text) && text.find_first_of("89") == std::string::npos;
}

bool IsHexadecimal(const std::string& text)
{
    return !text.empty() && IsAll(text, std::isxdigit);
}

// Returns the check for what is not a path; nullptr for a path.
bool (*CheckOf(const std::string& placeholder))(const std::string&)
{
    static const std::map<std::string, bool (*)(const std::string&)> checks = {
        {"ASKED", IsInteger},
        {"CALL", IsWord},
        {"DELIMITER", [](const std::string& text) { return !text.empty() && text.size() <= 4; }},
        {"ERRNO", IsInteger},
        {"ERROR", IsError},
        {"FUNCTION", IsWord},
        {"HAVE", IsInteger},
        {"LENGTH", IsInteger},
        {"MODE", IsOctal},
        {"NUMBER", IsInteger},
        {"OFFSET", IsInteger},
        {"PID", IsInteger},
        {"TEXT", [](const std::string& text) { return !text.empty(); }},
        {"TYPE", IsHexadecimal},
        {"WANT", IsInteger},
        {"WRITTEN", IsInteger},
    };
    const auto found = checks.find(placeholder);
    return found == checks.end() ? nullptr : found->second;
}

// Reads a text from both ends.
class Reader {
public:
    explicit Reader(const std::string& text) : text_(text), begin_(0), end_(text.size())
    {
    }

    // Not after SkipBack() and TakeBack().
    bool Skip(const std::string& literal)
    {
        if (text_.compare(begin_, literal.size(), literal) != 0) {
            return false;
        }
        begin_ += literal.size();
        return true;
    }

    bool SkipBack(const std::string& literal)
    {
        if (end_ - begin_ < literal.size() || text_.compare(end_ - literal.size(), literal.size(), literal) != 0) {
            return false;
        }
        end_ -= literal.size();
        return true;
    }

    // Takes what is before the first `literal`, or, if that is empty, the rest.
    std::string Take(const std::string& literal)
    {
        const std::size_t found = literal.empty() ? end_ : std::min(text_.find(literal, begin_), end_);
        std::string taken = text_.substr(begin_, found - begin_);
        begin_ = found;
        return taken;
    }

    // Takes what is after the last `literal`.
    std::string TakeBack(const std::string& literal)
    {
        const std::string rest = Rest();
        const std::size_t found = rest.rfind(literal);
        const std::size_t length = found == std::string::npos ? rest.size() : rest.size() - found - literal.size();
        end_ -= length;
        return rest.substr(rest.size() - length);
    }

    std::string Rest() const
    {
        return text_.substr(begin_, end_ - begin_);
    }

private:
    const std::string& text_;
    std::size_t begin_;
    std::size_t end_;
};

bool Store(const std::string& placeholder, const std::string& value, Values& values)
{
    values[placeholder] = value;
    return CheckOf(placeholder)(value);
}

bool IsPathToken(const Token& token)
{
    return token.isPlaceholder && IsPath(token.text);
}

// Reads tokens in front of the first path. A literal ends each placeholder, or the text does.
bool ReadForward(std::vector<Token>::const_iterator token, std::vector<Token>::const_iterator end, Reader& reader,
                 Values& values)
{
    for (; token != end; ++token) {
        const std::string next = token + 1 != end ? (token + 1)->text : "";
        if (!(token->isPlaceholder ? Store(token->text, reader.Take(next), values) : reader.Skip(token->text))) {
            return false;
        }
    }
    return true;
}

// Reads tokens after the last path, from the end.
bool ReadBackward(std::vector<Token>::const_reverse_iterator token,
                  const std::vector<Token>::const_reverse_iterator& end, Reader& reader, Values& values)
{
    for (; token != end; ++token) {
        if (!(token->isPlaceholder ? Store(token->text, reader.TakeBack((token + 1)->text), values)
                                   : reader.SkipBack(token->text))) {
            return false;
        }
    }
    return true;
}

std::vector<Values> Split(const std::string& paths, const Token& first, const std::string& separator,
                          const Token& second, const Values& others)
{
    std::vector<Values> ways;
    for (std::size_t at = paths.find(separator); at != std::string::npos && ways.size() < kMostSplits;
         at = paths.find(separator, at + 1)) {
        ways.push_back(others);
        ways.back()[first.text] = paths.substr(0, at);
        ways.back()[second.text] = paths.substr(at + separator.size());
    }
    return ways;
}

}  // namespace

bool IsAll(const std::string& text, int (*isClass)(int))
{
    return std::all_of(text.begin(), text.end(), [=](char c) { return isClass(static_cast<unsigned char>(c)) != 0; });
}

bool IsPath(const std::string& placeholder)
{
    return CheckOf(placeholder) == nullptr;
}

std::vector<Values> Match(const std::string& pattern, const std::string& text)
{
    const std::vector<Token> tokens = Tokens(pattern);
    const auto first = std::find_if(tokens.begin(), tokens.end(), IsPathToken);
    const auto last = std::find_if(tokens.rbegin(), tokens.rend(), IsPathToken);
    Reader reader(text);
    Values values;
    if (!ReadForward(tokens.begin(), first, reader, values)) {
        return {};
    }
    if (first == tokens.end()) {
        return reader.Rest().empty() ? std::vector<Values>{values} : std::vector<Values>{};
    }
    if (!ReadBackward(tokens.rbegin(), last, reader, values)) {
        return {};
    }
    if (first + 1 != last.base()) {
        return Split(reader.Rest(), *first, (first + 1)->text, *last, values);
    }
    values[first->text] = reader.Rest();
    return {values};
}

std::string ReplacePlaceholders(const std::string& text,
                                const std::function<std::string(const std::string& placeholder)>& replacement)
{
    std::string replaced;
    for (const Token& token : Tokens(text)) {
        replaced += token.isPlaceholder ? replacement(token.text) : token.text;
    }
    return replaced;
}

}  // namespace explain
