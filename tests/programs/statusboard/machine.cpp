// Preloaded into the status board: a machine that a test describes, by files in the directory ORV_MACHINE.
//   host               the name of the machine
//   loadavg uptime     what the files of these names in /proc hold
//   mounts             likewise
//   space              a line for each file system: "BLOCK_BYTES BLOCKS FREE_BLOCKS MOUNT_POINT"
//   interfaces         a line for each address of a network interface: "FLAGS NAME"
//   signal             the number of a signal that comes while the status board asks for the name
//   full               the medium is full, which is reported when the new tables are closed
// Without its file, a call fails, and no signal comes. What the status board should not use is wrong. A flush to the
// medium ends it.

#include <dlfcn.h>
#include <ifaddrs.h>
#include <mntent.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

template <typename Function>
Function* Next(Function* /*type*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string Described(const std::string& name)
{
    return std::string(std::getenv("ORV_MACHINE")) + "/" + name;
}

std::string InsteadOf(const std::string& path)
{
    const bool isDescribed = path.compare(0, 6, "/proc/") == 0 && path.compare(0, 11, "/proc/self/") != 0;
    return isDescribed ? Described(path.substr(6)) : path;
}

bool IsNamed(FILE* file, const std::string& end)
{
    char path[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fileno(file));
    const ssize_t length = readlink(link.c_str(), path, sizeof path - 1);
    return length >= static_cast<ssize_t>(end.size()) && path + length - end.size() == end;
}

template <typename Status>
int Space(const char* mountPoint, Status* status)
{
    std::ifstream lines(Described("space"));
    std::string path;
    for (Status space = {}; lines >> space.f_frsize >> space.f_blocks >> space.f_bfree && std::getline(lines, path);) {
        if (path == std::string(" ") + mountPoint) {
            space.f_bsize = 8 * space.f_frsize;
            space.f_bavail = space.f_bfree / 2;
            *status = space;
            return 0;
        }
    }
    errno = EACCES;
    return -1;
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int uname(struct utsname* result) noexcept
{
    std::ifstream(Described("host")).getline(result->nodename, sizeof result->nodename);
    int number = 0;
    if (std::ifstream(Described("signal")) >> number) {
        raise(number);
    }
    return 0;
}

EXPORTED int fsync(int /*descriptor*/)
{
    std::abort();
}

EXPORTED int fdatasync(int /*descriptor*/)
{
    std::abort();
}

EXPORTED int syncfs(int /*descriptor*/) noexcept
{
    std::abort();
}

EXPORTED void sync() noexcept
{
    std::abort();
}

EXPORTED FILE* fopen(const char* path, const char* mode)
{
    return Next(fopen, "fopen")(InsteadOf(path).c_str(), mode);
}

EXPORTED FILE* fopen64(const char* path, const char* mode)
{
    return Next(fopen64, "fopen64")(InsteadOf(path).c_str(), mode);
}

EXPORTED int fclose(FILE* file)
{
    const bool isFull = access(Described("full").c_str(), F_OK) == 0 && IsNamed(file, ".txt.new");
    const int result = Next(fclose, "fclose")(file);
    errno = isFull ? ENOSPC : errno;
    return isFull ? EOF : result;
}

EXPORTED FILE* setmntent(const char* path, const char* mode) noexcept
{
    return Next(setmntent, "setmntent")(InsteadOf(path).c_str(), mode);
}

EXPORTED int statvfs(const char* path, struct statvfs* status) noexcept
{
    return Space(path, status);
}

EXPORTED int statvfs64(const char* path, struct statvfs64* status) noexcept
{
    return Space(path, status);
}

EXPORTED int getifaddrs(struct ifaddrs** all) noexcept
{
    std::ifstream lines(Described("interfaces"));
    struct ifaddrs one = {};
    std::string name;
    for (*all = nullptr; lines >> one.ifa_flags >> name;) {
        one.ifa_name = strdup(name.c_str());
        one.ifa_next = *all;  // so the last line comes first
        *all = static_cast<struct ifaddrs*>(std::malloc(sizeof one));
        **all = one;
    }
    return *all == nullptr ? -1 : 0;
}

EXPORTED void freeifaddrs(struct ifaddrs* all) noexcept
{
    while (all != nullptr) {
        struct ifaddrs* const next = all->ifa_next;
        std::free(all->ifa_name);
        std::free(all);
        all = next;
    }
}
