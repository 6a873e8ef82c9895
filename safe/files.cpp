// Copying and moving files. The functions of the library flush nothing, report no failed write of a copy, and keep only
// nine bits of the mode, so these call the system.

#include "internal.h"
#include "safe.h"
#include "staged_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

namespace orv_safe {

using internal::Descriptor;
using internal::Place;
using internal::Report;
using internal::StagedFile;
using internal::Uninterrupted;

namespace {

const char kCopyFile[] = "CopyFile";
const char kMoveFile[] = "MoveFile";

const std::size_t kBlockBytes = 8192;        // on the stack; two of them when files are compared
const std::size_t kKernelBytes = 1U << 30U;  // the most that one call of the kernel copies
const std::size_t kStepBytes = 1U << 20U;    // the same, if the caller waits to hear about it

const mode_t kPermissionBits = 0777;
const mode_t kModeBits = 07777;

const char kSourceKept[] = "the content is in place, and the source is kept";

bool IsSameFile(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsSameTime(const timespec& one, const timespec& other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

// ---- The source

// Opens the regular file that `place` leads to. Returns -1, with a line, if that fails. The type is tested first,
// because opening a device can change it.
int OpenRegular(const Place& place, struct stat& status)
{
    if (Uninterrupted([&] { return fstatat(place.Directory(), place.Name(), &status, 0); }) != 0) {
        (void)place.Failed("fstatat");
        return -1;
    }
    if (!RequireRegular(place, status)) {
        return -1;
    }
    // Another file may have the name by now: a FIFO must not block, and a terminal must not become ours.
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int file = Uninterrupted([&] { return openat(place.Directory(), place.Name(), flags); });
    if (file == -1) {
        (void)place.Failed("openat");
    }
    return file;
}

// The regular file to copy or move. A failure to open it is reported.
class SourceFile {
public:
    explicit SourceFile(const Place& place)
        : place_(place), status_(), file_(OpenRegular(place, status_)), isRegular_(file_ != -1 && ReadStatus())
    {
    }

    bool IsOpen() const
    {
        return isRegular_;
    }
    int File() const
    {
        return file_;
    }
    const struct stat& Status() const
    {
        return status_;
    }
    const Place& At() const
    {
        return place_;
    }

private:
    bool ReadStatus()
    {
        if (Uninterrupted([this] { return fstat(file_, &status_); }) != 0) {
            return place_.Failed("fstat");
        }
        return RequireRegular(place_, status_);
    }

    const Place& place_;
    struct stat status_;
    Descriptor file_;
    bool isRegular_;
};

// ---- Progress

// Tells the caller's function how much is done. Without such a function it does nothing.
class Progress {
public:
    Progress(const FileOptions& options, const SourceFile& source)
        : options_(options),
          source_(source),
          done_(0),
          total_(static_cast<uint64_t>(source.Status().st_size) * (options.verify ? 2 : 1))
    {
    }

    // The most that one call of the kernel may copy.
    std::size_t StepBytes() const
    {
        return options_.progress == nullptr ? kKernelBytes : kStepBytes;
    }

    // Adds what a step has done. Returns false, with a line, if the caller cancels.
    bool Add(long bytes)
    {
        done_ += static_cast<uint64_t>(bytes);
        if (options_.progress == nullptr || options_.progress(options_.progressContext, done_, total_)) {
            return true;
        }
        errno = ECANCELED;
        return source_.At().Failed("progress");
    }

private:
    const FileOptions& options_;
    const SourceFile& source_;
    uint64_t done_;
    uint64_t total_;
};

// ---- Copying the bytes

// Copies by the calls of `copy` until one copies nothing. Returns false if the caller cancels.
template <typename Copy>
bool CopyBySteps(Progress& progress, Copy copy)
{
    for (;;) {
        const long copied = copy();
        if (copied <= 0) {
            return true;
        }
        if (!progress.Add(copied)) {
            return false;
        }
    }
}

// Copies without passing the bytes through this process, as far as that works. The caller copies the rest in another
// way and meets the error, if there is one.
bool CopyInKernel(int from, int to, Progress& progress)
{
    const std::size_t bytes = progress.StepBytes();
    return CopyBySteps(progress, [=] { return internal::CopyFileRange(from, to, bytes); }) &&
           CopyBySteps(progress, [=] { return static_cast<long>(sendfile(to, from, nullptr, bytes)); });
}

// Copies until a read finds the end of the source.
bool CopyBytes(const SourceFile& source, const StagedFile& copy, Progress& progress)
{
    if (!CopyInKernel(source.File(), copy.File(), progress)) {
        return false;
    }
    char block[kBlockBytes];
    for (;;) {
        const ssize_t got = Uninterrupted([&] { return read(source.File(), block, sizeof block); });
        if (got == -1) {
            return source.At().Failed("read");
        }
        if (got == 0) {
            return true;
        }
        if (!copy.Write(block, static_cast<std::size_t>(got)) || !progress.Add(got)) {
            return false;
        }
    }
}

// Fills `block` from `offset` on, unless the file ends there. Returns the number of bytes, or -1.
ssize_t ReadBlock(int file, char* block, off_t offset)
{
    std::size_t have = 0;
    for (;;) {
        const ssize_t got = Uninterrupted(
            [&] { return pread(file, block + have, kBlockBytes - have, offset + static_cast<off_t>(have)); });
        if (got == -1) {
            return -1;
        }
        have += static_cast<std::size_t>(got);
        if (got == 0 || have == kBlockBytes) {
            return static_cast<ssize_t>(have);
        }
    }
}

bool IsZero(const char* block, std::size_t bytes)
{
    return std::all_of(block, block + bytes, [](char byte) { return byte == '\0'; });
}

// Copies a file with holes, and makes a hole of each block of zero bytes. The kernel also says where holes are, but
// file systems have been wrong about that.
bool CopyWithHoles(const SourceFile& source, const StagedFile& copy, Progress& progress)
{
    char block[kBlockBytes];
    off_t end = 0;
    for (;;) {
        const ssize_t got = ReadBlock(source.File(), block, end);
        if (got == -1) {
            return source.At().Failed("pread");
        }
        if (got == 0) {
            break;
        }
        const std::size_t bytes = static_cast<std::size_t>(got);
        if (!IsZero(block, bytes)) {
            if (lseek(copy.File(), end, SEEK_SET) == -1) {
                return copy.At().Failed("lseek");
            }
            if (!copy.Write(block, bytes)) {
                return false;
            }
        }
        end += got;
        if (!progress.Add(got)) {
            return false;
        }
    }
    return copy.At().Check(Uninterrupted([&] { return ftruncate(copy.File(), end); }) == 0, "ftruncate");
}

bool HasHoles(const struct stat& status)
{
    const off_t kBytesOfABlock = 512;  // whatever the file system's own blocks are
    return status.st_blocks < status.st_size / kBytesOfABlock;
}

// ---- Comparing the bytes

bool HasSameBytes(const SourceFile& source, const StagedFile& copy, Progress& progress)
{
    char expected[kBlockBytes];
    char found[kBlockBytes];
    for (off_t offset = 0;;) {
        const ssize_t want = ReadBlock(source.File(), expected, offset);
        if (want == -1) {
            return source.At().Failed("pread");
        }
        const ssize_t have = ReadBlock(copy.File(), found, offset);
        if (have == -1) {
            return copy.At().Failed("pread");
        }
        if (want != have || std::memcmp(expected, found, static_cast<std::size_t>(want)) != 0) {
            ORV_SAFE_LOG("%s: what was written for %s differs from %s after byte %lld.", copy.At().Function(),
                         copy.At().Path().c_str(), source.At().Path().c_str(), static_cast<long long>(offset));
            return false;
        }
        if (want == 0) {
            return true;
        }
        offset += want;
        if (!progress.Add(want)) {
            return false;
        }
    }
}

// Returns whether the medium has the bytes of the source. What the kernel has in memory is dropped, so that it reads
// the medium again.
bool IsOnMedium(const SourceFile& source, const StagedFile& copy, Progress& progress)
{
    if (!copy.Flush()) {
        return false;
    }
    const int error = posix_fadvise(copy.File(), 0, 0, POSIX_FADV_DONTNEED);
    if (error != 0) {
        errno = error;
        return copy.At().Failed("posix_fadvise");
    }
    return HasSameBytes(source, copy, progress);
}

// ---- What a file has besides its bytes

void ReportNotKept(const Place& place, const char* call, const std::string& what)
{
    Report(place.Function(), call, place.Path(), errno, (what + " not kept").c_str());
}

bool KeepOwner(const struct stat& status, const StagedFile& copy)
{
    if (Uninterrupted([&] { return fchown(copy.File(), status.st_uid, status.st_gid); }) != 0) {
        ReportNotKept(copy.At(), "fchown", "owner and group are");
        return false;
    }
    return true;
}

void KeepAttributes(const SourceFile& source, const StagedFile& copy)
{
    std::vector<char> names(XATTR_LIST_MAX);
    const ssize_t bytes = Uninterrupted([&] { return flistxattr(source.File(), names.data(), names.size()); });
    if (bytes == -1) {
        if (errno != ENOTSUP) {  // otherwise there are none
            ReportNotKept(copy.At(), "flistxattr", "extended attributes are");
        }
        return;
    }
    std::vector<char> value(XATTR_SIZE_MAX);
    for (const char* name = names.data(); name < names.data() + bytes; name += std::strlen(name) + 1) {
        const ssize_t size = Uninterrupted([&] { return fgetxattr(source.File(), name, value.data(), value.size()); });
        if (size == -1) {
            ReportNotKept(copy.At(), "fgetxattr", std::string("the attribute ") + name + " is");
        } else if (Uninterrupted([&] {
                       return fsetxattr(copy.File(), name, value.data(), static_cast<std::size_t>(size), 0);
                   }) != 0) {
            ReportNotKept(copy.At(), "fsetxattr", std::string("the attribute ") + name + " is");
        }
    }
}

bool SetMode(const StagedFile& copy, mode_t mode)
{
    if (Uninterrupted([&] { return fchmod(copy.File(), mode); }) == 0) {
        return true;
    }
    // Some file systems, such as FAT, have no modes, or do not let the user of a file change them.
    if (errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL) {
        ReportNotKept(copy.At(), "fchmod", "the mode is");
        return true;
    }
    return copy.At().Failed("fchmod");
}

void KeepTimes(const struct stat& status, const StagedFile& copy)
{
    const timespec times[] = {status.st_atim, status.st_mtim};
    if (Uninterrupted([&] { return futimens(copy.File(), times); }) != 0) {
        ReportNotKept(copy.At(), "futimens", "times are");
    }
}

// Each step can undo what follows it: a change of the owner clears bits of the mode, a mode without write permission
// protects attributes, and each of them changes the times.
bool GiveMetadata(const SourceFile& source, const StagedFile& copy, bool preserve)
{
    const struct stat& status = source.Status();
    if (!preserve) {
        return SetMode(copy, status.st_mode & kPermissionBits);
    }
    // A set-user-ID program must not become one of another user.
    const mode_t bits = KeepOwner(status, copy) ? kModeBits : kPermissionBits;
    KeepAttributes(source, copy);
    if (!SetMode(copy, status.st_mode & bits)) {
        return false;
    }
    KeepTimes(status, copy);
    return true;
}

// Makes `copy` ready to be put in place. The last chance to cancel comes after the flush, which can take long.
bool Fill(StagedFile& copy, const SourceFile& source, const FileOptions& options)
{
    Progress progress(options, source);
    const bool copied = options.preserve && HasHoles(source.Status()) ? CopyWithHoles(source, copy, progress)
                                                                      : CopyBytes(source, copy, progress);
    return copied && (!options.verify || IsOnMedium(source, copy, progress)) &&
           GiveMetadata(source, copy, options.preserve) &&
           (options.durable ? copy.FlushNamed() : copy.CompleteWrites()) && progress.Add(0);
}

// ---- Moving

bool RefuseSameFile(const Place& from, const Place& to)
{
    ORV_SAFE_LOG("%s: %s and %s are the same file.", kMoveFile, from.Path().c_str(), to.Path().c_str());
    return false;
}

// Removes the source unless it has changed since `moved` was read. It is also kept if it has one link less: then it is
// another name of the file that was replaced.
bool RemoveSource(const Place& from, const struct stat& moved)
{
    struct stat status;
    if (!from.ReadStatus(status)) {
        Report(kMoveFile, "fstatat", from.Path(), errno, kSourceKept);
        return false;
    }
    if (!IsSameFile(status, moved) || status.st_nlink != moved.st_nlink || status.st_size != moved.st_size ||
        !IsSameTime(status.st_mtim, moved.st_mtim) || !IsSameTime(status.st_ctim, moved.st_ctim)) {
        Report(kMoveFile, "unlinkat", from.Path(), ESTALE, kSourceKept);
        return false;
    }
    if (Uninterrupted([&from] { return unlinkat(from.Directory(), from.Name(), 0); }) != 0) {
        Report(kMoveFile, "unlinkat", from.Path(), errno, kSourceKept);
        return false;
    }
    return true;
}

// Another process can have replaced the copy, or its staged name before. Then the source has the only content.
bool IsStillThere(const StagedFile& copy)
{
    struct stat own;
    struct stat there;
    if (fstat(copy.File(), &own) != 0 || !copy.At().ReadStatus(there)) {
        Report(kMoveFile, "fstatat", copy.At().Path(), errno, kSourceKept);
        return false;
    }
    if (!IsSameFile(own, there)) {
        Report(kMoveFile, "fstatat", copy.At().Path(), ESTALE, "another file is there, and the source is kept");
        return false;
    }
    return true;
}

bool FlushDirectories(const Place& from, const Place& to)
{
    return to.FlushDirectory() && (from.DirectoryPath() == to.DirectoryPath() || from.FlushDirectory());
}

bool FlushFile(const Place& place)
{
    const SourceFile file(place);
    return file.IsOpen() && place.Check(Uninterrupted([&file] { return fsync(file.File()); }) == 0, "fsync");
}

// Where a file system cannot rename to a new name only.
bool MoveByLink(const Place& from, const Place& to)
{
    if (LinkToNewName(from, from.Name(), to) != 0) {
        return to.Failed("linkat");
    }
    struct stat linked;
    if (!to.ReadStatus(linked)) {
        Report(kMoveFile, "fstatat", to.Path(), errno, kSourceKept);
        return false;
    }
    return RemoveSource(from, linked);
}

enum class Renamed { kYes, kNo, kOtherFileSystem };

Renamed Rename(const Place& from, const Place& to, const FileOptions& options)
{
    if (options.durable && !FlushFile(from)) {
        return Renamed::kNo;
    }
    const int result = options.noReplace ? RenameToNewName(from, from.Name(), to) : Uninterrupted([&] {
        return renameat(from.Directory(), from.Name(), to.Directory(), to.Name());
    });
    if (result != 0 && errno == EXDEV) {
        return Renamed::kOtherFileSystem;
    }
    if (result != 0 && !(options.noReplace && errno != EEXIST ? MoveByLink(from, to) : to.Failed("renameat"))) {
        return Renamed::kNo;
    }
    return !options.durable || FlushDirectories(from, to) ? Renamed::kYes : Renamed::kNo;
}

// A cheap test that saves flushing a source that is copied anyway.
bool AreOnOneFileSystem(const Place& from, const Place& to)
{
    struct stat one;
    struct stat other;
    return fstat(from.Directory(), &one) == 0 && fstat(to.Directory(), &other) == 0 && one.st_dev == other.st_dev;
}

// Moves the file that `from` leads to; `name` is the status of that name itself, `replaced` that of the destination.
bool MoveByCopy(const Place& from, const struct stat& name, const Place& to, const struct stat& replaced,
                const FileOptions& options)
{
    const SourceFile source(from);
    if (!source.IsOpen()) {
        return false;
    }
    StagedFile copy(to);
    if (!copy.IsOpen() || !Fill(copy, source, options)) {
        return false;
    }
    // The directories can be one directory on two mounts, such as the layers of an overlay, and have different device
    // numbers. Then the staged name is in both, and removing the source would remove what replaced it.
    const bool isReplaced = replaced.st_mode != 0;
    if (isReplaced && std::strcmp(from.Name(), to.Name()) == 0) {
        if (!copy.GiveName()) {
            return false;
        }
        if (copy.IsSeenFrom(from)) {
            return RefuseSameFile(from, to);
        }
    }
    if (!copy.PutInPlace(options.noReplace) || (options.durable && !to.FlushDirectory())) {
        return false;
    }
    // A link is removed, never the file that it leads to.
    const struct stat& moved = S_ISLNK(name.st_mode) ? name : source.Status();
    return IsStillThere(copy) && RemoveSource(from, moved) && (!options.durable || from.FlushDirectory());
}

}  // namespace

bool CopyFile(const std::string& source, const std::string& destination, const FileOptions& options)
{
    const Place from(kCopyFile, source, /*forFlushing=*/false);
    if (!from.IsOpen()) {
        return false;
    }
    const Place to(kCopyFile, destination, options.durable);
    struct stat replaced = {};
    if (!to.IsOpen() || !to.IsFree(options.noReplace, replaced)) {
        return false;
    }
    const SourceFile file(from);
    if (!file.IsOpen()) {
        return false;
    }
    StagedFile copy(to);
    return copy.IsOpen() && Fill(copy, file, options) && copy.PutInPlace(options.noReplace) &&
           (!options.durable || to.FlushDirectory());
}

bool MoveFile(const std::string& source, const std::string& destination, const FileOptions& options)
{
    const Place from(kMoveFile, source, options.durable);
    if (!from.IsOpen()) {
        return false;
    }
    struct stat name;
    if (!from.ReadStatus(name)) {
        return from.Failed("fstatat");
    }
    if (!S_ISLNK(name.st_mode) && !RequireRegular(from, name)) {
        return false;
    }
    const Place to(kMoveFile, destination, options.durable);
    struct stat replaced = {};
    if (!to.IsOpen() || !to.IsFree(options.noReplace, replaced)) {
        return false;
    }
    if (IsSameFile(name, replaced)) {
        return RefuseSameFile(from, to);
    }
    // A link is never renamed: renamed onto the file that it leads to, it would replace the content by itself.
    const Renamed renamed =
        S_ISLNK(name.st_mode) || !AreOnOneFileSystem(from, to) ? Renamed::kOtherFileSystem : Rename(from, to, options);
    return renamed == Renamed::kOtherFileSystem ? MoveByCopy(from, name, to, replaced, options)
                                                : renamed == Renamed::kYes;
}

}  // namespace orv_safe
