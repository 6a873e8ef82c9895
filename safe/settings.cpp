// ReadSettings, CheckSettings, WriteSettings and RemoveSettings.

#include "internal.h"
#include "safe.h"
#include "staged_file.h"
#include "utf8.h"

#include "LxStringUtils.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <set>
#include <utility>

namespace orv_safe {

using internal::Descriptor;
using internal::Place;
using internal::Report;
using internal::StagedFile;
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
    std::size_t next;  // where the next line begins
    Span all;          // without the line feed
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
        line.next = line.all.end + (line.all.end == text_.size() ? 0 : 1);
        next_ = line.next;
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
    for (std::size_t at = 0; at != text.size();) {
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
        if (value.size() > 1 && value[0] == value.back() && (value[0] == '"' || value[0] == '\'')) {
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
        std::size_t at = 0;
        do {
            at = value.find(comment_, at + 1);
        } while (at != std::string::npos && !IsWhiteSpace(value[at - 1]));
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

// ---- WriteSettings and RemoveSettings

namespace {

const char kWriteSettings[] = "WriteSettings";
const char kRemoveSettings[] = "RemoveSettings";
const int kMostLinks = 40;  // as the kernel
const mode_t kPermissionBits = 0777;
const mode_t kNewFile = 0666;        // the kernel subtracts the process's mask
const mode_t kUntilTakeOver = 0600;  // nobody else may read a staged file of which the permissions are not set yet

// The path that the symbolic link `place` leads to. False if `place` is not a link; then errno says why.
bool ReadLink(const Place& place, std::string& target)
{
    char buffer[PATH_MAX];
    const ssize_t bytes =
        Uninterrupted([&] { return readlinkat(place.Directory(), place.Name(), buffer, sizeof buffer); });
    if (bytes == -1) {
        return false;
    }
    target.assign(buffer, static_cast<std::size_t>(bytes));
    if (target[0] != '/') {
        target.insert(0, place.DirectoryPath());
    }
    return true;
}

// The place of the file that `path` leads to, through any links; null after a failure.
std::unique_ptr<Place> FindPlace(const char* function, const std::string& path, bool durable)
{
    std::string target = path;
    for (int links = 0; links <= kMostLinks; ++links) {
        std::unique_ptr<Place> place(new Place(function, target, durable));
        if (!place->IsOpen()) {
            return nullptr;
        }
        if (!ReadLink(*place, target)) {
            if (errno == EINVAL || errno == ENOENT) {  // not a link; nothing there
                return place;
            }
            (void)place->Failed("readlinkat");
            return nullptr;
        }
    }
    Report(function, "readlinkat", path, ELOOP);
    return nullptr;
}

// A file of settings that is read, changed in memory and replaced.
class SettingsFile {
public:
    SettingsFile(const char* function, const std::string& path, bool durable)
        : function_(function), path_(path), durable_(durable), file_(-1), status_()
    {
    }

    // Reads the file into `text`. If it is missing and `mayBeMissing` is true, the text stays empty.
    bool Read(bool mayBeMissing, std::string& text)
    {
        // O_NONBLOCK: a FIFO is refused below, not waited for.
        Descriptor file(Uninterrupted([&] { return open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
        const bool isMissing = file == -1 && errno == ENOENT && mayBeMissing;
        if (file == -1 && !isMissing) {
            return Failed("open");
        }
        file_.Swap(file);
        place_ = FindPlace(function_, path_, durable_);
        return place_ != nullptr && place_->IsFree(/*noReplace=*/isMissing, status_) &&
               (isMissing || (IsAtPlace() && ReadToEnd(function_, file_, path_, text)));
    }

    // Replaces the text that was read. If nothing changes, only flushes the file, which another program may have
    // written without doing so: on flash memory each write counts.
    bool Update(const std::string& oldText, const std::string& text) const
    {
        return Exists() && text == oldText ? !durable_ || Flush() : Replace(text);
    }

private:
    bool Failed(const char* call) const
    {
        Report(function_, call, path_, errno);
        return false;
    }

    bool Exists() const
    {
        return file_ != -1;
    }

    bool Flush() const
    {
        if (Uninterrupted([this] { return fsync(file_); }) != 0) {
            return Failed("fsync");
        }
        return place_->FlushDirectory();
    }

    bool Replace(const std::string& text) const
    {
        StagedFile staged(*place_, Exists() ? kUntilTakeOver : kNewFile);
        return staged.IsOpen() && staged.Write(text.data(), text.size()) && (!Exists() || TakeOver(staged.File())) &&
               (durable_ ? staged.FlushNamed() : staged.CompleteWrites()) &&
               staged.PutInPlace(/*noReplace=*/!Exists()) && (!durable_ || place_->FlushDirectory());
    }

    // Whether the open file is the one that will be replaced. Its path may lead elsewhere meanwhile.
    bool IsAtPlace() const
    {
        struct stat opened;
        if (fstat(file_, &opened) != 0) {
            return Failed("fstat");
        }
        if (opened.st_dev != status_.st_dev || opened.st_ino != status_.st_ino) {
            errno = ESTALE;
            return Failed("open");
        }
        return true;
    }

    // Gives the new file the owner, the group and the permissions of the old one.
    bool TakeOver(int file) const
    {
        mode_t mode = status_.st_mode & kPermissionBits;
        struct stat own;
        if (fstat(file, &own) != 0) {
            return Failed("fstat");
        }
        if ((own.st_uid != status_.st_uid || own.st_gid != status_.st_gid) &&
            !ChangeOwner(file, status_.st_uid, status_.st_gid)) {
            Report(function_, "fchown", path_, errno, "the new file has another owner or group");
            if (own.st_gid != status_.st_gid && !ChangeOwner(file, own.st_uid, status_.st_gid)) {
                mode = WithoutGroup(mode);
            }
        }
        // On a file system without modes, such as FAT, all files have the same one, and it cannot be changed.
        if ((own.st_mode & kPermissionBits) != mode && Uninterrupted([&] { return fchmod(file, mode); }) != 0) {
            return Failed("fchmod");
        }
        return true;
    }

    static bool ChangeOwner(int file, uid_t owner, gid_t group)
    {
        return Uninterrupted([&] { return fchown(file, owner, group); }) == 0;
    }

    // The permissions for a file of another group: that one may do no more than all others.
    static mode_t WithoutGroup(mode_t mode)
    {
        const mode_t others = mode & S_IRWXO;
        return (mode & S_IRWXU) | (others << 3U) | others;
    }

    const char* function_;
    const std::string& path_;
    bool durable_;
    Descriptor file_;
    std::unique_ptr<Place> place_;
    struct stat status_;
};

// The text with new values. The last line of a name changes, because that is the one that readers take.
class Changer {
public:
    Changer(const std::string& text, const Settings& changes, char delimiter, const std::string& comment)
        : text_(text), changes_(changes), delimiter_(delimiter), comment_(comment), lineEnd_(LineEndOf(text))
    {
    }

    std::string Change()
    {
        FindLastLines();
        std::string changed;
        Lines lines(text_, delimiter_, comment_);
        for (Line line; lines.Next(line);) {
            AddLine(line, changed);
        }
        for (const Settings::value_type& change : changes_) {
            if (lastLines_.count(change.first) == 0) {
                AddEntry(change, changed);
            }
        }
        return changed;
    }

private:
    // New lines end as the first one does.
    static const char* LineEndOf(const std::string& text)
    {
        const std::size_t feed = text.find('\n');
        return feed != std::string::npos && feed != 0 && text[feed - 1] == '\r' ? "\r\n" : "\n";
    }

    void FindLastLines()
    {
        Lines lines(text_, delimiter_, comment_);
        for (Line line; lines.Next(line);) {
            if (line.isEntry) {
                lastLines_[TextOf(text_, line.name)] = line.all.begin;
            }
        }
    }

    void AddLine(const Line& line, std::string& changed) const
    {
        std::size_t from = line.all.begin;
        const std::string* const value = line.isEntry ? NewValue(line) : nullptr;
        if (value != nullptr) {
            const Span old = PlaceOfValue(line);
            changed.append(text_, from, old.begin - from);
            if (!line.hasDelimiter) {
                changed += delimiter_;
            }
            changed += *value;
            from = old.end;
        }
        changed.append(text_, from, line.next - from);
    }

    // The value that the line of an entry gets, or null if it stays as it is.
    const std::string* NewValue(const Line& line) const
    {
        const Settings::const_iterator change = changes_.find(TextOf(text_, line.name));
        const bool changes = change != changes_.end() && lastLines_.at(change->first) == line.all.begin &&
                             change->second != TextOf(text_, line.value);
        return changes ? &change->second : nullptr;
    }

    // A value after a delimiter and blanks keeps the blanks, also if the old one is empty.
    Span PlaceOfValue(const Line& line) const
    {
        Span place = line.value;
        if (place.IsEmpty() && line.hasDelimiter) {
            while (text_[place.end] == ' ' || text_[place.end] == '\t') {  // neither is the line feed or NUL at the end
                ++place.end;
            }
            place.begin = place.end;
        }
        return place;
    }

    void AddEntry(const Settings::value_type& entry, std::string& changed) const
    {
        if (!changed.empty() && changed.back() != '\n') {
            changed += lineEnd_;
        }
        changed.append(entry.first).append(1, delimiter_).append(entry.second).append(lineEnd_);
    }

    const std::string& text_;
    const Settings& changes_;
    char delimiter_;
    const std::string& comment_;
    const char* lineEnd_;
    std::map<std::string, std::size_t> lastLines_;  // where the last line of each name begins
};

// Whether readers of the text get each change back. A line feed or a delimiter in the wrong place would make another
// entry of it. An empty name is a mistake of the caller.
bool ComeBack(const std::string& path, const Settings& changes, const std::string& text, char delimiter,
              const std::string& comment)
{
    Settings read;
    AddEntries(text, delimiter, comment, read);
    for (const Settings::value_type& change : changes) {
        const Settings::const_iterator found = read.find(change.first);
        if (change.first.empty() || found == read.end() || found->second != change.second) {
            Report(kWriteSettings, "set", path + ", " + change.first, EINVAL);
            return false;
        }
    }
    return true;
}

std::string WithoutNames(const std::string& text, const std::set<std::string>& names, char delimiter,
                         const std::string& comment)
{
    std::string rest;
    Lines lines(text, delimiter, comment);
    for (Line line; lines.Next(line);) {
        if (!line.isEntry || names.count(TextOf(text, line.name)) == 0) {
            rest.append(text, line.all.begin, line.next - line.all.begin);
        }
    }
    return rest;
}

}  // namespace

bool WriteSettings(const std::string& path, const Settings& changes, char delimiter, const std::string& comment,
                   const SettingsOptions& options)
{
    return WithinMemory(kWriteSettings, path, [&] {
        SettingsFile file(kWriteSettings, path, options.durable);
        std::string text;
        if (!file.Read(/*mayBeMissing=*/true, text)) {
            return false;
        }
        const std::string changed = Changer(text, changes, delimiter, comment).Change();
        return ComeBack(path, changes, changed, delimiter, comment) && file.Update(text, changed);
    });
}

bool RemoveSettings(const std::string& path, const std::vector<std::string>& names, char delimiter,
                    const std::string& comment, const SettingsOptions& options)
{
    return WithinMemory(kRemoveSettings, path, [&] {
        SettingsFile file(kRemoveSettings, path, options.durable);
        std::string text;
        if (!file.Read(/*mayBeMissing=*/false, text)) {
            return false;
        }
        const std::set<std::string> set(names.begin(), names.end());
        return file.Update(text, WithoutNames(text, set, delimiter, comment));
    });
}

}  // namespace orv_safe
