// page.

#include "blocked_signals.h"
#include "commands.h"
#include "log.h"
#include "streams.h"
#include "watch.h"

#include <orv/safe.h>

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>

namespace {

const char kStandardInput[] = "-";

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

void RequireTwoFiles(const PageOptions& options)
{
    if (options.table != kStandardInput && IsSamePath(options.table, options.page)) {
        throw Failure(Quoted(options.table) + " and " + Quoted(options.page) + " are the same file",
                      "nothing was changed; name another file for the page");
    }
}

// The companion replaces links. So it would replace /dev/stdout.
void RefuseLink(const std::string& page)
{
    const std::optional<struct stat> status = LinkStatusOf(page);
    if (status && S_ISLNK(status->st_mode)) {
        throw Failure(Quoted(page) + " is a symbolic link, not a regular file",
                      "name the file that it leads to, or remove the link");
    }
}

// ---- The text

// The text of a page. It stays open, so the text that is looked at is the one that is published.
class Text {
public:
    explicit Text(const PageOptions& options) : file_(Open(options))
    {
    }

    // False: it is a copy of standard input, or empty because the table cannot be read.
    bool IsTable() const
    {
        return isTable_;
    }
    int File() const
    {
        return file_;
    }
    std::string Path() const
    {
        return "/proc/self/fd/" + std::to_string(static_cast<int>(file_));
    }

    // Each line that is not empty is a table.
    std::size_t Tables() const
    {
        std::size_t tables = 0;
        bool isLineEmpty = true;
        char block[65536];
        off_t at = 0;
        for (ssize_t got; (got = pread(file_, block, sizeof block, at)) > 0; at += got) {
            for (const char* byte = block; byte < block + got; ++byte) {
                tables += isLineEmpty && *byte != '\n' ? 1U : 0U;
                isLineEmpty = *byte == '\n';
            }
        }
        return tables;
    }

private:
    int Open(const PageOptions& options)
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

    static int OpenTable(const std::string& path)
    {
        (void)RequireRegularFile(path);
        const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (file == -1) {
            const int error = errno;
            throw Failure("cannot read " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
        }
        return file;
    }

    static int CopyOfStandardInput(bool mayBeEmpty)
    {
        if (isatty(STDIN_FILENO) == 1) {
            throw Failure("standard input is a terminal", "connect it to a command that writes the table");
        }
        const int file = CreatePrivateFile();
        char block[65536];
        std::size_t total = 0;
        for (std::size_t got; (got = ReadInput(block, sizeof block)) != 0; total += got) {
            WritePrivateFile(file, block, got);
        }
        if (total == 0 && !mayBeEmpty) {
            throw Failure("standard input is empty",
                          "check the command that writes it, or add --allow-empty to publish an empty page");
        }
        return file;
    }

    bool isTable_ = false;
    const Descriptor file_;
};

// ---- Publishing

void Publish(const Text& text, const PageOptions& options)
{
    RequireTwoFiles(options);
    RefuseLink(options.page);
    bool isPublished;
    {
        const BlockedSignals blocked;  // nothing is left in /var/tmp
        isPublished = orv_safe::PublishPage(text.Path(), options.page);
    }
    if (!isPublished) {
        FailByReports("cannot publish " + Quoted(options.page));
    }
}

void Announce(std::size_t tables, const PageOptions& options)
{
    if (!IsQuiet()) {
        PrintResult("published " + Quoted(options.page) + ": " + std::to_string(tables) +
                    (tables == 1 ? " table\n" : " tables\n"));
    }
}

// ---- Watching

const int kInterval = 1000;  // between two looks at a table that has not changed, in milliseconds
const int kShortest = 10;    // after a change

typedef std::optional<struct stat> Status;

bool IsSameTime(const struct timespec& one, const struct timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool IsUnchanged(const Status& before, const Status& now)
{
    return before && now ? IsSameFile(*before, *now) && before->st_size == now->st_size &&
                               IsSameTime(before->st_mtim, now->st_mtim) && IsSameTime(before->st_ctim, now->st_ctim)
                         : !before && !now;
}

// Blocks SIGINT and SIGTERM. Returns a descriptor that is readable when one of them waits.
int StopSignals()
{
    sigset_t stop;
    (void)sigemptyset(&stop);
    (void)sigaddset(&stop, SIGINT);
    (void)sigaddset(&stop, SIGTERM);
    (void)sigprocmask(SIG_BLOCK, &stop, nullptr);
    const int signals = signalfd(-1, &stop, SFD_CLOEXEC);
    if (signals == -1) {
        throw Failure("cannot wait for signals: " + ErrorText(errno), "free memory, then start this again");
    }
    return signals;
}

// Publishes the page again and again.
class Follower {
public:
    explicit Follower(const PageOptions& options) : options_(options), stop_(StopSignals())
    {
        (void)signal(SIGIO, SIG_IGN);  // says that somebody waits for a lease, which soon ends anyway
        (void)signal(SIGPIPE, SIG_IGN);
    }

    // Until SIGINT or SIGTERM.
    void Run()
    {
        for (FileWatch::Result result = FileWatch::kChanged; result != FileWatch::kStopped;) {
            const FileWatch watch(options_.table);  // first, so that no change is missed
            if (result == FileWatch::kChanged) {
                isDue_ = true;
                pause_ = kShortest;
            }
            Look();
            result = watch.Wait(stop_, isDue_ ? pause_ : kInterval);
            pause_ = std::min(2 * pause_, kInterval);
        }
    }

private:
    typedef std::chrono::steady_clock Clock;

    // Publishes the page if the table has changed and is whole.
    void Look()
    {
        const Status now = StatusOf(options_.table);
        if (!IsUnchanged(seen_, now)) {
            seen_ = now;
            seenSince_ = Clock::now();
        }
        if (!isDue_ && IsUnchanged(published_, now)) {
            return;
        }
        isDue_ = true;
        try {
            PublishIfWhole(now);
        } catch (const Failure& failure) {
            WarnOnce(std::string(failure.what()) + "; trying again", failure.Next());
            HoldLines(true);  // each attempt would report the same lines again
            pause_ = kInterval;
        }
    }

    void PublishIfWhole(const Status& now)
    {
        const Text text(options_);
        const ReadLease lease(text.File());
        if (text.IsTable() && lease.IsRefusedToWriter()) {
            if (IsSettled()) {
                WarnOnce(Quoted(options_.table) + " is open for writing; the page waits until it is closed",
                         "close it after each change, or replace it by a rename");
            }
            return;
        }
        if (!text.IsTable() || lease.IsHeld() || IsSettled()) {
            const std::size_t tables = text.Tables();
            Publish(text, options_);
            isDue_ = false;
            published_ = now;
            warned_.clear();
            HoldLines(false);
            AnnounceIfPossible(tables);
        }
    }

    // Whether the table has not changed for some time.
    bool IsSettled() const
    {
        return Clock::now() - seenSince_ >= std::chrono::milliseconds(kInterval);
    }

    void AnnounceIfPossible(std::size_t tables)
    {
        try {
            Announce(tables, options_);
        } catch (const Failure& failure) {
            std::cout.clear();
            Warn(failure.what(), failure.Next());
        }
    }

    void WarnOnce(const std::string& problem, const std::string& next)
    {
        if (problem != warned_) {
            Warn(problem, next);
            warned_ = problem;
        }
    }

    const PageOptions& options_;
    const Descriptor stop_;
    bool isDue_ = true;  // the page must be published
    int pause_ = kShortest;
    Status published_;
    Status seen_;
    Clock::time_point seenSince_;
    std::string warned_;  // since the last success
};

}  // namespace

ExitStatus Page(const PageOptions& options)
{
    RequireTwoFiles(options);
    if (options.watch) {
        Follower(options).Run();
        return kDone;
    }
    const Text text(options);
    const std::size_t tables = text.Tables();
    Publish(text, options);
    Announce(tables, options);
    return kDone;
}
