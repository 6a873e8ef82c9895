// What the commands of orvfile share: failures, messages, results.
#ifndef ORV_TOOLS_SUPPORT_H
#define ORV_TOOLS_SUPPORT_H

#include <sys/stat.h>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

// What went wrong, and what the user does about it. Thrown by commands, printed by main.
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

// Whether notes, warnings and progress are wanted; failures always are.
void SetQuiet(bool quiet);
bool IsQuiet();

// "orvfile: PROBLEM" and "  Next: NEXT" on standard error.
void PrintProblem(const std::string& problem, const std::string& next);
void Warn(const std::string& problem, const std::string& next);  // unless quiet

// Writes to standard output at once; throws Failure when that cannot take it.
void PrintResult(const std::string& bytes);

// In quotation marks, with control characters and backslashes escaped: safe for terminals and logs.
std::string Quoted(const std::string& text);

// The system's text for an error number.
std::string ErrorText(int error);

// What to do about an error number on `path`.
std::string Remedy(int error, const std::string& path);

std::optional<struct stat> StatusOf(const std::string& path);      // links followed
std::optional<struct stat> LinkStatusOf(const std::string& path);  // links not followed
bool IsSameFile(const struct stat& one, const struct stat& other);

// Fails, with the reason, unless `path` is a regular file.
struct stat RequireRegularFile(const std::string& path);

// A descriptor that closes itself.
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
