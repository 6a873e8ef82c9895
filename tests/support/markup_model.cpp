#include "support/markup_model.h"

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace markup_model {

namespace {

const char kReplacement[] = "\xEF\xBF\xBD";

void Require(bool holds, const char* claim)
{
    if (!holds) {
        throw std::runtime_error(claim);
    }
}

// Reads pieces from the front of a text.
class Reader {
public:
    explicit Reader(const std::string& text) : text_(text)
    {
    }

    bool IsAtEnd() const
    {
        return at_ == text_.size();
    }

    bool Take(std::string_view piece)
    {
        const bool found = text_.compare(at_, piece.size(), piece) == 0;
        at_ += found ? piece.size() : 0;
        return found;
    }

    bool TakeComment()
    {
        if (!Take("<!--")) {
            return false;
        }
        const std::size_t end = text_.find("-->", at_);
        Require(end != std::string::npos, "a comment ends");
        at_ = end + 3;
        return true;
    }

    std::string TakeCharacter()
    {
        Require(!IsAtEnd(), "the cell ends");
        const char c = text_[at_++];
        if (c == '&') {
            return TakeReference();
        }
        Require(static_cast<unsigned char>(c) >= ' ' && c != '\x7F', "control characters are references");
        Require(std::string_view("<>\"';,:").find(c) == std::string::npos, "special characters are references");
        return std::string(1, c);
    }

private:
    std::string TakeReference()
    {
        Require(Take("#"), "references are numeric");
        const std::size_t end = text_.find_first_not_of("0123456789", at_);
        Require(end != std::string::npos && end != at_ && end - at_ <= 3, "a reference has one to three digits");
        const int number = std::stoi(text_.substr(at_, end - at_));
        Require(number > 0 && number < 128, "a reference is of ASCII");
        Require(text_[end] != ';', "a reference has no semicolon");
        at_ = end;
        return std::string(1, static_cast<char>(number));
    }

    const std::string& text_;
    std::size_t at_ = 0;
};

std::string CellText(Reader& reader)
{
    std::string text;
    while (!reader.Take("</td>")) {
        if (!reader.TakeComment()) {
            text += reader.TakeCharacter();
        }
    }
    return text;
}

std::vector<std::string> Cells(Reader& reader)
{
    std::vector<std::string> cells;
    while (!reader.Take("</tr>")) {
        if (reader.Take("<td>")) {
            cells.push_back(CellText(reader));
        } else {
            // A parser ignores the end tag of a cell where no cell is open.
            Require(reader.TakeComment() || reader.Take("</td>"), "a row has cells");
        }
    }
    return cells;
}

// The sequences of several bytes in UTF-8: the limits of each byte (table 3-7 of the Unicode standard).
const std::vector<std::vector<std::string>> kSequences = {
    {"\xC2\xDF", "\x80\xBF"},
    {"\xE0\xE0", "\xA0\xBF", "\x80\xBF"},
    {"\xE1\xEC", "\x80\xBF", "\x80\xBF"},
    {"\xED\xED", "\x80\x9F", "\x80\xBF"},
    {"\xEE\xEF", "\x80\xBF", "\x80\xBF"},
    {"\xF0\xF0", "\x90\xBF", "\x80\xBF", "\x80\xBF"},
    {"\xF1\xF3", "\x80\xBF", "\x80\xBF", "\x80\xBF"},
    {"\xF4\xF4", "\x80\x8F", "\x80\xBF", "\x80\xBF"},
};

// How many bytes at the front of `bytes` fit the sequence.
std::size_t Fitting(const std::string& bytes, const std::vector<std::string>& sequence)
{
    const auto fits = [](const std::string& limits, char byte) {
        return static_cast<unsigned char>(byte) >= static_cast<unsigned char>(limits[0]) &&
               static_cast<unsigned char>(byte) <= static_cast<unsigned char>(limits[1]);
    };
    std::size_t count = 0;
    while (count < std::min(bytes.size(), sequence.size()) && fits(sequence[count], bytes[count])) {
        ++count;
    }
    return count;
}

}  // namespace

std::vector<std::vector<std::string>> Rows(const std::string& table)
{
    Reader reader(table);
    std::vector<std::vector<std::string>> rows;
    Require(reader.Take("<table  BORDER=2>"), "a table begins");
    while (!reader.Take("</table>")) {
        Require(reader.Take("<tr>"), "a table has rows");
        rows.push_back(Cells(reader));
    }
    Require(reader.IsAtEnd(), "nothing follows the table");
    return rows;
}

std::string Decoded(const std::string& bytes)
{
    std::string text;
    std::size_t at = 0;
    while (at != bytes.size()) {
        const char first = bytes[at];
        if (static_cast<unsigned char>(first) < 0x80) {
            text += first == '\0' ? kReplacement : std::string(1, first);
            ++at;
            continue;
        }
        const std::string rest = bytes.substr(at, 4);
        std::size_t taken = 1;
        bool whole = false;
        for (const std::vector<std::string>& sequence : kSequences) {
            const std::size_t fitting = Fitting(rest, sequence);
            taken = std::max(taken, fitting);
            whole = whole || fitting == sequence.size();
        }
        text += whole ? rest.substr(0, taken) : kReplacement;
        at += taken;
    }
    return text;
}

}  // namespace markup_model
