// mkdir and list.

#include "commands.h"
#include "json.h"

#include <LxFileUtils.h>

#include <dirent.h>
#include <libgen.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>

namespace {

const std::size_t kMaxPathBytes = 1024;  // the longest path that the library accepts

// The nearest directory above `path` that exists. The library makes directories below it.
std::string ExistingParent(const std::string& path)
{
    std::string parent = path;
    do {
        parent = dirname(parent.data());  // shortens in place, or returns a constant
    } while (parent != "/" && parent != "." && !StatusOf(parent));
    return parent;
}

void RequireDirectoryOrNothing(const std::string& path)
{
    const std::optional<struct stat> status = StatusOf(path);
    if (status && !S_ISDIR(status->st_mode)) {
        throw Failure(Quoted(path) + " exists and is not a directory", "remove it, or choose another path");
    }
}

void RefuseUnbuildable(const std::string& path)
{
    if (path.empty()) {
        throw Failure("the path is empty", "give the path of a directory");
    }
    if (path.size() > kMaxPathBytes) {
        throw Failure(
            "a path of " + std::to_string(path.size()) + " bytes is too long: " + Quoted(path.substr(0, 40)) + "...",
            "use at most " + std::to_string(kMaxPathBytes) + " bytes, or a relative path");
    }
    const std::string parent = ExistingParent(path);
    if (!StatusOf(path) && (parent == "/" || parent == ".")) {
        throw Failure("cannot make " + Quoted(path) + ": its topmost missing directory would be directly below " +
                          Quoted(parent) + (parent == "." ? ", the current directory" : ", the root directory"),
                      "make that directory with mkdir(1) first" +
                          std::string(parent == "." ? ", or give the absolute path" : "") +
                          "; the library never makes directories there, so that a wrong path does no harm");
    }
}

void RequireMode(const std::string& path, mode_t mode)
{
    const std::optional<struct stat> status = StatusOf(path);
    if (!status || (status->st_mode & 07777) != mode) {
        throw Failure("cannot set the requested mode of " + Quoted(path),
                      "set it with chmod(1), as the owner of the directory or as root");
    }
}

void MakeDirectory(const std::string& path, const MkdirOptions& options)
{
    RequireDirectoryOrNothing(path);
    RefuseUnbuildable(path);
    if (!orv_fileutils::MakeDirPath(path.c_str(), options.mode, options.exactMode)) {
        const int error = errno;
        throw Failure("cannot make " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
    }
    RequireDirectoryOrNothing(path);  // another process may have made a file there
    if (options.exactMode) {
        RequireMode(path, options.mode);
    }
}

// Counts the entries whose type the file system does not record. The library does not list them.
std::size_t UntypedEntries(const std::string& path)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    std::size_t untyped = 0;
    const struct dirent* entry = nullptr;
    while (directory && (entry = readdir(directory.get())) != nullptr) {
        const std::string name = entry->d_name;
        untyped += entry->d_type == DT_UNKNOWN && name != "." && name != ".." ? 1U : 0U;
    }
    return untyped;
}

void WarnOfUntypedEntries(const std::string& directory)
{
    const std::size_t untyped = UntypedEntries(directory);
    if (untyped != 0) {
        Warn("the file system of " + Quoted(directory) + " does not record entry types: " + std::to_string(untyped) +
                 " entries were ignored, so the list may be incomplete",
             "use ls(1) or find(1) on this file system");
    }
}

std::string Joined(const std::list<std::string>& names, char end)
{
    std::string text;
    for (const std::string& name : names) {
        text += name + end;
    }
    return text;
}

}  // namespace

ExitStatus MakeDirectories(const MkdirOptions& options)
{
    ExitStatus result = kDone;
    for (const std::string& path : options.paths) {
        try {
            MakeDirectory(path, options);
        } catch (const Failure& failure) {
            PrintProblem(failure.what(), failure.Next());
            result = kFailed;
        }
    }
    return result;
}

ExitStatus List(const ListOptions& options)
{
    std::list<std::string> names;
    if (!orv_fileutils::GetDirFileList(options.directory.c_str(), options.include.c_str(), options.exclude.c_str(),
                                       names, options.fullPath, /*clearList=*/true, /*logOpenError=*/true)) {
        const int error = errno;
        if (options.directory.empty()) {
            throw Failure("the path is empty", "give the path of a directory");
        }
        throw Failure("cannot list " + Quoted(options.directory) + ": " + ErrorText(error),
                      Remedy(error, options.directory));
    }
    WarnOfUntypedEntries(options.directory);
    if (options.json) {
        PrintResult(JsonText(names) + "\n");
        return kDone;
    }
    const std::string lines = Joined(names, options.zero ? '\0' : '\n');
    if (!options.zero && static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')) != names.size()) {
        Warn("a name contains a line feed, so the list is ambiguous", "use -0 or --json");
    }
    PrintResult(lines);
    return kDone;
}
