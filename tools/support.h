// Failures, messages and results, for all commands of orvfile.
#ifndef ORV_TOOLS_SUPPORT_H
#define ORV_TOOLS_SUPPORT_H

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "explain.h"
#include "log.h"

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2, kMissing = 3 };

// Says what went wrong and what the user can do about it. Commands throw it, main prints it.
class Failure : public std::runtime_error {
public:
    Failure(const std::string& problem, const std::string& next) : std::runtime_error(problem), next_(next)
    {
    }

    const std::string& Next() const
    {
        return next_;
    }

private:
    std::string next_;
};

// Explains the first of the lines that reports a failure and can be explained: later ones report what followed from it.
Explanation ExplainFailure(const std::vector<Report>& reports);

// Throws Failure: "PROBLEM: REASON", and what to do. Both come from the lines since TakeReports() was called.
[[noreturn]] void FailByReports(const std::string& problem);

// Whether to suppress notes, warnings and progress. Failures are always printed.
void SetQuiet(bool quiet);
bool IsQuiet();

// Prints "orvfile: PROBLEM" and "  Next: NEXT" to standard error.
void PrintProblem(const std::string& problem, const std::string& next);
void Warn(const std::string& problem, const std::string& next);  // unless quiet

// Writes to standard output and flushes it. Throws Failure if that fails.
void PrintResult(const std::string& bytes);

// Adds quotation marks and escapes control characters and backslashes, so that terminals and logs are safe.
std::string Quoted(const std::string& text);

// The system's text for an error number.
std::string ErrorText(int error);

std::optional<struct stat> StatusOf(const std::string& path);      // follows links
std::optional<struct stat> LinkStatusOf(const std::string& path);  // does not follow links
bool IsSameFile(const struct stat& one, const struct stat& other);

// Throws Failure with the reason unless `path` is a regular file.
struct stat RequireRegularFile(const std::string& path);

// Throws Failure with the reason unless a new file may replace what is at `path`: nothing, a regular file, or a link to
// either. A link to an open file, such as /dev/stdout, is refused: it is the system's, and whoever names it wants to
// write to the open file.
void RequireReplaceable(const std::string& path);

// Closes the descriptor in its destructor.
class Descriptor {
public:
    explicit Descriptor(int number) : number_(number)
    {
    }
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const  // NOLINT(google-explicit-constructor): stands for the number
    {
        return number_;
    }

private:
    int number_;
};

#endif  // ORV_TOOLS_SUPPORT_H
