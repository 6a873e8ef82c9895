// The ten file-system functions, in five families:
//   existence test     FileExists
//   file transfer      RenameFileAcrossFs, CopyFile
//   directories        DoMakeDirPath, MakeDirPath, GetDirFileList
//   tables and pages   TextFileTableDelimter, AddTextFileFormattedRow, GenHtmlPagefromTextFile
//   name-value files   ReadNameValueFromFile
// Each family's private helpers are directly above its functions. A helper that reports a failure does so under the
// name of the public function that it serves. Comments that begin with "Deliberate:" mark code that looks wrong and
// must stay.

#include "LxFileUtils.h"

#include "LxStringUtils.h"
#include "dlog.h"

#include <alloca.h>
#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>  // for the standard stream initialiser, the only static object of this library
#include <memory>
#include <new>
#include <streambuf>

// Deliberate: a reserved name; the device's log service has it, and the program supplies it.
#define LOG_FAILURE(...) __dlog_printf(kSeverityError, kSourceTag, __VA_ARGS__)

namespace orv_fileutils {

namespace {

const int kSeverityError = 3;  // the only severity this library reports
const char kSourceTag[] = "LxFileUtils.cpp";

const char kRenameFileAcrossFs[] = "RenameFileAcrossFs";
const char kDoMakeDirPath[] = "DoMakeDirPath";
const char kMakeDirPath[] = "MakeDirPath";
const char kGetDirFileList[] = "GetDirFileList";
const char kGenHtmlPage[] = "GenHtmlPagefromTextFile";
const char kReadNameValue[] = "ReadNameValueFromFile";

const mode_t kPermissionBits = 0777;  // Deliberate: a copied file does not inherit set-id and sticky bits.

bool IsRegular(const struct stat& status)
{
    return (status.st_mode & S_IFMT) == S_IFREG;
}

}  // namespace

// ---- Existence test

bool FileExists(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && IsRegular(status);
}

// ---- File transfer

namespace {

const std::size_t kCopyBlockBytes = 4096;  // one block per read and write, on the stack
const char kTempSuffix[] = "_XXXXXX";      // its size counts the NUL: 8 bytes

bool CopyBlocks(int from, int to)
{
    char block[kCopyBlockBytes];
    for (;;) {
        const ssize_t got = read(from, block, sizeof block);
        if (got == 0) {
            return true;
        }
        if (got == -1) {
            return false;  // Deliberate: a failed read is not logged, and EINTR is not retried (nor by write below).
        }
        const ssize_t put = write(to, block, static_cast<std::size_t>(got));
        if (put != got) {  // Deliberate: a short write fails like -1; errno is then that of an earlier call.
            LOG_FAILURE("%s: write() failed (%zi, %zi, %i).", kRenameFileAcrossFs, got, put, errno);
            return false;
        }
    }
}

// Copies the bytes of `source` into the temporary file `tempDescriptor`, and closes that in any case.
bool FillTemporary(const char* source, int tempDescriptor)
{
    const int sourceDescriptor = open(source, O_RDONLY);  // Deliberate: without O_CLOEXEC, like mkstemp's descriptor.
    if (sourceDescriptor == -1) {
        LOG_FAILURE("%s: open(%s) failed (%i).", kRenameFileAcrossFs, source, errno);
        (void)close(tempDescriptor);
        return false;
    }
    const bool copied = CopyBlocks(sourceDescriptor, tempDescriptor);
    (void)close(sourceDescriptor);
    (void)close(tempDescriptor);  // Deliberate: neither result counts, and nothing is flushed to the medium.
    return copied;
}

// True when `source` may be removed at the end of a move: it is a symbolic link, whose target stays, or still the file
// that was moved. Otherwise sets errno.
bool IsRemovable(const char* source, const struct stat& movedFile)
{
    struct stat status;
    if (lstat(source, &status) != 0) {
        return false;
    }
    if (S_ISLNK(status.st_mode) || (status.st_dev == movedFile.st_dev && status.st_ino == movedFile.st_ino)) {
        return true;
    }
    // Deliberate: through a bind mount, an overlay or a link, `source` can be another name of the file that has just
    // been put in place. Removing it would lose the content; a source that is left does no harm.
    errno = ESTALE;
    return false;
}

// Copies `source`, whose status is `sourceStatus`, into a new file named after the template `tempPath`, renames that
// over `destination` and removes `source`. Invariant: on return tempPath[0] is not NUL exactly when a temporary file of
// ours may still exist.
bool CopyIntoPlace(const char* source, const struct stat& sourceStatus, char* tempPath, const char* destination)
{
    const mode_t mode = sourceStatus.st_mode & kPermissionBits;
    const int tempDescriptor = mkstemp(tempPath);
    if (tempDescriptor == -1) {
        LOG_FAILURE("%s: mkstemp(%s) failed (%i).", kRenameFileAcrossFs, tempPath, errno);
        tempPath[0] = '\0';
        return false;
    }
    if (!FillTemporary(source, tempDescriptor)) {
        return false;  // already logged by FillTemporary (a failed read is silent)
    }
    if (chmod(tempPath, mode) != 0) {
        LOG_FAILURE("%s: chmod(%s, %03o) failed (%i).", kRenameFileAcrossFs, tempPath, mode, errno);
        return false;
    }
    if (rename(tempPath, destination) != 0) {
        LOG_FAILURE("%s: rename(%s, %s) failed (%i).", kRenameFileAcrossFs, tempPath, destination, errno);
        return false;
    }
    tempPath[0] = '\0';
    // Deliberate: the result stays true when the source is left, because the content is at the destination.
    if (!IsRemovable(source, sourceStatus) || unlink(source) != 0) {
        LOG_FAILURE("%s: unlink(%s) failed (%i).", kRenameFileAcrossFs, source, errno);
    }
    return true;
}

// Moves a file to another file system. Call it only after the kernel has accepted both paths.
bool MoveByCopy(const char* source, const struct stat& sourceStatus, const char* destination)
{
    // Deliberate: the temporary path is on the stack, so a move never allocates. Its size is bounded: the kernel has
    // accepted the destination, so that is at most PATH_MAX bytes long.
    const std::size_t tempPathBytes = std::strlen(destination) + sizeof kTempSuffix;
    char* const tempPath = static_cast<char*>(alloca(tempPathBytes));
    (void)std::snprintf(tempPath, tempPathBytes, "%s%s", destination, kTempSuffix);

    const bool moved = CopyIntoPlace(source, sourceStatus, tempPath, destination);
    if (tempPath[0] != '\0' && unlink(tempPath) != 0) {
        LOG_FAILURE("%s: unlink(%s) failed (%i).", kRenameFileAcrossFs, tempPath, errno);
    }
    return moved;
}

}  // namespace

bool RenameFileAcrossFs(const std::string& source, const std::string& destination)
{
    const char* const sourcePath = source.c_str();
    const char* const destinationPath = destination.c_str();

    struct stat status;
    if (stat(sourcePath, &status) != 0) {
        LOG_FAILURE("%s: stat(%s) failed (%i).", kRenameFileAcrossFs, sourcePath, errno);
        return false;
    }
    if (!IsRegular(status)) {
        LOG_FAILURE("%s: %s is not a regular file (0x%x).", kRenameFileAcrossFs, sourcePath, status.st_mode & S_IFMT);
        return false;
    }
    if (rename(sourcePath, destinationPath) == 0) {
        return true;
    }
    const int renameError = errno;
    if (renameError != EXDEV) {
        LOG_FAILURE("%s: rename(%s, %s) failed (%i).", kRenameFileAcrossFs, sourcePath, destinationPath, renameError);
        return false;
    }
    // The kernel answers EXDEV only after it has accepted both paths, so their length is bounded from here on.
    return MoveByCopy(sourcePath, status, destinationPath);
}

int CopyFile(const std::string& source, const std::string& destination)
{
    const std::size_t kBufferBytes = 65537;  // a stream reads one byte less: 64 KiB, which are whole pages

    const int kCopied = 0;
    const int kNoSource = -1;
    const int kSourceNotOpened = -2;
    const int kDestinationNotOpened = -3;

    if (!FileExists(source.c_str())) {
        return kNoSource;
    }
    // malloc, not new: a host's new-handler may end the process, and without this buffer the copy is only slower.
    const std::unique_ptr<char, void (*)(void*)> buffer(static_cast<char*>(std::malloc(kBufferBytes)), std::free);
    std::ifstream input;
    std::ofstream output;  // destroyed, and so closed, before `input`
    if (buffer != nullptr) {
        (void)input.rdbuf()->pubsetbuf(buffer.get(), kBufferBytes);
    }
    input.open(source.c_str(), std::ios::in | std::ios::binary);
    if (input.rdstate() != std::ios::goodbit) {
        return kSourceNotOpened;
    }
    output.open(destination.c_str(), std::ios::out | std::ios::binary);
    if (output.rdstate() != std::ios::goodbit) {
        input.close();
        return kDestinationNotOpened;
    }
    output << input.rdbuf();
    input.close();
    output.close();
    return kCopied;  // Deliberate: even if the copy or a close failed. 0 says only that both files were opened.
}

// ---- Directories

namespace {

// Cuts `dirCopy` back from parent to parent, down to the first one whose status can be read: the directory to build
// from. False, with a line, when that is "/" or ".".
bool CutToExistingParent(char* dirCopy)
{
    std::size_t length = std::strlen(dirCopy);
    for (;;) {
        const char* const parent = dirname(dirCopy);
        // Deliberate: nothing is made directly below "/" and ".", not even where it exists.
        if (std::strcmp(parent, "/") == 0 || std::strcmp(parent, ".") == 0) {
            LOG_FAILURE("%s: Can't make directory in %s", kDoMakeDirPath, parent);
            return false;
        }
        struct stat status;
        const bool exists = stat(parent, &status) == 0;
        const std::size_t parentLength = std::strlen(parent);
        if (parentLength == length) {
            // Deliberate: dirname does not shorten "//", so the climb ends here, and mkdir of "//" decides.
            dirCopy[0] = '\0';
            return true;
        }
        // Deliberate: a parent that is itself too long for the kernel ends the climb, which bounds its time. Making the
        // directory below it then reports just that.
        if (exists || parentLength >= PATH_MAX) {
            return true;
        }
        length = parentLength;
    }
}

// Makes the directories of `path` that `dirname` has cut off `dirCopy`, topmost first. dirname has cut by writing a NUL
// for each level, so putting back the byte of `path` restores the next directory, until the whole path is restored.
bool MakeMissingDirectories(char* dirCopy, const char* path, unsigned int mode)
{
    std::size_t end = std::strlen(dirCopy);
    while (path[end] != '\0') {
        dirCopy[end] = path[end];
        end += std::strlen(dirCopy + end);
        // Deliberate: EEXIST counts as made. Another process was faster, or an object of any type is there already.
        if (mkdir(dirCopy, mode) != 0 && errno != EEXIST) {
            LOG_FAILURE("%s: could not create subdirectory %s due to error: %s", kDoMakeDirPath, dirCopy,
                        std::strerror(errno));
            return false;
        }
    }
    return true;
}

}  // namespace

bool DoMakeDirPath(const char* path, unsigned int mode)
{
    const std::size_t length = std::strlen(path);
    char* const dirCopy = static_cast<char*>(std::malloc(length + 1));
    if (dirCopy == nullptr) {
        LOG_FAILURE("%s: malloc failure (dirCopy)", kDoMakeDirPath);
        return false;
    }
    std::memcpy(dirCopy, path, length + 1);
    const bool made = CutToExistingParent(dirCopy) && MakeMissingDirectories(dirCopy, path, mode);
    std::free(dirCopy);
    return made;
}

bool MakeDirPath(const char* path, unsigned int mode, bool applyMode)
{
    const std::size_t kMaxPathBytes = 1024;  // still accepted; 1025 is refused

    const std::size_t length = std::strlen(path);
    if (length > kMaxPathBytes) {
        LOG_FAILURE("%s: can't make path of unusual size: %d", kMakeDirPath, static_cast<int>(length));
        return false;
    }
    struct stat status;
    if (stat(path, &status) != 0 && !DoMakeDirPath(path, mode)) {
        LOG_FAILURE("%s: Create '%s' directory failed.", kMakeDirPath, path);
        return false;
    }
    if (applyMode && chmod(path, mode) != 0) {  // Deliberate: the directory exists, so the result stays true.
        LOG_FAILURE("%s: Failed to chmod on '%s': errno: %d", kMakeDirPath, path, errno);
    }
    return true;
}

namespace {

// Reads the next entry into `buffer`. `entry` becomes null at the end of the directory; the result is an errno number.
int ReadEntry(DIR* directory, struct dirent* buffer, struct dirent** entry)
{
    // Deliberate: readdir_r, because in some C libraries threads must not share readdir.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return readdir_r(directory, buffer, entry);
#pragma GCC diagnostic pop
}

bool IsGiven(const char* text)
{
    return text != nullptr && text[0] != '\0';
}

// The patterns of a listing. A pattern that is null or empty does not count.
class Filter {
public:
    Filter(const char* include, const char* exclude)
        : include_(IsGiven(include) ? include : ""), exclude_(IsGiven(exclude) ? exclude : "")
    {
    }

    // True when the name matches the include pattern and not the exclude pattern.
    bool Wants(const char* name)
    {
        if (include_.empty() && exclude_.empty()) {
            return true;  // without a string of the name
        }
        name_ = name;
        return (include_.empty() || LxStringUtils::WildcardedStringMatch(name_, include_)) &&
               (exclude_.empty() || !LxStringUtils::WildcardedStringMatch(name_, exclude_));
    }

private:
    const std::string include_;
    const std::string exclude_;
    std::string name_;
};

// Puts `prefix` and the name of each wanted entry at the front of `fileList`, where callers find the new names after a
// failed read, and counts them in `newNames`. Returns 0 at the end of the directory, or the errno number of the read.
int ReadNames(DIR* directory, const std::string& prefix, Filter& filter, std::list<std::string>& fileList,
              std::size_t& newNames)
{
    std::string element(prefix);
    for (;;) {
        struct dirent buffer;
        struct dirent* entry;
        const int error = ReadEntry(directory, &buffer, &entry);
        if (error != 0 || entry == nullptr) {
            return error;
        }
        // Deliberate: the type in the entry decides, without a status query; DT_UNKNOWN and links are not listed.
        if (entry->d_type != DT_REG) {
            continue;
        }
        if (filter.Wants(entry->d_name)) {
            element.resize(prefix.size());
            element += entry->d_name;
            fileList.push_front(element);
            ++newNames;
        }
    }
}

// A name in a list, and eight of its bytes as a big-endian number, so that numbers compare as the bytes do. After the
// end of the name the bytes are zero.
struct KeyedName {
    std::uint64_t key;
    std::list<std::string>::iterator name;
};

bool operator<(const KeyedName& left, const KeyedName& right)
{
    return left.key < right.key;
}

std::uint64_t KeyOf(const std::string& name, std::size_t start)
{
    std::uint64_t key = 0;
    std::memcpy(&key, name.data() + start, std::min(name.size() - start, sizeof key));
    return be64toh(key);
}

// Sorts names that are equal up to `start` and contain no NUL: by their next eight bytes, then names that are equal
// there by the bytes that follow. Numbers in an array compare much faster than strings all over the heap.
void SortByKeys(KeyedName* begin, KeyedName* end, std::size_t start)
{
    bool areEqual = true;
    for (KeyedName* each = begin; each != end; ++each) {
        each->key = KeyOf(*each->name, start);
        areEqual = areEqual && each->key == begin->key;
    }
    if (!areEqual) {
        std::sort(begin, end);
    }
    while (begin != end) {
        KeyedName* groupEnd = begin;
        while (groupEnd != end && groupEnd->key == begin->key) {
            ++groupEnd;
        }
        const bool isNameLeft = (begin->key & 0xffU) != 0;
        if (isNameLeft && groupEnd - begin > 1) {
            SortByKeys(begin, groupEnd, start + sizeof begin->key);
        }
        begin = groupEnd;
    }
}

// Sorts the list. Its first `newNames` elements are file names, each after the same `prefixBytes` bytes.
void SortList(std::list<std::string>& fileList, std::size_t newNames, std::size_t prefixBytes)
{
    // calloc, not new: a host's new-handler may end the process, and here lack of memory must only mean a slower sort.
    // Nothing below throws.
    KeyedName* const names =
        newNames == 0 ? nullptr : static_cast<KeyedName*>(std::calloc(newNames, sizeof(KeyedName)));
    if (names == nullptr) {
        fileList.sort();  // slower, but needs no memory
        return;
    }
    std::list<std::string> oldNames;
    auto next = fileList.begin();
    for (std::size_t i = 0; i < newNames; ++i) {
        new (&names[i]) KeyedName{0, next++};
    }
    oldNames.splice(oldNames.end(), fileList, next, fileList.end());
    SortByKeys(names, names + newNames, prefixBytes);
    for (std::size_t i = 0; i < newNames; ++i) {
        fileList.splice(fileList.end(), fileList, names[i].name);
    }
    oldNames.sort();
    fileList.merge(oldNames);
    std::free(names);
}

}  // namespace

bool GetDirFileList(const char* dirPath, const char* includePattern, const char* excludePattern,
                    std::list<std::string>& fileList, bool withDirPath, bool clearList, bool logOpenError)
{
    if (clearList) {
        fileList.clear();
    }
    if (!IsGiven(dirPath)) {
        LOG_FAILURE("%s: No directory specified.", kGetDirFileList);
        return false;
    }
    DIR* const directory = opendir(dirPath);
    if (directory == nullptr) {
        if (logOpenError) {
            LOG_FAILURE("%s: Error opening directory folder '%s', errno: %d", kGetDirFileList, dirPath, errno);
        }
        return false;
    }
    // Deliberate: when memory runs out below, the directory stays open; the list keeps the names it has.
    Filter filter(includePattern, excludePattern);
    std::string prefix(withDirPath ? dirPath : "");
    if (withDirPath && prefix[prefix.size() - 1] != '/') {
        prefix += '/';
    }
    std::size_t newNames = 0;
    const int error = ReadNames(directory, prefix, filter, fileList, newNames);
    if (error == 0) {
        SortList(fileList, newNames, prefix.size());
    } else {
        LOG_FAILURE("%s: readdir_r failed for directory: %s, error: %u", kGetDirFileList, dirPath,
                    static_cast<unsigned int>(error));
    }
    (void)closedir(directory);
    return error == 0;
}

// ---- Tables and pages

namespace {

const char kTableDelimiter = '\n';
const char kHeadSeparator = ':';
const char kCellSeparator = ',';
const char kRowTerminator = ';';

// The sum of two sizes. If it is too high for the type: npos, of which the standard library makes no string.
std::size_t Sum(std::size_t bytes, std::size_t more)
{
    return bytes + std::min(more, std::string::npos - bytes);
}

// Copies bytes to `at`, and returns the place after them.
char* Put(char* at, const char* bytes, std::size_t count)
{
    std::memcpy(at, bytes, count);
    return at + count;
}

template <std::size_t kBytes>
char* Put(char* at, const char (&text)[kBytes])
{
    return Put(at, text, kBytes - 1);
}

const char kTempPageDirectory[] = "/var/tmp";
const std::size_t kTempPagePathBytes = 100;  // at most 34 characters are needed

const char kPageHeader[] =
    "<KPX_PLD ua=\"none\" ln=\"1\" schema=\"1\" source=\"Tarnwick\" destination=\"HTML\" version=\"1\" "
    "tagNestLevel=\"1\"> "
    "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01 Frameset//EN\" \"http://www.w3.org/TR/html4/frameset.dtd\">"
    "<html><head><meta content=\"text/html; charset=utf-8\" http-equiv=\"Content-Type\" >"
    "<meta http-equiv=\"refresh\" content=\"10\" > </head><body>";  // reloads every 10 seconds
const char kPageFooter[] = "</body></html></KPX_PLD>";

const char kRowStart[] = "<tr><td>";
const char kNextCell[] = "</td><td>";
const char kRowEnd[] = "</td></tr>";
const std::size_t kRowMarkupBytes = sizeof kRowStart + sizeof kRowEnd - 2;  // without the NULs
const std::size_t kCellMarkupBytes = sizeof kNextCell - 1;

// Renders tables as markup, each in one string: streaming each piece costs more than copying it. The buffers are
// members, so that all rows and tables reuse them.
class TableMarkup {
public:
    // The markup of the table in `line`; valid until the next call.
    const std::string& Render(const std::string& line)
    {
        markup_ = "<table  BORDER=2>";
        rows_.clear();
        LxStringUtils::Split(line, kRowTerminator, rows_);
        for (const std::string& row : rows_) {
            AddRow(row);
        }
        markup_ += "</table>";
        return markup_;
    }

private:
    void AddRow(const std::string& row)
    {
        const std::size_t colon = row.find(kHeadSeparator);
        // Deliberate: a row without a colon is shown twice, as the head cell and, because npos + 1 is 0, as the rest.
        // Deliberate: cells reach the page unescaped; what is not markup must be made safe before.
        rest_.assign(row, colon + 1, std::string::npos);
        cells_.clear();
        LxStringUtils::Split(rest_, kCellSeparator, cells_);
        AppendRow(row.data(), std::min(colon, row.size()));
    }

    // Appends the head cell and the cells in one step: a call for each piece costs more than copying its bytes.
    void AppendRow(const char* head, std::size_t headBytes)
    {
        std::size_t bytes = kRowMarkupBytes + headBytes;
        for (const std::string& cell : cells_) {
            bytes = Sum(bytes, kCellMarkupBytes + cell.size());
        }
        const std::size_t start = markup_.size();
        markup_.append(bytes, ' ');
        char* at = Put(&markup_[start], kRowStart);
        at = Put(at, head, headBytes);
        for (const std::string& cell : cells_) {
            at = Put(at, kNextCell);
            at = Put(at, cell.data(), cell.size());
        }
        (void)Put(at, kRowEnd);
    }

    std::string markup_;
    std::string rest_;  // of a row, after its head cell
    std::vector<std::string> rows_;
    std::vector<std::string> cells_;
};

// Deliberate: neither stream is tested. A text file that cannot be read makes an empty page, a full disk a short one.
void WritePage(const char* textFilePath, const char* tempPagePath)
{
    std::ifstream text(textFilePath, std::ios::in);
    std::ofstream page(tempPagePath, std::ios::out | std::ios::trunc);
    page << kPageHeader;
    TableMarkup table;
    std::string line;
    while (std::getline(text, line)) {
        if (line.empty()) {
            page << "<p></p>";
        } else {
            page << table.Render(line);
        }
    }
    page << kPageFooter;
    text.close();
    page.close();
}

}  // namespace

std::string TextFileTableDelimter()
{
    return std::string(1, kTableDelimiter);
}

std::string AddTextFileFormattedRow(std::vector<std::string>& cells)
{
    std::size_t rowBytes = 0;
    for (const std::string& cell : cells) {
        rowBytes = Sum(rowBytes, cell.size() + 1);
    }
    std::string row(rowBytes, kCellSeparator);
    if (cells.empty()) {
        return row;
    }
    char* at = &row[0];
    for (const std::string& cell : cells) {
        at = Put(at, cell.data(), cell.size()) + 1;
    }
    row[rowBytes - 1] = kRowTerminator;
    row[cells[0].size()] = kHeadSeparator;  // Deliberate: comes last, so a row of one cell ends in ":" without a ";".
    return row;
}

void GenHtmlPagefromTextFile(const char* textFilePath, const char* pagePath)
{
    char tempPagePath[kTempPagePathBytes] = {};
    (void)std::snprintf(tempPagePath, sizeof tempPagePath, "%s/TextToHtml_%u.tmp", kTempPageDirectory,
                        static_cast<unsigned int>(getpid()));
    WritePage(textFilePath, tempPagePath);
    // Deliberate: when the move fails, the temporary file stays; the next call of this process truncates it.
    if (!RenameFileAcrossFs(tempPagePath, pagePath)) {
        LOG_FAILURE("%s: RenameFileAcrossFs(%s, %s) failed.", kGenHtmlPage, tempPagePath, pagePath);
    }
}

// ---- Name-value files

namespace {

// Lets a stream read a line in place.
class LineBuffer : public std::streambuf {
public:
    void Show(const std::string& line)
    {
        char* const begin = const_cast<char*>(line.data());  // only for the type of setg; nothing is written
        setg(begin, begin, begin + line.size());
    }
};

// Stores the entries of lines in a map. All lines share one stream, because building one costs more than reading a
// line.
class EntryReader {
public:
    explicit EntryReader(std::map<std::string, std::string>& nameValues) : nameValues_(nameValues), entry_(&line_)
    {
    }

    // Stores the entry of a trimmed, non-empty line. False when its name cannot be extracted, which happens only when
    // memory runs out: such a line has at least one byte.
    bool Store(const std::string& line, char delimiter)
    {
        entry_.clear();
        line_.Show(line);
        if (!std::getline(entry_, name_, delimiter)) {
            return false;
        }
        // Without a delimiter, the name is the whole line, and the value is empty.
        const std::size_t valueStart = std::min(name_.size() + 1, line.size());
        value_.assign(line, valueStart, std::string::npos);
        LxStringUtils::Trim(name_);
        if (!value_.empty()) {
            LxStringUtils::Trim(value_);
        }
        Assign();
        return true;
    }

private:
    // nameValues_[name_] = value_, but without a search when the names come sorted.
    void Assign()
    {
        const bool isLast = wasLast_ && (nameValues_.empty() || nameValues_.rbegin()->first < name_);
        auto place = isLast ? nameValues_.end() : nameValues_.lower_bound(name_);
        wasLast_ = place == nameValues_.end();
        if (wasLast_ || name_ < place->first) {
            // A copy of the bytes: with shared strings, a copy of name_ would keep the whole buffer alive.
            place = nameValues_.emplace_hint(place, std::string(name_.data(), name_.size()), std::string());
        }
        place->second = value_;
    }

    std::map<std::string, std::string>& nameValues_;
    LineBuffer line_;
    std::istream entry_;
    std::string name_;
    std::string value_;
    bool wasLast_ = true;  // the entry before this one was put at the end of the map
};

}  // namespace

bool ReadNameValueFromFile(const std::string& filePath, std::map<std::string, std::string>& nameValues, char delimiter,
                           const std::string& commentPrefix)
{
    std::ifstream file(filePath.c_str(), std::ios::in);
    if (!file) {
        LOG_FAILURE("%s: Unable to open file \"%s\"", kReadNameValue, filePath.c_str());
        return false;
    }
    EntryReader entries(nameValues);
    int lineNumber = 0;
    std::string line;
    while (std::getline(file, line)) {  // Deliberate: a read error ends the reading like the end of the file.
        ++lineNumber;
        LxStringUtils::Trim(line);
        if (line.empty() || (!commentPrefix.empty() && LxStringUtils::StartsWith(line, commentPrefix))) {
            continue;
        }
        if (!entries.Store(line, delimiter)) {
            LOG_FAILURE("%s: Error processing line %d in file \"%s\".  No delimiter '%c' found.", kReadNameValue,
                        lineNumber, filePath.c_str(), delimiter);
            return false;
        }
    }
    return true;
}

}  // namespace orv_fileutils
