// ReadSettings, CheckSettings, WriteSettings and RemoveSettings.

#include "internal.h"
#include "safe.h"
#include "utf8.h"

#include "LxStringUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>
#include <utility>

namespace orv_safe {

using internal::Descriptor;
using internal::Report;
using internal::Uninterrupted;

namespace {

const char kReadSettings[] = "ReadSettings";
const char kCheckSettings[] = "CheckSettings";

typedef std::map<std::string, std::string> Settings;

// ---- Lines

// A part of a text.
struct Span {
    std::size_t begin;
    std::size_t end;

    bool IsEmpty() const
    {
        return begin == end;
    }
};

std::string TextOf(const std::string& text, Span span)
{
    return text.substr(span.begin, span.end - span.begin);
}

bool IsWhiteSpace(char byte)
{
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

Span Trimmed(const std::string& text, Span span)
{
    while (!span.IsEmpty() && IsWhiteSpace(text[span.begin])) {
        ++span.begin;
    }
    while (!span.IsEmpty() && IsWhiteSpace(text[span.end - 1])) {
        --span.end;
    }
    return span;
}

// A line of a file of settings.
struct Line {
    Span all;  // without the line feed
    Span trimmed;
    bool isEntry;       // neither empty nor a comment
    bool hasDelimiter;  // for an entry, as what follows
    Span name;
    Span value;  // without a delimiter: empty, after the name
};

// The lines of a text, by the rules of ReadNameValueFromFile.
class Lines {
public:
    Lines(const std::string& text, char delimiter, const std::string& comment)
        : text_(text), delimiter_(delimiter), comment_(comment), next_(0)
    {
    }

    // Finds the next line. False at the end of the text.
    bool Next(Line& line)
    {
        if (next_ == text_.size()) {
            return false;
        }
        line = Line();
        line.all.begin = next_;
        line.all.end = EndOf(next_, text_.size(), '\n');
        next_ = line.all.end + (line.all.end == text_.size() ? 0 : 1);
        line.trimmed = Trimmed(text_, line.all);
        line.isEntry = !line.trimmed.IsEmpty() && !IsComment(line.trimmed);
        if (line.isEntry) {
            SplitEntry(line);
        }
        return true;
    }

private:
    // The place of the first `byte` from `begin` on, or `end`.
    std::size_t EndOf(std::size_t begin, std::size_t end, char byte) const
    {
        while (begin != end && text_[begin] != byte) {
            ++begin;
        }
        return begin;
    }

    bool IsComment(Span span) const
    {
        return !comment_.empty() && comment_.size() <= span.end - span.begin &&
               text_.compare(span.begin, comment_.size(), comment_) == 0;
    }

    void SplitEntry(Line& line) const
    {
        const std::size_t end = line.trimmed.end;
        const std::size_t nameEnd = EndOf(line.trimmed.begin, end, delimiter_);
        line.hasDelimiter = nameEnd != end;
        line.name = Trimmed(text_, Span{line.trimmed.begin, nameEnd});
        line.value = Trimmed(text_, Span{nameEnd + (line.hasDelimiter ? 1 : 0), end});
    }

    const std::string& text_;
    char delimiter_;
    const std::string& comment_;
    std::size_t next_;
};

void AddEntries(const std::string& text, char delimiter, const std::string& comment, Settings& settings)
{
    Lines lines(text, delimiter, comment);
    for (Line line; lines.Next(line);) {
        if (line.isEntry) {
            settings[TextOf(text, line.name)] = TextOf(text, line.value);
        }
    }
}

// ---- Files

bool ReadToEnd(const char* function, int file, const std::string& path, std::string& text)
{
    char block[4096];
    for (;;) {
        const ssize_t got = Uninterrupted([&] { return read(file, block, sizeof block); });
        if (got == -1) {
            Report(function, "read", path, errno);
            return false;
        }
        if (got == 0) {
            return true;
        }
        text.append(block, static_cast<std::size_t>(got));
    }
}

// ReadNameValueFromFile takes a directory and a read error for the end of the file.
bool ReadFile(const char* function, const std::string& path, std::string& text)
{
    const Descriptor file(Uninterrupted([&] { return open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (file == -1) {
        Report(function, "open", path, errno);
        return false;
    }
    return ReadToEnd(function, file, path, text);
}

// Does `work`, which returns whether it succeeded. Lack of memory is a failure.
template <typename Work>
bool WithinMemory(const char* function, const std::string& path, Work work)
{
    try {
        return work();
    } catch (const std::bad_alloc&) {
        Report(function, "new", path, ENOMEM);
        return false;
    }
}

}  // namespace

bool ReadSettings(const std::string& path, Settings& settings, char delimiter, const std::string& comment)
{
    return WithinMemory(kReadSettings, path, [&] {
        std::string text;
        if (!ReadFile(kReadSettings, path, text)) {
            return false;
        }
        Settings whole(settings);
        AddEntries(text, delimiter, comment, whole);
        settings.swap(whole);
        return true;
    });
}

// ---- CheckSettings

namespace {

bool IsControlCharacter(char byte)
{
    const unsigned char code = static_cast<unsigned char>(byte);
    return (code < 0x20 && byte != '\t') || code == 0x7F;
}

bool IsUtf8(const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        bool isWhole = static_cast<unsigned char>(text[at]) < 0x80;
        at = isWhole ? at + 1 : internal::EndOfCharacter(text, at, isWhole);
        if (!isWhole) {
            return false;
        }
    }
    return true;
}

// Looks at one line after the other.
class Checker {
public:
    Checker(const std::string& comment, std::vector<SettingsFinding>& findings)
        : comment_(comment), findings_(findings), number_(0)
    {
    }

    void Check(const std::string& text, const Line& line)
    {
        ++number_;
        CheckBytes(TextOf(text, line.all), TextOf(text, line.trimmed));
        if (line.isEntry) {
            CheckEntry(text, line);
        }
    }

private:
    void Find(SettingsFinding::Kind kind, const std::string& text, long firstLine = 0)
    {
        SettingsFinding finding;
        finding.kind = kind;
        finding.line = number_;
        finding.text = text;
        finding.firstLine = firstLine;
        findings_.push_back(finding);
    }

    void CheckBytes(const std::string& whole, const std::string& trimmed)
    {
        if (number_ == 1 && LxStringUtils::StartsWith(whole, "\xEF\xBB\xBF")) {
            Find(SettingsFinding::kByteOrderMark, whole);
        }
        if (!IsUtf8(whole)) {
            Find(SettingsFinding::kNotUtf8, trimmed);
        }
        const std::string::const_iterator control = std::find_if(trimmed.begin(), trimmed.end(), IsControlCharacter);
        if (control != trimmed.end()) {
            Find(SettingsFinding::kControlCharacter, std::string(1, *control));
        }
    }

    void CheckEntry(const std::string& text, const Line& line)
    {
        const std::string name = TextOf(text, line.name);
        if (text[line.trimmed.begin] == '[' && text[line.trimmed.end - 1] == ']') {
            Find(SettingsFinding::kSection, TextOf(text, line.trimmed));
        } else if (!line.hasDelimiter) {
            Find(SettingsFinding::kNoDelimiter, name);
        } else if (name.empty()) {
            Find(SettingsFinding::kEmptyName, TextOf(text, line.trimmed));
        }
        const std::pair<std::map<std::string, long>::iterator, bool> first =
            firstLine_.insert(std::make_pair(name, number_));
        if (!first.second) {
            Find(SettingsFinding::kDuplicateName, name, first.first->second);
        }
        CheckValue(TextOf(text, line.value));
    }

    void CheckValue(const std::string& value)
    {
        if (value.size() > 1 && value[0] == value[value.size() - 1] && (value[0] == '"' || value[0] == '\'')) {
            Find(SettingsFinding::kQuotes, value);
        }
        const std::size_t comment = comment_.empty() ? std::string::npos : CommentIn(value);
        if (comment != std::string::npos) {
            Find(SettingsFinding::kTrailingComment, value.substr(comment));
        }
    }

    // The place of the first comment prefix after white space.
    std::size_t CommentIn(const std::string& value) const
    {
        std::size_t at = value.find(comment_, 1);
        while (at != std::string::npos && !IsWhiteSpace(value[at - 1])) {
            at = value.find(comment_, at + 1);
        }
        return at;
    }

    const std::string& comment_;
    std::vector<SettingsFinding>& findings_;
    long number_;
    std::map<std::string, long> firstLine_;
};

}  // namespace

bool CheckSettings(const std::string& path, std::vector<SettingsFinding>& findings, char delimiter,
                   const std::string& comment)
{
    return WithinMemory(kCheckSettings, path, [&] {
        std::string text;
        if (!ReadFile(kCheckSettings, path, text)) {
            return false;
        }
        std::vector<SettingsFinding> found;
        Checker checker(comment, found);
        Lines lines(text, delimiter, comment);
        for (Line line; lines.Next(line);) {
            checker.Check(text, line);
        }
        findings.swap(found);
        return true;
    });
}

const char* SettingsFindingText(SettingsFinding::Kind kind)
{
    switch (kind) {
        case SettingsFinding::kByteOrderMark:
            return "byte-order mark, which becomes part of the line: save the file without it";
        case SettingsFinding::kNotUtf8:
            return "not UTF-8: save the file in UTF-8";
        case SettingsFinding::kControlCharacter:
            return "control character: remove it";
        case SettingsFinding::kSection:
            return "looks like a section, but there are none: the names below are shared by the whole file";
        case SettingsFinding::kNoDelimiter:
            return "no delimiter, so the line is a name with an empty value: add the delimiter, or make the line a "
                   "comment";
        case SettingsFinding::kEmptyName:
            return "empty name: write a name before the delimiter";
        case SettingsFinding::kDuplicateName:
            return "duplicate name, of which the last one counts: remove the others";
        case SettingsFinding::kQuotes:
            return "quotes, which become part of the value: remove them";
        case SettingsFinding::kTrailingComment:
            return "comment after a value, which becomes part of it: give it a line of its own";
    }
    return "";
}

}  // namespace orv_safe
