#include "staged_file.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace orv_safe {
namespace internal {

namespace {

const char kNamePrefix[] = ".orv_";
const std::size_t kNameDigits = 16;
const int kNameTries = 100;
const char kOwnDescriptors[] = "/proc/self/fd";

std::string DirectoryOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

// Writes the time, which differs at each call of this process and is not known in advance, and a NUL. O_EXCL protects
// against names that exist.
void WriteDigits(char (&digits)[kNameDigits + 1])
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    (void)std::snprintf(digits, sizeof digits, "%08x%08x", static_cast<unsigned int>(now.tv_sec),
                        static_cast<unsigned int>(now.tv_nsec));
}

}  // namespace

// ---- Place

Place::Place(const char* function, const std::string& path, bool forFlushing)
    : function_(function),
      path_(path.substr(0, path.find('\0'))),
      directoryPath_(DirectoryOf(path_)),
      descriptor_(Open(forFlushing))
{
    if (!IsOpen()) {
        Report(function_, "open", directoryPath_, errno);
    }
}

int Place::Open(bool forFlushing) const
{
    const char* const path = directoryPath_.c_str();
    // Only a directory can be opened, because the path ends in a slash.
    return Uninterrupted(
        [=] { return forFlushing ? open(path, O_RDONLY | O_CLOEXEC) : open(path, O_PATH | O_CLOEXEC); });
}

bool Place::ReadStatus(struct stat& status) const
{
    return Uninterrupted([&] { return fstatat(descriptor_, Name(), &status, AT_SYMLINK_NOFOLLOW); }) == 0;
}

bool Place::IsFree(bool noReplace, struct stat& status) const
{
    if (Name()[0] == '\0') {
        errno = path_.empty() ? ENOENT : EISDIR;
        return Failed("openat");
    }
    if (!ReadStatus(status)) {
        return Check(errno == ENOENT, "fstatat");
    }
    if (noReplace) {
        errno = EEXIST;
        return Failed("linkat");
    }
    return S_ISLNK(status.st_mode) || RequireRegular(*this, status);
}

bool Place::FlushDirectory() const
{
    if (Uninterrupted([this] { return fsync(descriptor_); }) != 0) {
        Report(function_, "fsync", directoryPath_, errno, "the file is in place, but a power cut can undo that");
        return false;
    }
    return true;
}

bool RequireRegular(const Place& place, const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        ORV_SAFE_LOG("%s: %s is not a regular file (0x%x).", place.Function(), place.Path().c_str(),
                     status.st_mode & S_IFMT);
        return false;
    }
    return true;
}

// ---- The calls by number

long CopyFileRange(int from, int to, std::size_t bytes)
{
#ifdef SYS_copy_file_range
    return syscall(SYS_copy_file_range, from, nullptr, to, nullptr, bytes, 0U);
#else
    (void)from, (void)to, (void)bytes;
    errno = ENOSYS;
    return -1;
#endif
}

int RenameToNewName(const Place& from, const char* name, const Place& to)
{
#ifdef SYS_renameat2
    const unsigned int kNoReplace = 1;
    return static_cast<int>(Uninterrupted(
        [&] { return syscall(SYS_renameat2, from.Directory(), name, to.Directory(), to.Name(), kNoReplace); }));
#else
    (void)from, (void)name, (void)to;
    errno = ENOSYS;
    return -1;
#endif
}

int LinkToNewName(const Place& from, const char* name, const Place& to)
{
    return Uninterrupted([&] { return linkat(from.Directory(), name, to.Directory(), to.Name(), 0); });
}

// ---- StagedFile

StagedFile::StagedFile(const Place& place, mode_t mode)
    : place_(place),
      path_(place.DirectoryPath() + kNamePrefix + std::string(kNameDigits, '0')),
      isNamed_(false),
      file_(Create(mode))
{
}

StagedFile::~StagedFile()
{
    if (isNamed_ && Uninterrupted([this] { return unlinkat(place_.Directory(), Name(), 0); }) != 0) {
        Report(place_.Function(), "unlinkat", path_, errno);
    }
}

const char* StagedFile::Name() const
{
    return path_.c_str() + place_.DirectoryPath().size();
}

// Calls `make` with new names, until one is free. Reports a failure. Returns the result of `make`.
template <typename Make>
int StagedFile::WithNewName(Make make)
{
    int result = -1;
    for (int i = 0; i < kNameTries && result == -1; ++i) {
        char digits[kNameDigits + 1];
        WriteDigits(digits);
        path_.replace(path_.size() - kNameDigits, kNameDigits, digits, kNameDigits);
        result = Uninterrupted([&] { return make(Name()); });
        if (result == -1 && errno != EEXIST) {
            break;
        }
    }
    isNamed_ = result != -1;
    return result;
}

int StagedFile::Create(mode_t mode)
{
    // A file without a name gets one through /proc, so it is not made where that is not mounted. Nobody else can reach
    // such a file, and it vanishes with the process.
    if (access(kOwnDescriptors, X_OK) == 0) {
        const int file =
            Uninterrupted([&] { return openat(place_.Directory(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, mode); });
        if (file != -1) {
            return file;
        }
    }
    const int file = WithNewName([&](const char* name) {
        return openat(place_.Directory(), name, O_CREAT | O_EXCL | O_NOFOLLOW | O_RDWR | O_CLOEXEC, mode);
    });
    if (file == -1) {
        Report(place_.Function(), "openat", path_, errno);
    }
    return file;
}

bool StagedFile::Write(const char* bytes, std::size_t count) const
{
    while (count > 0) {
        const ssize_t put = Uninterrupted([&] { return write(file_, bytes, count); });
        if (put == -1) {
            return place_.Failed("write");
        }
        bytes += put;
        count -= static_cast<std::size_t>(put);
    }
    return true;
}

bool StagedFile::Flush() const
{
    return place_.Check(Uninterrupted([this] { return fsync(file_); }) == 0, "fsync");
}

bool StagedFile::FlushNamed()
{
    return GiveName() && Flush();
}

bool StagedFile::CompleteWrites() const
{
    const int result = Uninterrupted([this] {
        const int copy = fcntl(file_, F_DUPFD_CLOEXEC, 0);
        return copy == -1 ? -1 : close(copy);
    });
    return place_.Check(result == 0, "close");
}

int StagedFile::Link(const char* name) const
{
    const std::string self = kOwnDescriptors + ("/" + std::to_string(static_cast<int>(file_)));
    return Uninterrupted([&] { return linkat(AT_FDCWD, self.c_str(), place_.Directory(), name, AT_SYMLINK_FOLLOW); });
}

bool StagedFile::GiveName()
{
    if (!isNamed_ && WithNewName([this](const char* name) { return Link(name); }) == -1) {
        Report(place_.Function(), "linkat", path_, errno);
        return false;
    }
    return true;
}

bool StagedFile::IsSeenFrom(const Place& other) const
{
    struct stat status;
    return Uninterrupted([&] { return fstatat(other.Directory(), Name(), &status, AT_SYMLINK_NOFOLLOW); }) == 0;
}

bool StagedFile::PutInPlace(bool noReplace)
{
    if (!isNamed_) {
        if (Link(place_.Name()) == 0) {
            return true;
        }
        if (noReplace || errno != EEXIST) {
            return place_.Failed("linkat");
        }
        if (!GiveName()) {
            return false;
        }
    }
    const int result = noReplace ? RenameToNewName(place_, Name(), place_) : Uninterrupted([this] {
        return renameat(place_.Directory(), Name(), place_.Directory(), place_.Name());
    });
    if (result == 0) {
        isNamed_ = false;
        return true;
    }
    // Where the file system cannot rename to a new name only, the file gets a second name. The destructor removes the
    // staged one.
    return place_.Check(noReplace && errno != EEXIST && LinkToNewName(place_, Name(), place_) == 0, "renameat");
}

}  // namespace internal
}  // namespace orv_safe
