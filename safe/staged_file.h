// A file that is written beside its destination and put in place in one step.
#ifndef ORV_SAFE_STAGED_FILE_H
#define ORV_SAFE_STAGED_FILE_H

#include "internal.h"

#include <sys/stat.h>

#include <cstddef>
#include <string>

namespace orv_safe {
namespace internal {

// A name in a directory. The directory is opened once, so that nobody can redirect the calls that follow. Its methods
// report failures under the name of the public function `function`.
class Place {
public:
    // Opens the directory, and reports if that fails. Only a directory that was opened for flushing can be flushed; the
    // caller must then have permission to read it. `function` is kept, not copied.
    Place(const char* function, const std::string& path, bool forFlushing);

    bool IsOpen() const
    {
        return descriptor_ != -1;
    }
    int Directory() const
    {
        return descriptor_;
    }
    const char* Function() const
    {
        return function_;
    }
    const std::string& Path() const
    {
        return path_;
    }
    // With a slash at the end.
    const std::string& DirectoryPath() const
    {
        return directoryPath_;
    }
    // A part of Path().
    const char* Name() const
    {
        return path_.c_str() + path_.rfind('/') + 1;
    }

    // Reports `call` with this path and errno. Returns false.
    bool Failed(const char* call) const
    {
        Report(function_, call, path_, errno);
        return false;
    }
    // Reports `call` unless it succeeded. Returns whether it did.
    bool Check(bool succeeded, const char* call) const
    {
        return succeeded ? true : Failed(call);
    }

    // Reads the status of what is at this name. Links are not followed. Returns false and sets errno if that fails.
    bool ReadStatus(struct stat& status) const;

    // Returns whether a file may be put here: nothing exists here, then `status` is not changed, or a regular file or a
    // symbolic link that may be replaced. Otherwise reports why not.
    bool IsFree(bool noReplace, struct stat& status) const;

    // Writes the names in the directory to the medium.
    bool FlushDirectory() const;

private:
    int Open(bool forFlushing) const;

    const char* function_;
    std::string path_;
    std::string directoryPath_;
    Descriptor descriptor_;
};

// Reports a file that is not regular, and returns whether it is.
bool RequireRegular(const Place& place, const struct stat& status);

// The calls by number, because older C libraries do not have them. errno is ENOSYS if the system's headers are too old.
long CopyFileRange(int from, int to, std::size_t bytes);
int RenameToNewName(const Place& from, const char* name, const Place& to);
int LinkToNewName(const Place& from, const char* name, const Place& to);

// A new file with mode 0600, unless another one is given, which the process's mask reduces. It has no name if the file
// system can do that, and otherwise a name of its own, ".orv_" and 16 hexadecimal digits. The destructor removes that
// name unless the file was put in place.
class StagedFile {
public:
    // Creates the file in the directory of `place`, which must be open and outlive this object.
    explicit StagedFile(const Place& place, mode_t mode = S_IRUSR | S_IWUSR);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    bool IsOpen() const
    {
        return file_ != -1;
    }
    int File() const
    {
        return file_;
    }
    const Place& At() const
    {
        return place_;
    }

    bool Write(const char* bytes, std::size_t count) const;

    // Writes the content to the medium.
    bool Flush() const;

    // Writes the content to the medium, so that a power cut after PutInPlace cannot lose it. Until a file has a name,
    // btrfs of Linux 6.1 does not record its flush: then the flush of the directory records an empty file.
    bool FlushNamed();

    // Finds out whether all writes succeeded. Some file systems report that only when a file is closed.
    bool CompleteWrites() const;

    // Gives a file without a name one of its own.
    bool GiveName();

    // Returns whether the staged name leads to something in `other`, too. Then both are one directory.
    bool IsSeenFrom(const Place& other) const;

    // Puts the file at the place. With noReplace, this fails if something is there already.
    bool PutInPlace(bool noReplace);

private:
    template <typename Make>
    int WithNewName(Make make);
    int Create(mode_t mode);
    const char* Name() const;
    int Link(const char* name) const;

    const Place& place_;
    std::string path_;  // of the staged name; allocated in its full length at the start
    bool isNamed_;
    Descriptor file_;
};

}  // namespace internal
}  // namespace orv_safe

#endif  // ORV_SAFE_STAGED_FILE_H
