// page.

#include "commands.h"
#include "watch.h"

#include <LxFileUtils.h>

#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace {

bool CanRead(const std::string& path)
{
    return orv_fileutils::FileExists(path.c_str()) && std::ifstream(path).is_open();
}

// Without this check, the library would publish an empty page.
void RequireReadable(const std::string& table)
{
    (void)RequireRegularFile(table);
    if (!CanRead(table)) {
        const int error = errno;
        throw Failure("cannot read " + Quoted(table) + ": " + ErrorText(error), Remedy(error, table));
    }
}

std::size_t TablesIn(const std::string& path)
{
    std::ifstream file(path);
    std::size_t tables = 0;
    for (std::string line; std::getline(file, line);) {
        tables += line.empty() ? 0U : 1U;
    }
    return tables;
}

// If /var/tmp is full, the page is incomplete, and the library does not report it.
bool IsWholePage(const std::string& path)
{
    static const std::string kFooter = "</body></html></KPX_PLD>";
    std::ifstream file(path, std::ios::binary);
    std::string end(kFooter.size(), '\0');
    file.seekg(-static_cast<std::streamoff>(end.size()), std::ios::end);
    return file.read(&end[0], static_cast<std::streamsize>(end.size())) && end == kFooter;
}

// A new page is always a new file, whether it was renamed or copied.
bool IsReplaced(const std::optional<struct stat>& before, const std::optional<struct stat>& after)
{
    return after && (!before || !IsSameFile(*before, *after));
}

void Publish(const PageOptions& options)
{
    const std::optional<struct stat> before = LinkStatusOf(options.page);
    orv_fileutils::GenHtmlPagefromTextFile(options.table.c_str(), options.page.c_str());
    const std::optional<struct stat> after = LinkStatusOf(options.page);
    (void)unlink(("/var/tmp/TextToHtml_" + std::to_string(getpid()) + ".tmp").c_str());  // left by a failed move
    if (!IsReplaced(before, after)) {
        throw Failure("cannot publish " + Quoted(options.page) + "; nothing was replaced",
                      "check that its directory exists and is writable, that it is not a directory itself, and that "
                      "/var/tmp is writable; the lines above name the call that failed");
    }
    if (!IsWholePage(options.page)) {
        throw Failure("an incomplete page was published at " + Quoted(options.page),
                      "free space in /var/tmp (df /var/tmp), then publish it again");
    }
    if (!IsQuiet()) {
        const std::size_t tables = TablesIn(options.table);
        PrintResult("published " + Quoted(options.page) + ": " + std::to_string(tables) +
                    (tables == 1 ? " table, " : " tables, ") + std::to_string(after->st_size) + " bytes\n");
    }
}

void Follow(const PageOptions& options, FileWatch& watch)
{
    while (watch.Wait()) {
        if (options.allowEmpty || CanRead(options.table)) {
            Publish(options);
        } else {
            Warn("cannot read " + Quoted(options.table) + "; the page is not changed",
                 "restore the file, and the page is published again");
        }
    }
}

}  // namespace

ExitStatus Page(const PageOptions& options)
{
    const std::optional<struct stat> table = StatusOf(options.table);
    const std::optional<struct stat> page = StatusOf(options.page);
    if (table && page && IsSameFile(*table, *page)) {
        throw Failure(Quoted(options.table) + " and " + Quoted(options.page) + " are the same file",
                      "nothing was changed; name another file for the page");
    }
    if (!options.allowEmpty) {
        RequireReadable(options.table);
    }
    if (!options.watch) {
        Publish(options);
        return kDone;
    }
    FileWatch watch(options.table);  // first, so that no change is missed
    Publish(options);
    Follow(options, watch);
    return kDone;
}
