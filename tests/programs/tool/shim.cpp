// Is preloaded into a tested program, to record its system calls and to make them fail.
//   ORV_SHIM_TRACE=FILE       appends a line for each of the calls below: "fsync PATH", "rename FROM TO"
//   ORV_SHIM_FAIL=CALL:ERRNO  calls with that name are not made and fail
//   ORV_SHIM_UNTYPED=1        directory entries have no type

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

template <typename Function>
Function* Next(Function* /*type*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Trace(const std::string& line)
{
    const char* const path = std::getenv("ORV_SHIM_TRACE");
    if (path == nullptr) {
        return;
    }
    const int callersErrno = errno;
    const int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    const std::string text = line + "\n";
    if (write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::abort();
    }
    close(file);
    errno = callersErrno;
}

bool Fails(const std::string& call)
{
    const char* const wanted = std::getenv("ORV_SHIM_FAIL");
    if (wanted == nullptr || std::strncmp(wanted, (call + ":").c_str(), call.size() + 1) != 0) {
        return false;
    }
    errno = static_cast<int>(std::strtol(wanted + call.size() + 1, nullptr, 10));
    return true;
}

std::string PathOf(int descriptor)
{
    char path[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    return readlink(link.c_str(), path, sizeof path - 1) > 0 ? path : "?";
}

template <typename Entry>
Entry* WithoutType(Entry* entry)
{
    if (entry != nullptr && std::getenv("ORV_SHIM_UNTYPED") != nullptr) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int fsync(int descriptor)
{
    Trace("fsync " + PathOf(descriptor));
    return Fails("fsync") ? -1 : Next(fsync, "fsync")(descriptor);
}

EXPORTED int rename(const char* from, const char* to) noexcept
{
    Trace(std::string("rename ") + from + " " + to);
    return Fails("rename") ? -1 : Next(rename, "rename")(from, to);
}

EXPORTED int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
                       unsigned int flags) noexcept
{
    Trace(std::string("renameat2 ") + from + " " + to);
    return Fails("renameat2") ? -1 : Next(renameat2, "renameat2")(fromDirectory, from, toDirectory, to, flags);
}

EXPORTED int link(const char* from, const char* to) noexcept
{
    Trace(std::string("link ") + from + " " + to);
    return Fails("link") ? -1 : Next(link, "link")(from, to);
}

EXPORTED int unlink(const char* path) noexcept
{
    Trace(std::string("unlink ") + path);
    return Fails("unlink") ? -1 : Next(unlink, "unlink")(path);
}

EXPORTED int chmod(const char* path, mode_t mode) noexcept
{
    return Fails("chmod") ? -1 : Next(chmod, "chmod")(path, mode);
}

EXPORTED struct dirent* readdir(DIR* directory)
{
    return WithoutType(Next(readdir, "readdir")(directory));
}

EXPORTED struct dirent64* readdir64(DIR* directory)
{
    return WithoutType(Next(readdir64, "readdir64")(directory));
}

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

EXPORTED int readdir_r(DIR* directory, struct dirent* buffer, struct dirent** entry)
{
    const int error = Next(readdir_r, "readdir_r")(directory, buffer, entry);
    WithoutType(error == 0 ? *entry : nullptr);
    return error;
}

EXPORTED int readdir64_r(DIR* directory, struct dirent64* buffer, struct dirent64** entry)
{
    const int error = Next(readdir64_r, "readdir64_r")(directory, buffer, entry);
    WithoutType(error == 0 ? *entry : nullptr);
    return error;
}
