// page.

#include "blocked_signals.h"
#include "explain.h"
#include "publish.h"
#include "streams.h"

#include <orv/safe.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

const char kStandardInput[] = "-";
const std::size_t kBlockBytes = 65536;

// ---- Checks

std::string DirectoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

std::string LastPart(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

bool IsSameFile(const std::optional<struct stat>& one, const std::optional<struct stat>& other)
{
    return one && other && IsSameFile(*one, *other);
}

// Whether both lead to one file, or will do so when there is one.
bool IsSamePath(const std::string& one, const std::string& other)
{
    return IsSameFile(StatusOf(one), StatusOf(other)) ||
           (LastPart(one) == LastPart(other) && IsSameFile(StatusOf(DirectoryOf(one)), StatusOf(DirectoryOf(other))));
}

// ---- The text

int OpenTable(const std::string& path)
{
    (void)RequireRegularFile(path);
    const int file = open(path.c_str(), O_RDONLY);
    if (file == -1) {
        const int error = errno;
        throw Failure("cannot read " + Quoted(path) + ": " + ErrorText(error), RemedyOf(error, path));
    }
    return file;
}

int CopyOfStandardInput(bool mayBeEmpty)
{
    if (isatty(STDIN_FILENO) == 1) {
        throw Failure("standard input is a terminal", "connect it to a command that writes the table");
    }
    const int file = CreatePrivateFile();
    bool isEmpty = true;
    char block[kBlockBytes];
    for (std::size_t got; (got = ReadInput(block, sizeof block)) != 0; isEmpty = false) {
        WritePrivateFile(file, block, got);
    }
    if (isEmpty && !mayBeEmpty) {
        throw Failure("standard input is empty",
                      "check the command that writes it, or add --allow-empty to publish an empty page");
    }
    return file;
}

}  // namespace

PageText::PageText(const PageOptions& options) : file_(Open(options))
{
}

int PageText::Open(const PageOptions& options)
{
    if (options.table == kStandardInput) {
        return CopyOfStandardInput(options.allowEmpty);
    }
    try {
        const int file = OpenTable(options.table);
        isTable_ = true;
        return file;
    } catch (const Failure&) {
        if (!options.allowEmpty) {
            throw;
        }
        return CreatePrivateFile();
    }
}

std::size_t PageText::Tables() const
{
    std::size_t tables = 0;
    bool isLineEmpty = true;
    char block[kBlockBytes];
    off_t at = 0;
    for (ssize_t got; (got = pread(file_, block, sizeof block, at)) > 0; at += got) {
        for (const char* byte = block; byte < block + got; ++byte) {
            tables += isLineEmpty && *byte != '\n' ? 1U : 0U;
            isLineEmpty = *byte == '\n';
        }
    }
    return tables;
}

void RequireTwoFiles(const PageOptions& options)
{
    if (options.table != kStandardInput && IsSamePath(options.table, options.page)) {
        throw Failure(Quoted(options.table) + " and " + Quoted(options.page) + " are the same file",
                      "nothing was changed; name another file for the page");
    }
}

void Publish(const PageText& text, const PageOptions& options)
{
    RequireTwoFiles(options);
    RequireReplaceable(options.page);
    bool isPublished;
    {
        const BlockedSignals blocked;  // nothing is left in /var/tmp
        isPublished = orv_safe::PublishPage("/proc/self/fd/" + std::to_string(text.File()), options.page);
    }
    if (!isPublished) {
        FailByReports("cannot publish " + Quoted(options.page));
    }
}

void Announce(std::size_t tables, const PageOptions& options)
{
    if (IsQuiet()) {
        return;
    }
    try {
        PrintResult("published " + Quoted(options.page) + ": " + std::to_string(tables) +
                    (tables == 1 ? " table\n" : " tables\n"));
    } catch (const Failure& failure) {
        throw Failure(Quoted(options.page) + " is in place, but " + failure.what(), failure.Next());
    }
}

ExitStatus Page(const PageOptions& options)
{
    RequireTwoFiles(options);
    if (options.watch) {
        FollowTable(options);
        return kDone;
    }
    const PageText text(options);
    const std::size_t tables = text.Tables();
    Publish(text, options);
    Announce(tables, options);
    return kDone;
}
