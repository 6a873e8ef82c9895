// Benchmarks of making directory paths and listing directories.

#include "LxFileUtils.h"
#include "support/bench.h"
#include "support/files.h"

#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

#ifdef ORV_BENCH_BOOST
#include <boost/filesystem.hpp>
#endif
#ifdef ORV_BENCH_GLIB
#include <glib/gstdio.h>
#endif

namespace bench {

namespace {

namespace fs = std::filesystem;
#ifdef ORV_BENCH_BOOST
namespace bfs = boost::filesystem;
#endif

const mode_t kMode = 0755;

// ---- Making paths

// Paths; each call makes another one. If there are no levels to make, the path exists.
struct Paths : Fixture {
    ScratchDir dir;
    std::vector<std::string> paths;
    std::size_t next = 0;

    Paths(std::size_t levels, long count)
    {
        for (long i = 0; i < count; ++i) {
            std::string path = dir / std::to_string(i);
            fs::create_directory(path);
            for (std::size_t level = 0; level < levels; ++level) {
                path += "/d";
            }
            paths.push_back(path);
        }
    }

    const char* Next()
    {
        const char* const path = paths[next].c_str();
        next = (next + 1) % paths.size();
        return path;
    }

    [[nodiscard]] std::string After() const
    {
        struct stat status = {};
        return stat(paths[0].c_str(), &status) == 0 ? std::to_string(status.st_mode) : "missing";
    }
};

// The system calls of MakeDirPath: a status call for the path, then for each parent up to one that exists, and a mkdir
// for each level on the way down.
bool FloorMakePath(const char* path)
{
    struct stat status;
    if (stat(path, &status) == 0) {
        return true;
    }
    const std::size_t bytes = std::strlen(path);
    char cut[1025];
    std::memcpy(cut, path, bytes + 1);
    std::size_t end = bytes;
    do {
        while (cut[--end] != '/') {
        }
        cut[end] = '\0';
    } while (stat(cut, &status) != 0);
    while (end != bytes) {
        cut[end] = '/';
        end += std::strlen(cut + end);
        if (mkdir(cut, kMode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

void AddMakePath(std::size_t levels, long calls)
{
    Workload workload = {"make_path/" + (levels == 0 ? "existing" : "levels:" + std::to_string(levels)),
                         levels == 0 ? 1.0 : static_cast<double>(levels), levels == 0 ? "call" : "level"};
    const long count = levels == 0 ? 1 : calls + 1;
    if (levels != 0) {
        workload.calls = calls;
    }
    const auto make = [levels, count] { return Paths(levels, count); };
    Add(workload, "ours", make,
        [](Paths& paths) { return orv_fileutils::MakeDirPath(paths.Next(), kMode, /*applyMode=*/false); });
    Add(workload, "floor", make, [](Paths& paths) { return FloorMakePath(paths.Next()); });
    Add(workload, "std::filesystem", make, [](Paths& paths) {
        std::error_code error;
        fs::create_directories(paths.Next(), error);
        return !error;
    });
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost.Filesystem", make, [](Paths& paths) {
        boost::system::error_code error;
        bfs::create_directories(paths.Next(), error);
        return !error;
    });
#endif
#ifdef ORV_BENCH_GLIB
    Add(workload, "g_mkdir_with_parents", make,
        [](Paths& paths) { return g_mkdir_with_parents(paths.Next(), kMode) == 0; });
#endif
    AddProcess(workload, "mkdir -p", make, [](Paths& paths) { return RunProgram({"mkdir", "-p", paths.Next()}); });
}

// ---- Listings

struct Filter {
    std::string include;  // no pattern if empty
    std::string exclude;
    bool withPath = false;
};

// A directory with the names of a device's spool directory, unsorted.
struct Directory : Fixture {
    std::string path;
    Filter filter;
};

void MakeFiles(const std::string& path, std::size_t files)
{
    const char* const prefixes[] = {"status_", "event_", "tmp_", "trace_"};
    const char* const suffixes[] = {".log", ".txt", ".bak"};
    std::vector<std::string> names;
    for (std::size_t i = 0; i < files; ++i) {
        names.push_back('/' + (prefixes[i % 4] + std::to_string(i)) + suffixes[i % 3]);
    }
    std::shuffle(names.begin(), names.end(), std::mt19937(1));
    fs::create_directory(path);
    fs::create_directory(path + "/directory");
    fs::create_symlink("directory", path + "/link");
    for (const std::string& name : names) {
        const int descriptor = open((path + name).c_str(), O_WRONLY | O_CREAT, 0600);
        (void)close(descriptor);
    }
}

// Calls a function for each name in the directory.
template <typename Gather>
bool ReadNames(const Directory& directory, const Gather& gather)
{
    DIR* const stream = opendir(directory.path.c_str());
    if (stream == nullptr) {
        return false;
    }
    while (const struct dirent* const entry = readdir(stream)) {
        if (entry->d_type == DT_REG) {
            gather(entry->d_name);
        }
    }
    (void)closedir(stream);
    return true;
}

// Matches the two patterns of the workloads by hand: the least possible cost of a filter.
bool FloorWants(const Filter& filter, const char* name, std::size_t bytes)
{
    const std::string_view text(name, bytes);
    const std::string_view suffix = std::string_view(filter.include).substr(filter.include.empty() ? 0 : 1);
    const std::string_view prefix(filter.exclude.data(), filter.exclude.empty() ? 0 : filter.exclude.size() - 1);
    return (suffix.empty() || (bytes >= suffix.size() && text.substr(bytes - suffix.size()) == suffix)) &&
           (prefix.empty() || text.substr(0, prefix.size()) != prefix);
}

// A name in the block of all names. Most comparisons need only its first bytes, as a number.
struct NameKey {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    std::uint32_t place;
    std::uint32_t bytes;

    NameKey(const char* name, std::size_t nameBytes, std::size_t namePlace)
        : place(static_cast<std::uint32_t>(namePlace)), bytes(static_cast<std::uint32_t>(nameBytes))
    {
        char head[kHeadBytes] = {};
        std::memcpy(head, name, std::min(nameBytes, kHeadBytes));
        std::memcpy(&first, head, sizeof first);
        std::memcpy(&second, head + sizeof first, sizeof second);
        first = be64toh(first);
        second = be64toh(second);
    }

    static constexpr std::size_t kHeadBytes = 16;
};

// The floor: gathers the names in one block, sorts them by their keys, and then makes the list in order.
std::list<std::string> FloorList(const Directory& directory)
{
    std::string block;
    std::vector<NameKey> names;
    ReadNames(directory, [&](const char* name) {
        const std::size_t bytes = std::strlen(name);
        if (FloorWants(directory.filter, name, bytes)) {
            names.emplace_back(name, bytes, block.size());
            block.append(name, bytes);
        }
    });
    std::sort(names.begin(), names.end(), [&block](const NameKey& left, const NameKey& right) {
        if (left.first != right.first) {
            return left.first < right.first;
        }
        if (left.second != right.second) {
            return left.second < right.second;
        }
        return block.compare(left.place, left.bytes, block, right.place, right.bytes) < 0;
    });
    std::list<std::string> list;
    if (!directory.filter.withPath) {
        for (const NameKey& name : names) {
            list.emplace_back(block, name.place, name.bytes);
        }
        return list;
    }
    const std::string prefix = directory.path + '/';
    for (const NameKey& name : names) {
        std::string& element = list.emplace_back();
        element.reserve(prefix.size() + name.bytes);
        element.append(prefix).append(block, name.place, name.bytes);
    }
    return list;
}

bool PeerWants(const Filter& filter, const char* name)
{
    return (filter.include.empty() || fnmatch(filter.include.c_str(), name, 0) == 0) &&
           (filter.exclude.empty() || fnmatch(filter.exclude.c_str(), name, 0) != 0);
}

// scandir(3) passes only the entry to its function. In the C locale, alphasort compares bytes.
const Directory* scanned = nullptr;

int IsWantedByScan(const struct dirent* entry)
{
    return entry->d_type == DT_REG && PeerWants(scanned->filter, entry->d_name) ? 1 : 0;
}

// The result of scandir(3).
class Scan {
public:
    explicit Scan(const Directory& directory) : directory_(&directory)
    {
        scanned = &directory;
        count_ = scandir(directory.path.c_str(), &entries_, IsWantedByScan, alphasort);
    }

    ~Scan()
    {
        for (int i = 0; i < count_; ++i) {
            std::free(entries_[i]);
        }
        std::free(entries_);
    }

    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    [[nodiscard]] std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (int i = 0; i < count_; ++i) {
            names.push_back((directory_->filter.withPath ? directory_->path + '/' : std::string()) +
                            entries_[i]->d_name);
        }
        return names;
    }

private:
    const Directory* directory_;
    struct dirent** entries_ = nullptr;
    int count_ = 0;
};

std::string Text(const Scan& scan)
{
    return bench::Text(scan.Names());
}

// With paths, strings must be made too.
std::vector<std::string> ScanWithPath(const Directory& directory)
{
    return Scan(directory).Names();
}

// For both std::filesystem and Boost.Filesystem.
template <typename Iterator>
std::vector<std::string> ListByIterator(const Directory& directory)
{
    std::vector<std::string> names;
    for (Iterator entry(directory.path), end; entry != end; ++entry) {
        if (is_symlink(entry->symlink_status()) || !is_regular_file(entry->status())) {
            continue;
        }
        const std::string name = entry->path().filename().string();
        if (PeerWants(directory.filter, name.c_str())) {
            names.push_back(directory.filter.withPath ? entry->path().string() : name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Lets `sort` write to a file, because something must read the names.
struct FoundDirectory : Directory {
    ScratchDir dir;

    explicit FoundDirectory(Directory directory) : Directory(std::move(directory))
    {
    }

    [[nodiscard]] std::string Command() const
    {
        return "find '" + path + "' -maxdepth 1 -type f " +
               (filter.include.empty() ? "" : "-name '" + filter.include + "' ") +
               (filter.exclude.empty() ? "" : "! -name '" + filter.exclude + "' ") + "-printf '" +
               (filter.withPath ? "%p" : "%f") + "\\n' | LC_ALL=C sort > '" + (dir / "names") + '\'';
    }

    [[nodiscard]] std::string Names() const
    {
        std::ifstream file(dir / "names");
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
};

// The output of the shell's command.
struct FoundNames {
    const FoundDirectory* directory;
};

std::string Text(const FoundNames& found)
{
    return found.directory->Names();
}

void AddListing(const std::string& name, std::size_t files, const Filter& filter)
{
    const Workload workload = {name + ':' + std::to_string(files),
                               static_cast<double>(files),
                               "entry",
                               /*calls=*/files >= 1000000 ? 1 : 0,
                               /*heavy=*/files >= 1000000,
                               /*inMemory=*/filter.include.empty() && filter.exclude.empty() && !filter.withPath};
    const auto make = [files, filter] {
        Directory directory;
        directory.path =
            Shared("list_" + std::to_string(files), [files](const std::string& path) { MakeFiles(path, files); });
        directory.filter = filter;
        return directory;
    };
    Add(workload, "ours", make, [](const Directory& directory) {
        std::list<std::string> list;
        (void)orv_fileutils::GetDirFileList(directory.path.c_str(), directory.filter.include.c_str(),
                                            directory.filter.exclude.c_str(), list, directory.filter.withPath,
                                            /*clearList=*/true, /*logOpenError=*/true);
        return list;
    });
    Add(workload, "floor", make, FloorList);
    if (filter.withPath) {
        Add(workload, "scandir(3)", make, ScanWithPath);
    } else {
        Add(workload, "scandir(3)", make, [](const Directory& directory) { return Scan(directory); });
    }
    Add(workload, "std::filesystem", make, ListByIterator<fs::directory_iterator>);
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost.Filesystem", make, ListByIterator<bfs::directory_iterator>);
#endif
    AddProcess(
        workload, "find|sort", [make] { return FoundDirectory(make()); },
        [](const FoundDirectory& directory) {
            (void)RunProgram({"sh", "-c", directory.Command()});
            return FoundNames{&directory};
        });
}

}  // namespace

void AddDirectories()
{
    AddMakePath(0, 0);
    AddMakePath(1, 2000);
    AddMakePath(32, 200);
    AddMakePath(400, 20);
    for (const std::size_t files : {100U, 10000U, 200000U, 1000000U}) {
        AddListing("list/plain", files, {});
        AddListing("list/include", files, {"*.log", "", false});
        AddListing("list/exclude", files, {"", "tmp_*", false});
        AddListing("list/both", files, {"*.log", "tmp_*", false});
        AddListing("list/with_path", files, {"", "", true});
    }
    ForEachSize(1000000, [](std::size_t files) { AddListing("growth/list", files, {}); });
}

}  // namespace bench
