// list.

#include "commands.h"
#include "json.h"

#include <LxFileUtils.h>

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>

namespace {

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
