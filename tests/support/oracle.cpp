#include "support/oracle.h"

#include "support/messages.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace messages {

Report Message::With(std::vector<std::string> arguments) const
{
    arguments.insert(arguments.begin(), function);
    std::string text;
    std::size_t used = 0;
    for (const char* at = format; *at != '\0'; ++at) {
        if (*at != '%') {
            text += *at;
            continue;
        }
        while (std::string("sioxudc").find(*at) == std::string::npos) {
            ++at;
        }
        text += arguments.at(used++);
    }
    if (used != arguments.size()) {
        std::abort();  // the test passes too many arguments
    }
    return {format, text};
}

bool IsLike(const std::string& expected, const std::string& text)
{
    bool isLike = expected.size() == text.size();
    for (std::size_t at = 0; isLike && at < text.size(); ++at) {
        const bool isAny = expected[at] == '?' && std::isalnum(static_cast<unsigned char>(text[at])) != 0;
        isLike = isAny || expected[at] == text[at];
    }
    return isLike;
}

}  // namespace messages

namespace oracle {

namespace {

// Removes and returns the bytes before the first `end`, and removes that `end`. Without an `end`, takes all bytes.
std::string TakeUpTo(char end, std::string& bytes)
{
    const std::size_t at = bytes.find(end);
    const std::string taken = bytes.substr(0, at);
    bytes.erase(0, at == std::string::npos ? at : at + 1);
    return taken;
}

// Returns the lines of a file. No line begins after a final line feed.
std::vector<std::string> Lines(const std::string& bytes)
{
    return bytes.empty() ? std::vector<std::string>() : Pieces(bytes, '\n');
}

std::string Cell(const std::string& text)
{
    return "<td>" + text + "</td>";
}

}  // namespace

// Each delimiter ends a piece. The end of the text ends one too, unless the last byte is a delimiter.
std::vector<std::string> Pieces(const std::string& text, char delimiter)
{
    std::vector<std::string> pieces(1);
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != delimiter) {
            pieces.back() += text[at];
        } else if (at + 1 < text.size()) {
            pieces.emplace_back();
        }
    }
    return pieces;
}

bool IsWhiteSpace(char byte)
{
    return std::string(" \t\n\v\f\r").find(byte) != std::string::npos;
}

std::string Trimmed(const std::string& text)
{
    const std::string whiteSpace = " \t\n\v\f\r";
    const std::size_t first = text.find_first_not_of(whiteSpace);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(whiteSpace) + 1 - first);
}

// Keeps, for each byte of the pattern, the positions of the text that it can have reached.
bool Matches(const std::string& text, const std::string& pattern)
{
    std::vector<bool> reached(text.size() + 1, false);
    reached[0] = true;
    for (const char wanted : pattern) {
        std::vector<bool> next(text.size() + 1, false);
        for (std::size_t at = 0; at <= text.size(); ++at) {
            if (wanted == '*') {
                next[at] = reached[at] || (at > 0 && next[at - 1]);
            } else {
                next[at] = at > 0 && reached[at - 1] && (wanted == '?' || wanted == text[at - 1]);
            }
        }
        reached = next;
    }
    return reached[text.size()];
}

std::string Row(const std::vector<std::string>& cells)
{
    if (cells.empty()) {
        return "";
    }
    std::string further;
    for (std::size_t i = 1; i < cells.size(); ++i) {
        further += cells[i] + ",";
    }
    if (!further.empty()) {
        further.back() = ';';
    }
    return cells.front() + ":" + further;
}

const char kPageHeader[] =
    R"(<KPX_PLD ua="none" ln="1" schema="1" source="Tarnwick" destination="HTML" version="1" tagNestLevel="1"> )"
    R"(<!DOCTYPE HTML PUBLIC "-//W3C//DTD HTML 4.01 Frameset//EN" "http://www.w3.org/TR/html4/frameset.dtd">)"
    R"(<html><head><meta content="text/html; charset=utf-8" http-equiv="Content-Type" >)"
    R"(<meta http-equiv="refresh" content="10" > </head><body>)";
const char kPageFooter[] = "</body></html></KPX_PLD>";

// A row without a colon is shown twice: as its head cell and as the other cells.
std::string TableMarkup(const std::string& line)
{
    std::string table = "<table  BORDER=2>";
    for (const std::string& row : Pieces(line, ';')) {
        std::string rest = row;
        const std::string head = TakeUpTo(':', rest);
        table += "<tr>" + Cell(head);
        for (const std::string& cell : Pieces(head == row ? row : rest, ',')) {
            table += Cell(cell);
        }
        table += "</tr>";
    }
    return table + "</table>";
}

std::string Page(const std::string& tableFile)
{
    std::string page = kPageHeader;
    for (const std::string& line : Lines(tableFile)) {
        page += line.empty() ? "<p></p>" : TableMarkup(line);
    }
    return page + kPageFooter;
}

NameValues Read(const std::string& bytes, char delimiter, const std::string& commentPrefix, NameValues before)
{
    for (const std::string& line : Lines(bytes)) {
        std::string value = Trimmed(line);
        const bool isComment = !commentPrefix.empty() && value.find(commentPrefix) == 0;
        if (!value.empty() && !isComment) {
            const std::string name = Trimmed(TakeUpTo(delimiter, value));
            before[name] = Trimmed(value);
        }
    }
    return before;
}

namespace {

// The lines of a file with their line feeds.
std::vector<std::string> WholeLines(const std::string& bytes)
{
    std::vector<std::string> lines = Lines(bytes);
    for (std::string& line : lines) {
        line += '\n';
    }
    if (!bytes.empty() && bytes.back() != '\n') {
        lines.back().pop_back();
    }
    return lines;
}

// The line of an entry with another value.
std::string WithValue(const std::string& line, char delimiter, const std::string& value)
{
    const std::string entry = Trimmed(line);
    const std::size_t end = line.find(entry) + entry.size();
    const std::size_t split = entry.find(delimiter);
    if (split == std::string::npos) {
        return value.empty() ? line : line.substr(0, end) + delimiter + value + line.substr(end);
    }
    const std::string old = Trimmed(entry.substr(split + 1));
    std::string head = line.substr(0, end - old.size());
    std::string tail = line.substr(end);
    while (old.empty() && !tail.empty() && (tail[0] == ' ' || tail[0] == '\t')) {
        head += tail[0];
        tail.erase(0, 1);
    }
    return head + value + tail;
}

}  // namespace

std::string Changed(const std::string& bytes, char delimiter, const std::string& commentPrefix,
                    const NameValues& changes)
{
    const std::string end = bytes.substr(0, bytes.find('\n') + 1);
    const bool crLf = end.size() > 1 && end.size() <= bytes.size() && end.substr(end.size() - 2) == "\r\n";
    std::vector<std::string> lines = WholeLines(bytes);
    for (const auto& [name, value] : changes) {
        std::string* last = nullptr;
        for (std::string& line : lines) {
            if (Read(line, delimiter, commentPrefix, {}).count(name) != 0) {
                last = &line;
            }
        }
        if (last == nullptr) {
            continue;
        }
        if (Read(*last, delimiter, commentPrefix, {})[name] != value) {
            *last = WithValue(*last, delimiter, value);
        }
    }
    std::string changed;
    for (const std::string& line : lines) {
        changed += line;
    }
    const NameValues before = Read(bytes, delimiter, commentPrefix, {});
    for (const auto& [name, value] : changes) {
        if (before.count(name) == 0) {
            const std::string lineEnd = crLf ? "\r\n" : "\n";
            changed += (changed.empty() || changed.back() == '\n' ? "" : lineEnd) + name + delimiter + value + lineEnd;
        }
    }
    return changed;
}

std::string Without(const std::string& bytes, char delimiter, const std::string& commentPrefix,
                    const std::vector<std::string>& names)
{
    std::string rest;
    for (const std::string& line : WholeLines(bytes)) {
        const NameValues entry = Read(line, delimiter, commentPrefix, {});
        const bool isRemoved =
            !entry.empty() && std::find(names.begin(), names.end(), entry.begin()->first) != names.end();
        rest += isRemoved ? "" : line;
    }
    return rest;
}

std::string TemporaryPage(pid_t process)
{
    return "/var/tmp/TextToHtml_" + std::to_string(process) + ".tmp";
}

std::string OwnTemporaryPage()
{
    return TemporaryPage(getpid());
}

bool IsTemporaryCopy(const std::string& path, const std::string& destination)
{
    return messages::IsLike(destination + messages::kAnySuffix, path);
}

}  // namespace oracle
