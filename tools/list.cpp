// list.

#include "commands.h"
#include "explain.h"
#include "json.h"
#include "quoting.h"

#include <orv/safe.h>

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <system_error>
#include <tuple>

namespace {

typedef std::vector<orv_safe::ListedFile> Files;

std::string Joined(const std::string& directory, const std::string& name)
{
    return directory.empty() || directory.back() == '/' ? directory + name : directory + "/" + name;
}

// ---- The files of a directory, and of those below it

[[noreturn]] void FailToList(const std::string& path, const std::error_code& error)
{
    throw Failure("cannot list " + Quoted(path) + ": " + error.message(), RemedyOf(error.value(), path));
}

// Asks the file system only for entries of which it does not record the type. An entry may be gone meanwhile.
bool IsDirectory(const std::filesystem::directory_entry& entry)
{
    std::error_code error;
    const bool isDirectory = !entry.is_symlink(error) && entry.is_directory(error);
    if (error && error != std::errc::no_such_file_or_directory) {
        FailToList(entry.path(), error);
    }
    return isDirectory;
}

// In the order of their names, without links to directories.
std::vector<std::string> Subdirectories(const std::string& path)
{
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(path, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (IsDirectory(*entry)) {
            names.push_back(entry->path().filename());
        }
    }
    if (error) {
        FailToList(path, error);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class Collector {
public:
    explicit Collector(const ListOptions& options) : options_(options)
    {
        listing_.followLinks = options.follow;
        listing_.status = options.details || options.sort != ListOptions::Sort::kName || options.olderThanSeconds ||
                          options.largerThanBytes;
    }

    // A subdirectory that cannot be read is reported, and the others are read. Then the result is kFailed.
    ExitStatus Collect(Files& files)
    {
        Enter("", files);
        ExitStatus result = kDone;
        while (!pending_.empty()) {
            const std::string below = pending_.back();
            pending_.pop_back();
            try {
                Enter(below, files);
            } catch (const Failure& failure) {
                PrintProblem(failure.what(), failure.Next());
                result = kFailed;
            }
        }
        return result;
    }

private:
    // Adds the files of the directory `below` that of the options. Their names begin with `below`.
    void Enter(const std::string& below, Files& files)
    {
        const std::string path = below.empty() ? options_.directory : Joined(options_.directory, below);
        Files own;
        if (!orv_safe::ListFiles(path, options_.include, options_.exclude, own, listing_)) {
            FailByReports("cannot list " + Quoted(path));
        }
        for (orv_safe::ListedFile& file : own) {
            file.name = Joined(below, file.name);
            files.push_back(file);
        }
        if (options_.recursive) {
            const std::vector<std::string> names = Subdirectories(path);
            std::for_each(names.rbegin(), names.rend(),
                          [&](const std::string& name) { pending_.push_back(Joined(below, name)); });
        }
    }

    const ListOptions& options_;
    orv_safe::ListOptions listing_;
    std::vector<std::string> pending_;  // the directories to enter, the next one last
};

// ---- Selection and order

bool IsOlder(const orv_safe::ListedFile& file, std::int64_t seconds, const struct timespec& now)
{
    const std::int64_t limit = now.tv_sec - seconds;
    return std::tie(file.modifiedSeconds, file.modifiedNanoseconds) < std::tie(limit, now.tv_nsec);
}

void Select(const ListOptions& options, Files& files)
{
    struct timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const auto isUnwanted = [&](const orv_safe::ListedFile& file) {
        return (options.olderThanSeconds && !IsOlder(file, *options.olderThanSeconds, now)) ||
               (options.largerThanBytes && file.bytes <= *options.largerThanBytes);
    };
    files.erase(std::remove_if(files.begin(), files.end(), isUnwanted), files.end());
}

// The newest and the largest come first. Files of the same time or size are in the order of their names.
bool ComesBefore(ListOptions::Sort sort, const orv_safe::ListedFile& left, const orv_safe::ListedFile& right)
{
    switch (sort) {
        case ListOptions::Sort::kTime:
            return std::tie(right.modifiedSeconds, right.modifiedNanoseconds, left.name) <
                   std::tie(left.modifiedSeconds, left.modifiedNanoseconds, right.name);
        case ListOptions::Sort::kSize:
            return std::tie(right.bytes, left.name) < std::tie(left.bytes, right.name);
        default:
            return left.name < right.name;
    }
}

void Order(const ListOptions& options, Files& files)
{
    std::sort(files.begin(), files.end(), [&](const orv_safe::ListedFile& left, const orv_safe::ListedFile& right) {
        return ComesBefore(options.sort, left, right);
    });
    if (options.reverse) {
        std::reverse(files.begin(), files.end());
    }
}

// Removes the files that are skipped, and those beyond the limit.
void Cut(const ListOptions& options, Files& files)
{
    const std::int64_t all = static_cast<std::int64_t>(files.size());
    const std::int64_t first = std::min(options.skip.value_or(0), all);
    const std::int64_t count = std::min(options.limit.value_or(all), all - first);
    files.resize(static_cast<std::size_t>(first + count));
    files.erase(files.begin(), files.begin() + static_cast<std::ptrdiff_t>(first));
}

// ---- Output

// A time that has no date, because its year is too large, is shown as "@SECONDS".
std::string Date(std::int64_t seconds, bool utc)
{
    const time_t time = seconds;
    struct tm parts;
    if ((utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts)) == nullptr) {
        return "@" + std::to_string(seconds);
    }
    std::ostringstream text;
    text << std::put_time(&parts, utc ? "%Y-%m-%dT%H:%M:%SZ" : "%Y-%m-%dT%H:%M:%S%z");
    return text.str();
}

std::string Json(const ListOptions& options, const Files& files)
{
    std::vector<std::string> names;
    std::vector<FileDetails> details;
    for (const orv_safe::ListedFile& file : files) {
        names.push_back(file.name);
        details.push_back({file.name, file.bytes, Date(file.modifiedSeconds, /*utc=*/true)});
    }
    return (options.details ? JsonArray(details) : JsonArray(names)) + "\n";
}

std::size_t WidthOfSizes(const Files& files)
{
    std::int64_t most = 0;
    for (const orv_safe::ListedFile& file : files) {
        most = std::max<std::int64_t>(most, file.bytes);
    }
    return std::to_string(most).size();
}

std::string Lines(const ListOptions& options, const Files& files, bool forPeople)
{
    const std::size_t width = WidthOfSizes(files);
    std::string lines;
    for (const orv_safe::ListedFile& file : files) {
        if (options.details) {
            const std::string size = std::to_string(file.bytes);
            lines +=
                std::string(width - size.size(), ' ') + size + " " + Date(file.modifiedSeconds, /*utc=*/false) + " ";
        }
        lines += forPeople ? TerminalWord(file.name) : file.name;
        lines += options.zero ? '\0' : '\n';
    }
    return lines;
}

void Print(const ListOptions& options, const Files& files)
{
    if (options.json) {
        PrintResult(Json(options, files));
        return;
    }
    const bool forPeople = !options.zero && isatty(STDOUT_FILENO) == 1;
    const bool isAmbiguous =
        !options.zero && !forPeople && std::any_of(files.begin(), files.end(), [](const orv_safe::ListedFile& file) {
            return file.name.find('\n') != std::string::npos;
        });
    if (isAmbiguous) {
        Warn("a name contains a line feed, so the list is ambiguous", "use -0 or --json");
    }
    PrintResult(Lines(options, files, forPeople));
}

}  // namespace

ExitStatus List(const ListOptions& options)
{
    Files files;
    const ExitStatus result = Collector(options).Collect(files);
    Select(options, files);
    Order(options, files);
    Cut(options, files);
    if (options.fullPath) {
        for (orv_safe::ListedFile& file : files) {
            file.name = Joined(options.directory, file.name);
        }
    }
    Print(options, files);
    return result;
}
