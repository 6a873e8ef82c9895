// Benchmarks of moving, copying and testing files.

#include "LxFileUtils.h"
#include "safe.h"
#include "support/bench.h"
#include "support/files.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#ifdef ORV_BENCH_BOOST
#include <boost/filesystem.hpp>
#endif
#ifdef ORV_BENCH_GLIB
#include <gio/gio.h>
#endif

namespace bench {

namespace {

namespace fs = std::filesystem;
#ifdef ORV_BENCH_BOOST
namespace bfs = boost::filesystem;
#endif

#ifdef ORV_BENCH_GLIB
struct Unref {
    void operator()(GFile* file) const
    {
        g_object_unref(file);
    }
};
using GFilePointer = std::unique_ptr<GFile, Unref>;
#endif

std::string SizeName(std::size_t bytes)
{
    return bytes % (1U << 20U) == 0 && bytes != 0 ? std::to_string(bytes >> 20U) + "MiB" : std::to_string(bytes);
}

orv_safe::FileOptions SafeOptions(bool durable)
{
    orv_safe::FileOptions options;
    options.durable = durable;
    return options;
}

// ---- Moves

// A file that each call moves, in turns there and back.
struct Move : Fixture {
    ScratchDir dir;
    std::string from;
    std::string to;

    Move(std::size_t bytes, bool across) : from(dir / "source"), to(across ? OtherDir() + "/moved" : dir / "moved")
    {
        WriteFile(from, SomeBytes(bytes));
    }

    Move(Move&&) = default;

    ~Move()
    {
        (void)unlink(from.c_str());
        (void)unlink(to.c_str());
    }

    template <typename MoveFile>
    bool There(const MoveFile& moveFile)
    {
        const bool moved = moveFile(from, to);
        from.swap(to);
        return moved;
    }

    [[nodiscard]] std::string After() const
    {
        return Digest(from) + (access(to.c_str(), F_OK) == 0 ? "there twice" : "moved");
    }
};

bool FloorMoveSame(const std::string& from, const std::string& to)
{
    struct stat status;
    return stat(from.c_str(), &status) == 0 && S_ISREG(status.st_mode) && rename(from.c_str(), to.c_str()) == 0;
}

// Ways to copy all bytes from one descriptor to another.
bool CopyBlocks(int from, int to, char* block, std::size_t blockBytes)
{
    for (;;) {
        const ssize_t got = read(from, block, blockBytes);
        if (got <= 0) {
            return got == 0;
        }
        if (write(to, block, static_cast<std::size_t>(got)) != got) {
            return false;
        }
    }
}

template <std::size_t kBlockBytes>
bool CopyByBlocks(int from, int to)
{
    char block[kBlockBytes];
    return CopyBlocks(from, to, block, sizeof block);
}

bool CopyBySendfile(int from, int to)
{
    const std::size_t kMost = 0x7ffff000;
    ssize_t sent = 1;
    while (sent > 0) {
        sent = sendfile(to, from, nullptr, kMost);
    }
    return sent == 0;
}

bool CopyOpen(int from, int to, bool (*copy)(int, int))
{
    const bool copied = from != -1 && to != -1 && copy(from, to);
    (void)close(from);
    (void)close(to);
    return copied;
}

// The system calls of RenameFileAcrossFs, with any way to copy.
bool MoveAcross(const std::string& from, const std::string& to, bool (*copy)(int, int))
{
    struct stat status;
    if (stat(from.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    if (rename(from.c_str(), to.c_str()) == 0) {
        return true;
    }
    std::string temp = to + "_XXXXXX";
    const int tempDescriptor = mkstemp(temp.data());
    return CopyOpen(open(from.c_str(), O_RDONLY), tempDescriptor, copy) &&
           chmod(temp.c_str(), status.st_mode & 0777U) == 0 && rename(temp.c_str(), to.c_str()) == 0 &&
           unlink(from.c_str()) == 0;
}

template <typename Make>
void AddMoveContenders(const Workload& workload, const Make& make)
{
    Add(workload, "ours", make, [](Move& move) {
        return move.There(
            [](const std::string& from, const std::string& to) { return orv_fileutils::RenameFileAcrossFs(from, to); });
    });
    Add(workload, "orv_safe, not durable", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) {
            return orv_safe::MoveFile(from, to, SafeOptions(/*durable=*/false));
        });
    });
    Add(workload, "orv_safe", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) { return orv_safe::MoveFile(from, to); });
    });
#ifdef ORV_BENCH_GLIB
    Add(workload, "GLib g_file_move", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) {
            const GFilePointer source(g_file_new_for_path(from.c_str()));
            const GFilePointer destination(g_file_new_for_path(to.c_str()));
            return g_file_move(source.get(), destination.get(), G_FILE_COPY_OVERWRITE, nullptr, nullptr, nullptr,
                               nullptr) != FALSE;
        });
    });
#endif
    AddProcess(workload, "mv", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) { return RunProgram({"mv", from, to}); });
    });
}

void AddMoveSame()
{
    const Workload workload = {"move/same", 1, "call"};
    const auto make = [] { return Move(4096, /*across=*/false); };
    AddMoveContenders(workload, make);
    Add(workload, "floor", make, [](Move& move) { return move.There(FloorMoveSame); });
    Add(workload, "rename(2)", make, [](Move& move) {
        return move.There(
            [](const std::string& from, const std::string& to) { return rename(from.c_str(), to.c_str()) == 0; });
    });
    Add(workload, "std::filesystem", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) {
            std::error_code error;
            fs::rename(from, to, error);
            return !error;
        });
    });
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost.Filesystem", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) {
            boost::system::error_code error;
            bfs::rename(from, to, error);
            return !error;
        });
    });
#endif
}

void AddMoveAcross(std::size_t bytes)
{
    const Workload workload = {"move/across:" + SizeName(bytes), static_cast<double>(bytes), "byte"};
    const auto make = [bytes] { return Move(bytes, /*across=*/true); };
    AddMoveContenders(workload, make);
    Add(workload, "floor", make, [](Move& move) {
        return move.There(
            [](const std::string& from, const std::string& to) { return MoveAcross(from, to, CopyByBlocks<4096>); });
    });
    Add(workload, "blocks of 64 KiB", make, [](Move& move) {
        return move.There(
            [](const std::string& from, const std::string& to) { return MoveAcross(from, to, CopyByBlocks<65536>); });
    });
    Add(workload, "sendfile(2)", make, [](Move& move) {
        return move.There(
            [](const std::string& from, const std::string& to) { return MoveAcross(from, to, CopyBySendfile); });
    });
    Add(workload, "std::filesystem", make, [](Move& move) {
        return move.There([](const std::string& from, const std::string& to) {
            std::error_code error;
            fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
            return !error && fs::remove(from, error);
        });
    });
    // Not Boost.Filesystem: its copy_file does not copy to another file system in every version (1.74).
}

// ---- Copies

// A file that each call copies onto its earlier copy.
struct Copy : Fixture {
    ScratchDir dir;
    std::string from;
    std::string to;

    Copy(std::size_t bytes, const std::string& parent) : dir(parent), from(dir / "source"), to(dir / "copy")
    {
        WriteFile(from, SomeBytes(bytes));
        WriteFile(to, "an earlier copy");
    }

    [[nodiscard]] std::string After() const
    {
        return Digest(from) + Digest(to);
    }
};

bool CopyFileBy(const Copy& files, bool (*copy)(int, int))
{
    struct stat status;
    return stat(files.from.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           CopyOpen(open(files.from.c_str(), O_RDONLY), open(files.to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666),
                    copy);
}

// The least that replaces a file whole: into a new file, which is renamed.
bool CopyAndRename(const Copy& files)
{
    struct stat status;
    if (stat(files.from.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    std::string temp = files.to + "_XXXXXX";
    const int tempDescriptor = mkstemp(temp.data());
    return CopyOpen(open(files.from.c_str(), O_RDONLY), tempDescriptor, CopyBySendfile) &&
           chmod(temp.c_str(), status.st_mode & 0777U) == 0 && rename(temp.c_str(), files.to.c_str()) == 0;
}

void AddCopy(const std::string& name, std::size_t bytes, const std::string& (*parent)() = WorkDir)
{
    constexpr std::size_t kReadBytes = 65536;  // of the input stream of CopyFile

    const Workload workload = {name, static_cast<double>(bytes), "byte"};
    const auto make = [bytes, parent] { return Copy(bytes, parent()); };
    Add(workload, "ours", make, [](const Copy& files) { return orv_fileutils::CopyFile(files.from, files.to) == 0; });
    Add(workload, "floor", make, [](const Copy& files) { return CopyFileBy(files, CopyByBlocks<kReadBytes>); });
    Add(workload, "blocks of 8 KiB", make, [](const Copy& files) { return CopyFileBy(files, CopyByBlocks<8192>); });
    Add(workload, "sendfile(2)", make, [](const Copy& files) { return CopyFileBy(files, CopyBySendfile); });
    Add(workload, "sendfile(2), rename(2)", make, CopyAndRename);
    Add(workload, "orv_safe, not durable", make,
        [](const Copy& files) { return orv_safe::CopyFile(files.from, files.to, SafeOptions(/*durable=*/false)); });
    Add(workload, "orv_safe", make, [](const Copy& files) { return orv_safe::CopyFile(files.from, files.to); });
    Add(workload, "std::filesystem", make, [](const Copy& files) {
        std::error_code error;
        return fs::copy_file(files.from, files.to, fs::copy_options::overwrite_existing, error);
    });
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost.Filesystem", make, [](const Copy& files) {
        boost::system::error_code error;
        return bfs::copy_file(files.from, files.to, bfs::copy_options::overwrite_existing, error);
    });
#endif
#ifdef ORV_BENCH_GLIB
    Add(workload, "GLib g_file_copy", make, [](const Copy& files) {
        const GFilePointer source(g_file_new_for_path(files.from.c_str()));
        const GFilePointer destination(g_file_new_for_path(files.to.c_str()));
        return g_file_copy(source.get(), destination.get(), G_FILE_COPY_OVERWRITE, nullptr, nullptr, nullptr,
                           nullptr) != FALSE;
    });
#endif
    AddProcess(workload, "cp", make, [](const Copy& files) { return RunProgram({"cp", files.from, files.to}); });
}

// ---- Tests for a file

struct Place : Fixture {
    ScratchDir dir;
    std::string path;
};

Place FileAt(const std::string& name)
{
    Place place;
    WriteFile(place.dir / "file", "content");
    place.path = place.dir / name;
    return place;
}

bool FloorFileExists(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

void AddFileTest(const std::string& name, const std::string& file)
{
    const Workload workload = {"exists/" + name, 1, "call"};
    const auto make = [file] { return FileAt(file); };
    Add(workload, "ours", make, [](const Place& place) { return orv_fileutils::FileExists(place.path.c_str()); });
    Add(workload, "floor", make, [](const Place& place) { return FloorFileExists(place.path.c_str()); });
    Add(workload, "std::filesystem", make, [](const Place& place) {
        std::error_code error;
        return fs::is_regular_file(place.path, error);
    });
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost.Filesystem", make, [](const Place& place) {
        boost::system::error_code error;
        return bfs::is_regular_file(place.path, error);
    });
#endif
#ifdef ORV_BENCH_GLIB
    Add(workload, "GLib g_file_test", make,
        [](const Place& place) { return g_file_test(place.path.c_str(), G_FILE_TEST_IS_REGULAR) != FALSE; });
#endif
}

}  // namespace

void AddTransfers()
{
    AddMoveSame();
    for (const std::size_t bytes : {0U, 4096U, 1U << 20U, 64U << 20U}) {
        AddMoveAcross(bytes);
    }
    for (const std::size_t bytes : {0U, 4096U, 1U << 20U, 64U << 20U}) {
        AddCopy("copy/file:" + SizeName(bytes), bytes);
    }
    for (const std::size_t bytes : {1U << 20U, 64U << 20U}) {
        AddCopy("copy/disk:" + SizeName(bytes), bytes, DiskDir);
    }
    AddFileTest("regular", "file");
    AddFileTest("directory", "");
    AddFileTest("missing", "nothing");
    ForEachSize(100000000, [](std::size_t bytes) { AddCopy("growth/copy:" + std::to_string(bytes), bytes); });
}

}  // namespace bench
