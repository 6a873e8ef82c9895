// MakeDirectory and ListFiles.

#include "internal.h"
#include "safe.h"

#include "LxStringUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace orv_safe {

using internal::Descriptor;
using internal::Report;
using internal::Uninterrupted;

// ---- MakeDirectory
//
// MakeDirPath makes nothing directly below "/" and ".", and any object at the path counts as made.

namespace {

const char kMakeDirectory[] = "MakeDirectory";
const mode_t kOwnerMayEnterAndWrite = 0300;

// The components of a path, one after the other. The slash at the beginning of a path is part of the first one.
class Components {
public:
    explicit Components(const std::string& path) : path_(path), begin_(0), end_(0)
    {
        path_.erase(path_.find_last_not_of('/') + 1);
    }

    // Moves to the next component, at first to the first one. False if there is none.
    bool Next()
    {
        if (IsLast()) {
            return false;
        }
        if (path_[end_] == '\0') {
            path_[end_] = '/';
            begin_ = path_.find_first_not_of('/', end_);
        }
        end_ = std::min(path_.find('/', path_.find_first_not_of('/', begin_)), path_.size());
        if (!IsLast()) {
            path_[end_] = '\0';
        }
        return true;
    }

    bool IsLast() const
    {
        return end_ == path_.size();
    }

    const char* Name() const
    {
        return path_.c_str() + begin_;
    }

    // The path from its beginning to this component.
    const char* Path() const
    {
        return path_.c_str();
    }

private:
    std::string path_;  // invariant: a NUL replaces the slash after the current component
    std::size_t begin_;
    std::size_t end_;
};

// O_PATH: a directory that may be searched but not read is good enough.
int OpenDirectory(int parent, const char* path)
{
    return Uninterrupted([&] { return openat(parent, path, O_PATH | O_DIRECTORY | O_CLOEXEC); });
}

// Makes the missing directories of a path. It opens each directory relative to the one above, so that no name is
// resolved twice.
class DirectoryMaker {
public:
    DirectoryMaker(const std::string& path, mode_t mode)
        : components_(path), mode_(mode), above_(-1), isAbsolute_(path[0] == '/'), namesAreChecked_(false)
    {
    }

    bool Make()
    {
        while (components_.Next()) {
            if (!Enter()) {
                return false;
            }
        }
        return true;
    }

private:
    // The directory above the current component, for the calls that take one.
    int Above() const
    {
        return IsFirst() ? AT_FDCWD : static_cast<int>(above_);
    }

    bool IsFirst() const
    {
        return above_ == -1;
    }

    bool Fail(const char* call, int error) const
    {
        Report(kMakeDirectory, call, components_.Path(), error);
        return false;
    }

    // Opens the directory of the current component, and makes it first if it is missing.
    bool Enter()
    {
        Descriptor next(OpenDirectory(Above(), components_.Name()));
        if (next == -1 && errno == ENOENT) {
            if (!MakeCurrent()) {
                return false;
            }
            Descriptor made(OpenDirectory(Above(), components_.Name()));
            next.Swap(made);
        }
        if (next == -1) {
            return Fail("open", errno);
        }
        above_.Swap(next);
        return true;
    }

    bool MakeCurrent()
    {
        if (!namesAreChecked_ && !AreNamesAccepted()) {
            return false;
        }
        // The owner must be able to make the next directory in this one.
        const mode_t mode = components_.IsLast() ? mode_ : mode_ | kOwnerMayEnterAndWrite;
        const int made = Uninterrupted([&] { return mkdirat(Above(), components_.Name(), mode); });
        // EEXIST: another process was faster, or it is not a directory; opening it decides.
        if (made != 0 && errno != EEXIST) {
            return Fail("mkdir", errno);
        }
        return true;
    }

    // Looks all names from the current one on up in the deepest directory that exists. None needs to be there, but the
    // file system refuses one that is too long, before anything is made.
    bool AreNamesAccepted()
    {
        namesAreChecked_ = true;
        const std::string deepest(IsFirst() && isAbsolute_ ? "/" : "");
        Components rest = components_;
        do {
            struct stat ignored;
            const int found = fstatat(Above(), (deepest + rest.Name()).c_str(), &ignored, AT_SYMLINK_NOFOLLOW);
            if (found != 0 && errno == ENAMETOOLONG) {
                Report(kMakeDirectory, "mkdir", rest.Path(), ENAMETOOLONG);
                return false;
            }
        } while (rest.Next());
        return true;
    }

    Components components_;
    mode_t mode_;
    Descriptor above_;  // the directory above the current component; none for the first one
    bool isAbsolute_;
    bool namesAreChecked_;
};

}  // namespace

bool MakeDirectory(const std::string& path, unsigned int mode)
{
    const std::string shown = path.substr(0, path.find('\0'));  // up to its first NUL, as the system sees it
    const Descriptor existing(OpenDirectory(AT_FDCWD, shown.c_str()));
    if (existing != -1) {
        return true;
    }
    // The kernel refuses a path that is too long here, before anything is made.
    if (errno != ENOENT || shown.empty()) {
        Report(kMakeDirectory, "open", shown, errno);
        return false;
    }
    return DirectoryMaker(shown, mode).Make();
}

// ---- ListFiles
//
// GetDirFileList lists neither links nor entries of unknown type, and keeps a part of the names after a failure.

namespace {

const char kListFiles[] = "ListFiles";

DIR* OpenToRead(const char* path)
{
    for (;;) {
        DIR* const directory = opendir(path);
        if (directory != nullptr || errno != EINTR) {
            return directory;
        }
    }
}

bool ComesBefore(const ListedFile& left, const ListedFile& right)
{
    return left.name < right.name;
}

// Reads an open directory, which it closes.
class Listing {
public:
    Listing(DIR* directory, const std::string& path, const std::string& include, const std::string& exclude,
            const ListOptions& options)
        : directory_(directory), path_(path), include_(include), exclude_(exclude), options_(options)
    {
    }
    ~Listing()
    {
        (void)closedir(directory_);
    }
    Listing(const Listing&) = delete;
    Listing& operator=(const Listing&) = delete;

    bool Read(std::vector<ListedFile>& files)
    {
        for (;;) {
            errno = 0;  // readdir does not change it at the end of the directory
            const struct dirent* const entry = readdir(directory_);
            if (entry != nullptr) {
                if (!AddIfWanted(entry->d_name, entry->d_type, files)) {
                    return false;
                }
            } else if (errno != EINTR) {
                return errno == 0 ? true : Fail("readdir", path_, errno);
            }
        }
    }

private:
    static bool Fail(const char* call, const std::string& path, int error)
    {
        Report(kListFiles, call, path, error);
        return false;
    }

    bool AddIfWanted(const std::string& name, unsigned char type, std::vector<ListedFile>& files) const
    {
        if (!MayBeFile(type) || !Matches(name)) {
            return true;
        }
        ListedFile file;
        file.name = options_.withDirectory ? PathOf(name) : name;
        if (type != DT_REG || options_.status) {
            struct stat status;
            const int flags = options_.followLinks ? 0 : AT_SYMLINK_NOFOLLOW;
            if (Uninterrupted([&] { return fstatat(dirfd(directory_), name.c_str(), &status, flags); }) != 0) {
                const int error = errno;
                return IsGone(error) ? true : Fail("stat", PathOf(name), error);
            }
            if (!S_ISREG(status.st_mode)) {
                return true;
            }
            if (options_.status) {
                file.bytes = status.st_size;
                file.modifiedSeconds = status.st_mtim.tv_sec;
                file.modifiedNanoseconds = status.st_mtim.tv_nsec;
            }
        }
        files.push_back(file);
        return true;
    }

    bool MayBeFile(unsigned char type) const
    {
        return type == DT_REG || type == DT_UNKNOWN || (type == DT_LNK && options_.followLinks);
    }

    bool Matches(const std::string& name) const
    {
        return (include_.empty() || LxStringUtils::WildcardedStringMatch(name, include_)) &&
               (exclude_.empty() || !LxStringUtils::WildcardedStringMatch(name, exclude_));
    }

    // True if the error of a status says that there is no file: it was removed meanwhile, or its link leads nowhere.
    bool IsGone(int error) const
    {
        return error == ENOENT ||
               (options_.followLinks && (error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG));
    }

    std::string PathOf(const std::string& name) const
    {
        return path_ + (path_.back() == '/' ? "" : "/") + name;
    }

    DIR* directory_;
    const std::string& path_;
    const std::string& include_;
    const std::string& exclude_;
    const ListOptions& options_;
};

}  // namespace

bool ListFiles(const std::string& directory, const std::string& include, const std::string& exclude,
               std::vector<ListedFile>& list, const ListOptions& options)
{
    const std::string path = directory.substr(0, directory.find('\0'));  // up to its first NUL, as the system sees it
    DIR* const opened = OpenToRead(path.c_str());
    if (opened == nullptr) {
        Report(kListFiles, "opendir", path, errno);
        return false;
    }
    std::vector<ListedFile> files;
    if (!Listing(opened, path, include, exclude, options).Read(files)) {
        return false;
    }
    std::sort(files.begin(), files.end(), ComesBefore);
    list.swap(files);
    return true;
}

}  // namespace orv_safe
