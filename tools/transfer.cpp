// exists, move and copy.

#include "commands.h"
#include "progress.h"

#include <LxFileUtils.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace {

// ---- Checks before a move or a copy

std::string LastPart(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

void RefuseDirectory(const std::string& source, const std::string& destination)
{
    const std::optional<struct stat> status = StatusOf(destination);
    if (status && S_ISDIR(status->st_mode)) {
        throw Failure(Quoted(destination) + " is a directory",
                      "name the new file too, such as " + Quoted(destination + "/" + LastPart(source)));
    }
}

[[noreturn]] void FailForSameFile(const std::string& source, const std::string& destination)
{
    throw Failure(Quoted(source) + " and " + Quoted(destination) + " are the same file",
                  "nothing was changed; choose another destination");
}

[[noreturn]] void FailForExisting(const std::string& destination)
{
    throw Failure(Quoted(destination) + " exists", "omit --no-replace to replace it, or choose another destination");
}

// ---- Comparing

// Fills `block`, unless the file ends. Returns the number of bytes read.
std::size_t ReadBlock(int descriptor, std::array<char, 65536>& block, const std::string& path)
{
    std::size_t have = 0;
    while (have < block.size()) {
        const ssize_t got = read(descriptor, block.data() + have, block.size() - have);
        if (got == 0) {
            break;
        }
        if (got == -1 && errno != EINTR) {
            const int error = errno;
            throw Failure("cannot read " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
        }
        have += got == -1 ? 0 : static_cast<std::size_t>(got);
    }
    return have;
}

int OpenFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1) {
        const int error = errno;
        throw Failure("cannot read " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
    }
    return descriptor;
}

// CopyFile returns 0 even if not all data was written, so the files are compared.
void RequireSameBytes(const std::string& source, const std::string& copy, off_t bytes)
{
    const Progress progress("comparing", 2 * bytes, Progress::Counted::kRead);
    const Descriptor one(OpenFile(source));
    const Descriptor other(OpenFile(copy));
    static std::array<char, 65536> expected;
    static std::array<char, 65536> found;
    off_t offset = 0;
    for (;;) {
        const std::size_t want = ReadBlock(one, expected, source);
        const std::size_t got = ReadBlock(other, found, copy);
        const auto end = expected.begin() + static_cast<std::ptrdiff_t>(std::min(want, got));
        const auto differ = std::mismatch(expected.begin(), end, found.begin()).first;
        if (differ != end || want != got) {
            throw Failure(Quoted(copy) + " differs from " + Quoted(source) + " from byte " +
                              std::to_string(offset + (differ - expected.begin())) + " on",
                          "keep " + Quoted(source) + "; check that nobody writes to it, and that the file system of " +
                              Quoted(copy) + " has free space (df) and no errors (dmesg); then run this again");
        }
        if (want == 0) {
            return;
        }
        offset += static_cast<off_t>(want);
    }
}

void CopyBytes(const std::string& source, const std::string& destination, off_t bytes)
{
    int result;
    {
        const Progress progress("copying", bytes, Progress::Counted::kWritten);
        errno = 0;
        result = orv_fileutils::CopyFile(source, destination);
    }
    const int error = errno;
    switch (result) {
        case 0:
            return;
        case -1:
            (void)RequireRegularFile(source);  // reports why, unless it is one now
            throw Failure(Quoted(source) + " was replaced in the meantime", "run this again when nobody replaces it");
        case -2:
            throw Failure("cannot read " + Quoted(source) + ": " + ErrorText(error), Remedy(error, source));
        default:
            throw Failure("cannot write " + Quoted(destination) + ": " + ErrorText(error), Remedy(error, destination));
    }
}

// ---- Moving by a copy beside the destination

// A new, empty file beside the destination. The destructor removes it unless Release() was called.
class StagedFile {
public:
    explicit StagedFile(const std::string& destination) : path_(destination + "_XXXXXX")
    {
        const Descriptor made(mkstemp(path_.data()));
        if (made == -1) {
            const int error = errno;
            throw Failure("cannot create a file beside " + Quoted(destination) + ": " + ErrorText(error),
                          Remedy(error, destination));
        }
    }
    ~StagedFile()
    {
        if (!path_.empty()) {
            (void)unlink(path_.c_str());
        }
    }
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    const std::string& Path() const
    {
        return path_;
    }
    void Release()
    {
        path_.clear();
    }

private:
    std::string path_;
};

void Flush(const std::string& path)
{
    const Descriptor descriptor(OpenFile(path));
    if (fsync(descriptor) != 0) {
        const int error = errno;
        throw Failure("cannot flush " + Quoted(path) + " to the disk: " + ErrorText(error), Remedy(error, path));
    }
}

std::string DirectoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

// Renames a file unless the new name exists. Returns false and sets errno if the rename failed.
bool RenameToNewName(const std::string& from, const std::string& to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // The file system does not support that. link(2) does not replace a file either.
    return link(from.c_str(), to.c_str()) == 0 && unlink(from.c_str()) == 0;
}

[[noreturn]] void FailToMove(const std::string& source, const std::string& destination, int error)
{
    throw Failure("cannot move " + Quoted(source) + " to " + Quoted(destination) + ": " + ErrorText(error),
                  Remedy(error, destination) + "; " + Quoted(source) + " is unchanged");
}

void PutInPlace(StagedFile& staged, const MoveOptions& options)
{
    const bool placed = options.noReplace ? RenameToNewName(staged.Path(), options.destination)
                                          : orv_fileutils::RenameFileAcrossFs(staged.Path(), options.destination);
    if (!placed) {
        if (options.noReplace && errno == EEXIST) {
            FailForExisting(options.destination);
        }
        FailToMove(options.source, options.destination, errno);
    }
    staged.Release();
}

void GivePermissions(const std::string& path, mode_t mode)
{
    if (chmod(path.c_str(), mode & 0777) != 0) {
        const int error = errno;
        throw Failure("cannot set the mode of " + Quoted(path) + ": " + ErrorText(error), Remedy(error, path));
    }
}

// Removes the source only after its content is at the destination and, with --durable, on the disk.
void MoveByVerifiedCopy(const MoveOptions& options, const struct stat& source)
{
    StagedFile staged(options.destination);
    CopyBytes(options.source, staged.Path(), source.st_size);
    RequireSameBytes(options.source, staged.Path(), source.st_size);
    GivePermissions(staged.Path(), source.st_mode);
    if (options.durable) {
        Flush(staged.Path());
    }
    PutInPlace(staged, options);
    if (options.durable) {
        Flush(DirectoryOf(options.destination));
    }
    if (unlink(options.source.c_str()) != 0) {
        const int error = errno;
        throw Failure("the content is at " + Quoted(options.destination) + ", but " + Quoted(options.source) +
                          " cannot be removed: " + ErrorText(error),
                      "remove " + Quoted(options.source) + " yourself");
    }
}

void MoveToNewName(const MoveOptions& options, const struct stat& source)
{
    if (LinkStatusOf(options.destination)) {
        FailForExisting(options.destination);  // reported before copying; the rename checks again
    }
    if (!options.durable && RenameToNewName(options.source, options.destination)) {
        return;
    }
    if (!options.durable && errno == EEXIST) {
        FailForExisting(options.destination);
    }
    if (!options.durable && errno != EXDEV) {
        FailToMove(options.source, options.destination, errno);
    }
    MoveByVerifiedCopy(options, source);
}

// Whether the file that was to be moved is still there. A new file with the same inode number may have replaced it.
bool IsLeft(const std::string& path, const struct stat& before)
{
    const std::optional<struct stat> now = LinkStatusOf(path);
    return now && IsSameFile(*now, before) && now->st_mtim.tv_sec == before.st_mtim.tv_sec &&
           now->st_mtim.tv_nsec == before.st_mtim.tv_nsec;
}

void MoveByFunction(const MoveOptions& options, const struct stat& source, const struct stat& before)
{
    const Progress progress("moving", source.st_size, Progress::Counted::kWritten);
    if (!orv_fileutils::RenameFileAcrossFs(options.source, options.destination)) {
        FailToMove(options.source, options.destination, errno);
    }
    if (IsLeft(options.source, before)) {
        throw Failure(
            "the content is at " + Quoted(options.destination) + ", but " + Quoted(options.source) + " was not removed",
            "remove " + Quoted(options.source) + " yourself");
    }
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

ExitStatus Move(const MoveOptions& options)
{
    const struct stat source = RequireRegularFile(options.source);
    RefuseDirectory(options.source, options.destination);
    const struct stat from = LinkStatusOf(options.source).value_or(source);
    const std::optional<struct stat> to = LinkStatusOf(options.destination);
    if (to && IsSameFile(from, *to)) {
        FailForSameFile(options.source, options.destination);
    }
    if (options.noReplace) {
        MoveToNewName(options, source);
    } else if (options.durable) {
        MoveByVerifiedCopy(options, source);
    } else {
        MoveByFunction(options, source, from);
    }
    return kDone;
}

ExitStatus Copy(const CopyOptions& options)
{
    const struct stat source = RequireRegularFile(options.source);
    RefuseDirectory(options.source, options.destination);
    const std::optional<struct stat> to = StatusOf(options.destination);
    if (to && IsSameFile(source, *to)) {
        FailForSameFile(options.source, options.destination);
    }
    CopyBytes(options.source, options.destination, source.st_size);
    if (options.verify) {
        RequireSameBytes(options.source, options.destination, source.st_size);
    }
    return kDone;
}
