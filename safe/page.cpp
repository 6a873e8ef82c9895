// Publishing a page. GenHtmlPagefromTextFile makes it under a name that others can predict, ignores every failure of a
// read or write, and does not say whether it succeeded. So the name is taken before, and the result is measured after.

#include "internal.h"
#include "safe.h"
#include "staged_file.h"

#include "LxFileUtils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <mutex>

namespace orv_safe {

using internal::Descriptor;
using internal::Place;
using internal::Report;
using internal::Uninterrupted;

namespace {

const char kPublishPage[] = "PublishPage";
const char kBuildDirectory[] = "/var/tmp";
const mode_t kPageMode = 0666;  // less the mask, as the library's streams make files
const std::size_t kBlockBytes = 8192;

const char kFooter[] = "</body></html></KPX_PLD>";
const std::size_t kFooterBytes = sizeof kFooter - 1;

// The library makes one page at a time in a process. Texts are read under it too, so that of two calls for a page the
// later one publishes the later text.
std::mutex publishing;

// ---- How long the page will be

// Whether a byte has a meaning in a table file. Not a function, so that the search for the next mark contains it.
struct IsMark {
    bool operator()(char c) const
    {
        return c == '\n' || c == ',' || c == ':' || c == ';';
    }
};

// Counts the bytes that a row of a table has in the page.
class RowSize {
public:
    // Bytes that are not marks.
    void Add(off_t bytes)
    {
        bytes_ += bytes;
        endsInComma_ = endsInComma_ && bytes == 0;
    }

    void AddComma()
    {
        ++bytes_;
        ++commas_;
        endsInComma_ = true;
    }

    void AddColon()
    {
        if (hasHead_) {
            Add(1);
            return;
        }
        hasHead_ = true;
        head_ = bytes_;
        bytes_ = 0;
        commas_ = 0;
        endsInComma_ = false;
    }

    bool IsEmpty() const
    {
        return !hasHead_ && bytes_ == 0;
    }

    off_t Take()
    {
        const off_t kRow = sizeof "<tr><td></td></tr>" - 1;
        const off_t kCell = sizeof "</td><td>" - 1;
        const off_t head = hasHead_ ? head_ : bytes_;  // a row without a head is shown twice
        const off_t cells = commas_ + (endsInComma_ ? 0 : 1);
        const off_t total = kRow + head + cells * kCell + bytes_ - commas_;
        *this = RowSize();
        return total;
    }

private:
    off_t head_ = 0;
    off_t bytes_ = 0;  // after the head and its colon
    off_t commas_ = 0;
    bool hasHead_ = false;
    bool endsInComma_ = false;
};

// Counts the bytes of the page of a text. A page that has others is torn.
class PageSize {
public:
    void Add(const char* text, const char* end)
    {
        for (;;) {
            const char* const mark = std::find_if(text, end, IsMark());
            row_.Add(mark - text);
            if (mark == end) {
                return;
            }
            AddMark(*mark);
            text = mark + 1;
        }
    }

    // After the last byte of the text.
    off_t Total()
    {
        if (isInTable_ || !row_.IsEmpty()) {
            EndLine();
        }
        return bytes_;
    }

private:
    void AddMark(char mark)
    {
        if (mark == ',') {
            row_.AddComma();
        } else if (mark == ':') {
            row_.AddColon();
        } else if (mark == ';') {
            EndRow();
        } else {
            EndLine();
        }
    }

    void EndRow()
    {
        bytes_ += row_.Take();
        isInTable_ = true;
    }

    void EndLine()
    {
        const off_t kTable = sizeof "<table  BORDER=2></table>" - 1;
        const off_t kSpacer = sizeof "<p></p>" - 1;
        if (!row_.IsEmpty()) {
            EndRow();
        }
        bytes_ += isInTable_ ? kTable : kSpacer;
        isInTable_ = false;
    }

    static const off_t kHeaderBytes = 340;

    off_t bytes_ = kHeaderBytes + static_cast<off_t>(kFooterBytes);
    RowSize row_;
    bool isInTable_ = false;  // a row of this line has ended
};

// ---- The text

// The text file. It stays open, so that the library reads the file that was measured.
class TextFile {
public:
    explicit TextFile(const std::string& path) : path_(path), file_(Open(path))
    {
    }

    // Reads the file to its end. Reports a failure.
    bool Measure(PageSize& size) const
    {
        if (file_ == -1) {
            return Failed("open");
        }
        struct stat status;
        if (fstat(file_, &status) != 0) {
            return Failed("fstat");
        }
        if (!S_ISREG(status.st_mode)) {
            ORV_SAFE_LOG("%s: %s is not a regular file (0x%x).", kPublishPage, path_.c_str(), status.st_mode & S_IFMT);
            return false;
        }
        for (;;) {
            char block[kBlockBytes];
            const ssize_t got = Uninterrupted([&] { return read(file_, block, sizeof block); });
            if (got == -1) {
                return Failed("read");
            }
            if (got == 0) {
                return true;
            }
            size.Add(block, block + got);
        }
    }

    std::string Path() const
    {
        return "/proc/self/fd/" + std::to_string(static_cast<int>(file_));
    }

private:
    static int Open(const std::string& path)
    {
        const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;  // a FIFO must not block
        return Uninterrupted([&] { return open(path.c_str(), flags); });
    }

    bool Failed(const char* call) const
    {
        Report(kPublishPage, call, path_, errno);
        return false;
    }

    std::string path_;
    Descriptor file_;
};

// ---- The page

// The file in which the library makes the page. It is created here, so that it is nobody else's. The destructor removes
// it, unless it was put in place.
class BuiltPage {
public:
    BuiltPage()
        : path_(std::string(kBuildDirectory) + "/TextToHtml_" + std::to_string(getpid()) + ".tmp"), file_(Take())
    {
        if (file_ == -1) {
            (void)Failed("open");
        }
    }

    ~BuiltPage()
    {
        if (file_ != -1 && !isInPlace_ && unlink(path_.c_str()) != 0) {
            (void)Failed("unlink");
        }
    }
    BuiltPage(const BuiltPage&) = delete;
    BuiltPage& operator=(const BuiltPage&) = delete;

    bool IsOpen() const
    {
        return file_ != -1;
    }

    // Lets the library make the page. It moves the page onto its own name, which the kernel takes for done.
    void Make(const TextFile& text) const
    {
        orv_fileutils::GenHtmlPagefromTextFile(text.Path().c_str(), path_.c_str());
    }

    bool IsWhole(off_t size) const
    {
        struct stat status;
        if (fstat(file_, &status) != 0) {
            return Failed("fstat");
        }
        char end[kFooterBytes] = {};
        if (Uninterrupted([&] { return pread(file_, end, sizeof end, size - static_cast<off_t>(sizeof end)); }) == -1) {
            return Failed("pread");
        }
        if (status.st_size != size || std::memcmp(end, kFooter, sizeof end) != 0) {
            ORV_SAFE_LOG("%s: the page in %s is torn (%lld of %lld bytes).", kPublishPage, path_.c_str(),
                         static_cast<long long>(status.st_size), static_cast<long long>(size));
            return false;
        }
        return true;
    }

    bool PutInPlace(const Place& page, bool durable)
    {
        if (durable && Uninterrupted([this] { return fsync(file_); }) != 0) {
            return Failed("fsync");
        }
        if (Uninterrupted([&] { return renameat(AT_FDCWD, path_.c_str(), page.Directory(), page.Name()); }) == 0) {
            isInPlace_ = true;
            return !durable || page.FlushDirectory();
        }
        return errno == EXDEV ? Copy(page, durable) : page.Failed("renameat");
    }

private:
    int Take() const
    {
        const auto create = [this] { return open(path_.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPageMode); };
        const int file = Uninterrupted(create);
        if (file != -1 || errno != EEXIST) {
            return file;
        }
        RemoveLeftover();
        return Uninterrupted(create);  // EEXIST again unless that removed it
    }

    // Removes the file that a killed process with this id has left. What others have put here stays.
    void RemoveLeftover() const
    {
        struct stat status;
        if (lstat(path_.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid()) {
            (void)unlink(path_.c_str());
        }
    }

    // The copy is made from the open file, not from its name.
    bool Copy(const Place& page, bool durable) const
    {
        FileOptions options;
        options.durable = durable;
        const std::string source = "/proc/self/fd/" + std::to_string(static_cast<int>(file_));
        if (!CopyFile(source, page.Path(), options)) {
            ORV_SAFE_LOG("%s: CopyFile(%s, %s) failed.", kPublishPage, path_.c_str(), page.Path().c_str());
            return false;
        }
        return true;
    }

    bool Failed(const char* call) const
    {
        Report(kPublishPage, call, path_, errno);
        return false;
    }

    std::string path_;
    Descriptor file_;
    bool isInPlace_ = false;
};

}  // namespace

bool PublishPage(const std::string& textFile, const std::string& page, const PageOptions& options)
{
    const std::lock_guard<std::mutex> lock(publishing);
    const Place place(kPublishPage, page, options.durable);
    struct stat replaced;
    if (!place.IsOpen() || !place.IsFree(/*noReplace=*/false, replaced)) {
        return false;
    }
    PageSize size;
    const TextFile text(textFile);
    if (!text.Measure(size)) {
        return false;
    }
    BuiltPage built;
    if (!built.IsOpen()) {
        return false;
    }
    built.Make(text);
    return built.IsWhole(size.Total()) && built.PutInPlace(place, options.durable);
}

}  // namespace orv_safe
