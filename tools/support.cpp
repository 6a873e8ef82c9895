#include "support.h"

#include "dlog_text.h"
#include "explain.h"
#include "log.h"
#include "signals.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

namespace {

bool quiet = false;

std::string TypeName(mode_t mode)
{
    switch (mode & S_IFMT) {
        case S_IFDIR:
            return "a directory";
        case S_IFIFO:
            return "a FIFO";
        case S_IFSOCK:
            return "a socket";
        default:
            return "a device";
    }
}

}  // namespace

Explanation ExplainFailure(const std::vector<Report>& reports)
{
    for (const Report& report : reports) {
        std::optional<Explanation> explanation = Explain(report.text);
        if (explanation && !explanation->isNote) {
            return *explanation;
        }
    }
    return {{}, {}, "read the lines above", {}, {}, {}, "the lines above say why"};
}

void FailByReports(const std::string& problem)
{
    const Explanation explanation = ExplainFailure(TakeReports());
    throw Failure(problem + ": " + explanation.reason, explanation.todo);
}

void SetQuiet(bool wanted)
{
    quiet = wanted;
}

bool IsQuiet()
{
    return quiet;
}

void PrintProblem(const std::string& problem, const std::string& next)
{
    PrintLines("orvfile: " + problem + "\n  Next: " + next + "\n");
}

void Warn(const std::string& problem, const std::string& next)
{
    if (!quiet) {
        PrintProblem("warning: " + problem, next);
    }
}

void PrintResult(const std::string& bytes)
{
    std::cout << bytes << std::flush;
    if (!std::cout) {
        if (errno == EPIPE) {
            EndByClosedPipe();
        }
        throw Failure("cannot write to standard output: " + ErrorText(errno),
                      "redirect it to a file, pipe or terminal that accepts the result");
    }
}

std::string Quoted(const std::string& text)
{
    std::string quoted = "'";
    dlog_text::AppendEscaped(quoted, text);
    return quoted + "'";
}

std::string ErrorText(int error)
{
    return std::strerror(error);
}

std::optional<struct stat> StatusOf(const std::string& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

std::optional<struct stat> LinkStatusOf(const std::string& path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return status;
}

bool IsSameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

struct stat RequireRegularFile(const std::string& path)
{
    const std::optional<struct stat> status = StatusOf(path);
    if (!status) {
        const int error = errno;
        throw Failure(Quoted(path) + ": " + ErrorText(error), RemedyOf(error, path));
    }
    if (!S_ISREG(status->st_mode)) {
        throw Failure(Quoted(path) + " is " + TypeName(status->st_mode) + ", not a regular file",
                      "name a regular file");
    }
    return *status;
}

void RequireReplaceable(const std::string& path)
{
    static const std::string kOpenFiles = "/proc/";
    std::error_code isNoLink;
    if (std::filesystem::read_symlink(path, isNoLink).string().compare(0, kOpenFiles.size(), kOpenFiles) == 0) {
        throw Failure(Quoted(path) + " is a link to an open file", "name the file that is to be made or replaced");
    }
    if (StatusOf(path)) {
        (void)RequireRegularFile(path);
    }
}

Descriptor::~Descriptor()
{
    if (number_ != -1) {
        (void)close(number_);
    }
}
