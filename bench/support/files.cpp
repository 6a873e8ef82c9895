#include "support/files.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <system_error>
#include <utility>

namespace bench {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& what)
{
    (void)std::fprintf(stderr, "orv_bench: %s\n", what.c_str());
    std::exit(1);
}

std::string MakeTempDir(const std::string& parent)
{
    std::string path = parent + "/orv-bench-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        Fail("no directory can be made below " + parent);
    }
    return path;
}

// A directory that the environment names, or a new one of this process.
class RootDir {
public:
    RootDir(const char* variable, const char* parent)
    {
        const char* const given = std::getenv(variable);
        own_ = given == nullptr;
        path_ = own_ ? MakeTempDir(parent) : given;
    }

    ~RootDir()
    {
        if (own_) {
            std::error_code ignored;
            fs::remove_all(path_, ignored);
        }
    }

    RootDir(const RootDir&) = delete;
    RootDir& operator=(const RootDir&) = delete;

    [[nodiscard]] const std::string& Path() const
    {
        return path_;
    }

private:
    bool own_;
    std::string path_;
};

dev_t DeviceOf(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        Fail("no status of " + path);
    }
    return status.st_dev;
}

}  // namespace

const std::string& WorkDir()
{
    static const RootDir dir("ORV_BENCH_DIR", "/dev/shm");
    return dir.Path();
}

const std::string& OtherDir()
{
    static const RootDir dir("ORV_BENCH_OTHER_DIR", "/var/tmp");
    if (DeviceOf(dir.Path()) == DeviceOf(WorkDir())) {
        Fail(dir.Path() + " and " + WorkDir() + " are on one file system");
    }
    return dir.Path();
}

const std::string& DiskDir()
{
    static const RootDir dir("ORV_BENCH_DISK_DIR", ".");
    return dir.Path();
}

ScratchDir::ScratchDir(const std::string& parent) : path_(MakeTempDir(parent))
{
}

ScratchDir::~ScratchDir()
{
    if (!path_.empty()) {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
}

ScratchDir::ScratchDir(ScratchDir&& other) noexcept : path_(std::move(other.path_))
{
    other.path_.clear();
}

std::string ScratchDir::operator/(std::string_view name) const
{
    return path_ + '/' + std::string(name);
}

std::string Shared(const std::string& name, const std::function<void(const std::string& path)>& make)
{
    const std::string path = WorkDir() + '/' + name;
    if (!fs::exists(path)) {
        const std::string unfinished = path + ".unfinished";
        fs::remove_all(unfinished);
        make(unfinished);
        fs::rename(unfinished, path);
    }
    return path;
}

void WriteFile(const std::string& path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        Fail(path + " cannot be written");
    }
}

std::string SomeBytes(std::size_t bytes)
{
    std::mt19937 random(1);
    std::string content(bytes, '\0');
    for (char& byte : content) {
        byte = static_cast<char>(random() & 0xff);
    }
    return content;
}

std::string Digest(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return path + ": none\n";
    }
    const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return std::to_string(content.size()) + ' ' + std::to_string(std::hash<std::string>()(content)) + '\n';
}

}  // namespace bench
