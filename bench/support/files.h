/// @file
/// Directories and files that the workloads need. Large ones are made once and shared by all processes of a run.
#ifndef ORV_BENCH_FILES_H
#define ORV_BENCH_FILES_H

#include <functional>
#include <string>
#include <string_view>

namespace bench {

/// A directory of the file system that the workloads use: the one named by ORV_BENCH_DIR, where a driver has it shared
/// by several processes, otherwise one of our own below /dev/shm that goes when the program ends.
const std::string& WorkDir();

/// The same on another file system: ORV_BENCH_OTHER_DIR, or below /var/tmp. The program ends if it is not another one.
const std::string& OtherDir();

/// A new empty directory below WorkDir(), removed with all it holds by the destructor.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(ScratchDir&& other) noexcept;
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    ScratchDir& operator=(ScratchDir&&) = delete;

    std::string operator/(std::string_view name) const;

private:
    std::string path_;
};

/// The path of a file or directory of that name below WorkDir(), which `make(path)` makes unless an earlier call or
/// process has.
std::string Shared(const std::string& name, const std::function<void(const std::string& path)>& make);

void WriteFile(const std::string& path, std::string_view content);

/// `bytes` bytes that do not repeat soon.
std::string SomeBytes(std::size_t bytes);

/// Stands for a file's content in comparisons: size and hash, or that there is none.
std::string Digest(const std::string& path);

}  // namespace bench

#endif  // ORV_BENCH_FILES_H
