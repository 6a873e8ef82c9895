// Cells and rows of text table files.

#include "safe.h"

#include "LxFileUtils.h"
#include "internal.h"
#include "utf8.h"

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
    static const char kMarks[] = {'&', '<', '>', '"', '\'', ';', ',', ':'};
    return (c > 0 && c < ' ') || c == 0x7F || std::memchr(kMarks, c, sizeof kMarks) != nullptr;
}

// The semicolon of a reference would end the row. Parsers of HTML do without it: the digits end at the first other
// character.
void AddReference(std::string& markup, unsigned char c)
{
    markup += "&#" + std::to_string(static_cast<unsigned int>(c));
}

// Adds the character of several bytes that begins at `at`, or U+FFFD for as many bytes as could begin one. Returns the
// position after it.
std::size_t AddCharacter(std::string& markup, const std::string& text, std::size_t at)
{
    bool isWhole;
    const std::size_t end = internal::EndOfCharacter(text, at, isWhole);
    markup += isWhole ? text.substr(at, end - at) : kReplacement;
    return end;
}

bool IsAlphanumeric(char c)
{
    return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsOfReference(char c)
{
    return IsAlphanumeric(c) || c == '#';
}

// Whether the markup ends in a reference without its semicolon, which a letter or digit after it could continue.
bool EndsInReference(const std::string& markup)
{
    const auto before = std::find_if_not(markup.rbegin(), markup.rend(), IsOfReference);
    return before != markup.rend() && *before == '&';
}

void AddText(std::string& markup, const std::string& text)
{
    std::size_t at = 0;
    if (IsAlphanumeric(text[0]) && EndsInReference(markup)) {  // NUL if the text is empty
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
    // The NUL at the end of the markup is not a digit.
    for (const bool referred = EndsInReference(markup_); referred && IsDigit(markup[at]); ++at) {
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
