// Cells and rows of text table files.

#include "safe.h"

#include "LxFileUtils.h"
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace orv_safe {

namespace {

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD
const char kEmptyMarkup[] = "<!---->";       // an empty comment: markup that shows nothing

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Whether the library's separators, the parser of HTML or both give the character a meaning. NUL is not among them.
bool IsSpecial(unsigned char c)
{
    return (c > 0 && c < ' ') || c == 0x7F || (c != '\0' && std::strchr("&<>\"';,:", c) != nullptr);
}

// The semicolon of a reference would end the row. Parsers of HTML do without it: the digits end at the first other
// character.
void AddReference(std::string& markup, unsigned char c)
{
    markup += "&#" + std::to_string(static_cast<unsigned int>(c));
}

// The bytes that may follow the first byte of a character in UTF-8: how many, and the limits of the first of them,
// which exclude overlong forms, surrogates and numbers above U+10FFFF.
struct Tail {
    std::size_t bytes;
    unsigned char least;
    unsigned char most;
};

// `bytes` is 0 for a byte that begins no character of several bytes.
Tail TailOf(unsigned char first)
{
    if (first < 0xC2 || first > 0xF4) {
        return Tail{0, 0, 0};
    }
    if (first < 0xE0) {
        return Tail{1, 0x80, 0xBF};
    }
    const unsigned char least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    return Tail{first < 0xF0 ? 2U : 3U, least, most};
}

// Adds the character of several bytes that begins at `at`, or U+FFFD for as many bytes as could begin one. Returns the
// position after it.
std::size_t AddCharacter(std::string& markup, const std::string& text, std::size_t at)
{
    const Tail tail = TailOf(static_cast<unsigned char>(text[at]));
    unsigned char least = tail.least;
    unsigned char most = tail.most;
    std::size_t end = at + 1;
    while (end <= at + tail.bytes && end < text.size() && static_cast<unsigned char>(text[end]) >= least &&
           static_cast<unsigned char>(text[end]) <= most) {
        ++end;
        least = 0x80;
        most = 0xBF;
    }
    const bool isWhole = tail.bytes != 0 && end == at + tail.bytes + 1;
    markup += isWhole ? text.substr(at, end - at) : kReplacement;
    return end;
}

bool IsAlphanumeric(char c)
{
    return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Whether the markup ends in a reference without its semicolon, which a letter or digit after it could continue.
bool EndsInReference(const std::string& markup)
{
    std::size_t end = markup.size();
    while (end != 0 && (IsAlphanumeric(markup[end - 1]) || markup[end - 1] == '#')) {
        --end;
    }
    return end != 0 && markup[end - 1] == '&';
}

void AddText(std::string& markup, const std::string& text)
{
    std::size_t at = 0;
    if (!text.empty() && IsAlphanumeric(text[0]) && EndsInReference(markup)) {
        AddReference(markup, static_cast<unsigned char>(text[at++]));
    }
    bool referred = at != 0;
    while (at != text.size()) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        referred = IsSpecial(c) || (referred && IsDigit(text[at]));
        if (referred) {
            AddReference(markup, c);
            ++at;
        } else if (c != '\0' && c < 0x80) {
            markup += text[at++];
        } else {
            at = AddCharacter(markup, text, at);
        }
    }
}

// Gives rows of one cell, and rows whose last cell is empty, the shape that the page keeps.
std::string Row(std::vector<std::string> cells)
{
    if (cells.size() == 1) {
        // The page has at least two cells in each row. A comment swallows the tags of the second one.
        cells[0] += "</td><!--";
        cells.push_back("-->");
    } else if (cells.size() > 2 && cells.back().empty()) {
        cells.back() = kEmptyMarkup;
    }
    return orv_fileutils::AddTextFileFormattedRow(cells);
}

}  // namespace

std::string SafeCell(const std::string& text)
{
    std::string markup;
    markup.reserve(text.size());
    AddText(markup, text);
    return markup;
}

std::string SafeRow(const std::vector<std::string>& cells)
{
    std::vector<std::string> safe(cells.size());
    std::transform(cells.begin(), cells.end(), safe.begin(), SafeCell);
    return Row(safe);
}

Cell::Cell()
{
}

Cell::Cell(const std::string& text)
{
    AddText(markup_, text);
}

Cell::Cell(const char* text)
{
    AddText(markup_, text);
}

Cell& Cell::Text(const std::string& text)
{
    AddText(markup_, text);
    return *this;
}

Cell& Cell::Markup(const std::string& markup)
{
    std::size_t at = 0;
    for (bool referred = EndsInReference(markup_); referred && at != markup.size() && IsDigit(markup[at]); ++at) {
        AddReference(markup_, static_cast<unsigned char>(markup[at]));
    }
    markup_.append(markup, at, std::string::npos);
    return *this;
}

std::string SafeMarkupRow(const std::vector<Cell>& cells)
{
    std::vector<std::string> safe;
    for (const Cell& cell : cells) {
        const std::string& markup = cell.markup_;
        const bool fits = markup.find_first_of(safe.empty() ? "\n;:" : "\n;,") == std::string::npos;
        if (!fits) {
            internal::Report("SafeMarkupRow", "Markup", markup, EINVAL);
        }
        safe.push_back(fits ? markup : std::string());
    }
    return Row(safe);
}

}  // namespace orv_safe
