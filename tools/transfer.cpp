// exists, move and copy.

#include "commands.h"
#include "explain.h"
#include "log.h"
#include "progress.h"
#include "signals.h"

#include <LxFileUtils.h>
#include <orv/safe.h>

#include <algorithm>
#include <cerrno>

namespace {

// ---- The paths

struct Transfer {
    std::string source;
    std::string destination;
};

void RequireDirectory(const std::string& path)
{
    const std::optional<struct stat> status = StatusOf(path);
    if (!status) {
        const int error = errno;
        throw Failure(Quoted(path) + ": " + ErrorText(error), RemedyOf(error, path));
    }
    if (!S_ISDIR(status->st_mode)) {
        throw Failure(Quoted(path) + " is not a directory", "name the directory that the files go to");
    }
}

Transfer Into(const std::string& directory, const std::string& source)
{
    const std::string name = source.substr(source.rfind('/') + 1);
    const bool hasSlash = !directory.empty() && directory.back() == '/';
    return {source, directory + (hasSlash ? "" : "/") + name};
}

bool IsDirectory(const std::string& path)
{
    const std::optional<struct stat> status = StatusOf(path);
    return status && S_ISDIR(status->st_mode);
}

std::vector<Transfer> TransfersOf(const TransferOptions& options)
{
    std::vector<std::string> sources = options.operands;
    std::string directory = options.directory;
    if (!options.hasDirectory) {
        directory = sources.back();
        sources.pop_back();
        if (sources.size() == 1 && !IsDirectory(directory)) {
            return {{sources.front(), directory}};
        }
    }
    RequireDirectory(directory);
    std::vector<Transfer> transfers;
    transfers.reserve(sources.size());
    for (const std::string& source : sources) {
        transfers.push_back(Into(directory, source));
    }
    return transfers;
}

// ---- One file

// What move and copy differ in.
struct Kind {
    const char* verb;
    const char* progress;
    bool (*function)(const std::string&, const std::string&, const orv_safe::FileOptions&);
};

const Kind kMove = {"move", "moving", orv_safe::MoveFile};
const Kind kCopy = {"copy", "copying", orv_safe::CopyFile};

std::string Problem(const Kind& kind, const Transfer& transfer)
{
    return std::string("cannot ") + kind.verb + " " + Quoted(transfer.source) + " to " + Quoted(transfer.destination);
}

// The problem is about two paths, so the reason must say which of them it is about.
[[noreturn]] void Fail(const std::string& problem, const std::vector<Report>& reports)
{
    const Explanation why = ExplainFailure(reports);
    const bool isNumberOnly = why.reason == why.errorText;
    throw Failure(problem + ": " + (isNumberOnly ? why.meaning + ": " : "") + why.reason, why.todo);
}

// The content would not be lost, but one name of it would be, or two names of one file would become two files. Neither
// is what anybody wants.
void RefuseSameFile(const Transfer& transfer, const struct stat& source, bool isMove)
{
    const std::optional<struct stat> to = isMove ? LinkStatusOf(transfer.destination) : StatusOf(transfer.destination);
    if (to && IsSameFile(source, *to)) {
        throw Failure(Quoted(transfer.source) + " and " + Quoted(transfer.destination) + " are the same file",
                      "nothing was changed; choose another destination");
    }
}

void RefuseExisting(const std::string& destination)
{
    if (LinkStatusOf(destination)) {
        throw Failure(Quoted(destination) + " exists",
                      "omit --no-replace to replace it, or choose another destination");
    }
}

// For the progress function of orv_safe: shows the progress, and cancels after a signal.
bool Hear(void* progress, uint64_t done, uint64_t total)
{
    static_cast<Progress*>(progress)->Show(done, total);
    return CaughtSignal() == 0;
}

void RunSafely(const Kind& kind, const TransferOptions& options, const Transfer& transfer)
{
    Progress progress(kind.progress);
    orv_safe::FileOptions how;
    how.durable = options.durable;
    how.verify = options.verify;
    how.preserve = options.preserve;
    how.noReplace = options.noReplace;
    how.progress = Hear;
    how.progressContext = &progress;
    if (!kind.function(transfer.source, transfer.destination, how)) {
        Fail(Problem(kind, transfer), TakeReports());
    }
}

// The function of the library is also true if it could not remove the source, and reports no failed read.
void MovePlainly(const Transfer& transfer)
{
    const bool isMoved = orv_fileutils::RenameFileAcrossFs(transfer.source, transfer.destination);
    const int error = errno;
    const std::vector<Report> reports = TakeReports();
    if (!isMoved && reports.empty()) {
        throw Failure(Problem(kMove, transfer) + ": cannot read " + Quoted(transfer.source) + ": " + ErrorText(error),
                      RemedyOf(error, transfer.source));
    }
    if (!reports.empty()) {
        Fail(isMoved
                 ? "the content is at " + Quoted(transfer.destination) + ", and " + Quoted(transfer.source) + " is kept"
                 : Problem(kMove, transfer),
             reports);
    }
}

void RunOne(const Kind& kind, const TransferOptions& options, const Transfer& transfer)
{
    const struct stat source = RequireRegularFile(transfer.source);
    if (options.noReplace) {
        RefuseExisting(transfer.destination);
    }
    RequireReplaceable(transfer.destination);
    RefuseSameFile(transfer, source, &kind == &kMove);
    if (options.plain) {
        MovePlainly(transfer);
    } else {
        RunSafely(kind, options, transfer);
    }
}

// ---- All files

// The files that this call has written. A later source of the same name must not replace one of them, because a move
// would lose it. Paths are not compared: some file systems do not distinguish capital letters.
class Written {
public:
    explicit Written(std::size_t most)
    {
        files_.reserve(most);
    }

    void Refuse(const Transfer& transfer) const
    {
        const std::optional<struct stat> there = LinkStatusOf(transfer.destination);
        const auto isThere = [&there](const struct stat& file) { return IsSameFile(file, *there); };
        if (there && std::any_of(files_.begin(), files_.end(), isThere)) {
            throw Failure(Quoted(transfer.source) + " would replace " + Quoted(transfer.destination) +
                              ", which was written just before",
                          "give the files different names, or move or copy them one by one");
        }
    }

    // Needs no memory, because a failure would say that the file was not written.
    void Add(const std::string& path)
    {
        if (const std::optional<struct stat> status = LinkStatusOf(path)) {
            files_.push_back(*status);
        }
    }

private:
    std::vector<struct stat> files_;
};

// A failure of one file does not keep others from being moved or copied.
ExitStatus RunAll(const Kind& kind, const TransferOptions& options)
{
    ExitStatus result = kDone;
    const std::vector<Transfer> transfers = TransfersOf(options);
    Written written(transfers.size());
    CatchSignals();
    for (const Transfer& transfer : transfers) {
        try {
            written.Refuse(transfer);
            RunOne(kind, options, transfer);
            written.Add(transfer.destination);
        } catch (const Failure& failure) {
            PrintProblem(failure.what(), failure.Next());
            result = kFailed;
        }
        if (CaughtSignal() != 0) {
            EndBySignal(CaughtSignal());
        }
    }
    return result;
}

}  // namespace

ExitStatus Exists(const std::vector<std::string>& paths)
{
    ExitStatus result = kDone;
    for (const std::string& path : paths) {
        if (orv_fileutils::FileExists(path.c_str())) {
            continue;
        }
        result = kFailed;
        try {
            (void)RequireRegularFile(path);
        } catch (const Failure& reason) {
            if (!IsQuiet()) {
                PrintProblem(reason.what(), reason.Next());
            }
        }
    }
    return result;
}

ExitStatus Move(const TransferOptions& options)
{
    return RunAll(kMove, options);
}

ExitStatus Copy(const TransferOptions& options)
{
    return RunAll(kCopy, options);
}
