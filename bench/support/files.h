/// @file
/// Directories and files for the workloads. Large ones are made once and shared by all processes of a run.
#ifndef ORV_BENCH_FILES_H
#define ORV_BENCH_FILES_H

#include <functional>
#include <string>
#include <string_view>

namespace bench {

/// The directory of the workloads: ORV_BENCH_DIR, which run.py sets and several processes share, or otherwise a new one
/// below /dev/shm, which is removed when the program ends.
const std::string& WorkDir();

/// The same on another file system: ORV_BENCH_OTHER_DIR, or below /var/tmp. The program fails if it is the same one.
const std::string& OtherDir();

/// The same on a disk: ORV_BENCH_DISK_DIR, or below the working directory.
const std::string& DiskDir();

/// A new, empty directory below another one. The destructor removes it with everything in it.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& parent = WorkDir());
    ~ScratchDir();
    ScratchDir(ScratchDir&& other) noexcept;
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    ScratchDir& operator=(ScratchDir&&) = delete;

    std::string operator/(std::string_view name) const;

private:
    std::string path_;
};

/// Returns the path of a file or directory of that name below WorkDir(). If no earlier call or process has made it,
/// `make(path)` makes it.
std::string Shared(const std::string& name, const std::function<void(const std::string& path)>& make);

void WriteFile(const std::string& path, std::string_view content);

/// Returns `bytes` bytes with a long period.
std::string SomeBytes(std::size_t bytes);

/// Describes the content of a file for comparisons: its size and hash, or that it does not exist.
std::string Digest(const std::string& path);

}  // namespace bench

#endif  // ORV_BENCH_FILES_H
