// Wraps the calls that only the safe companion makes, for ScopedCall. The wrappers define both the plain and the 64-bit
// names of the calls. With 64-bit file offsets in this file, the system's headers would rename the plain names.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include "support/faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <optional>

namespace {

template <typename Function>
Function Real(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

template <typename Result, typename... Arguments>
Result Wrapped(const char* call, const char* realName, Arguments... arguments)
{
    if (const std::optional<long> result = ScopedResult(call)) {
        return static_cast<Result>(*result);
    }
    return Real<Result (*)(Arguments...)>(realName)(arguments...);
}

// A ScopedCall by that name returns how many bytes a call is made for.
size_t Shortened(const char* call, size_t bytes)
{
    const std::optional<long> most = ScopedResult(call);
    return most ? std::min(bytes, static_cast<size_t>(*most)) : bytes;
}

}  // namespace

// ---- The wrappers

extern "C" {

int access(const char* path, int kind) noexcept
{
    return Wrapped<int>("access", "access", path, kind);
}

int fcntl(int descriptor, int command, ...)
{
    std::va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    if (const std::optional<long> result = command == F_DUPFD_CLOEXEC ? ScopedResult("dup") : std::nullopt) {
        return static_cast<int>(*result);
    }
    return Real<int (*)(int, int, ...)>("fcntl")(descriptor, command, argument);
}

int fcntl64(int descriptor, int command, ...)
{
    std::va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    if (const std::optional<long> result = command == F_DUPFD_CLOEXEC ? ScopedResult("dup") : std::nullopt) {
        return static_cast<int>(*result);
    }
    return Real<int (*)(int, int, ...)>("fcntl64")(descriptor, command, argument);
}

int fstat(int descriptor, struct stat* status) noexcept
{
    return Wrapped<int>("fstat", "fstat", descriptor, status);
}

int fstat64(int descriptor, struct stat64* status) noexcept
{
    return Wrapped<int>("fstat", "fstat64", descriptor, status);
}

int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept
{
    return Wrapped<int>("linkat", "linkat", fromDirectory, from, toDirectory, to, flags);
}

int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept
{
    return Wrapped<int>("renameat", "renameat", fromDirectory, from, toDirectory, to);
}

int unlinkat(int directory, const char* path, int flags) noexcept
{
    return Wrapped<int>("unlinkat", "unlinkat", directory, path, flags);
}

ssize_t readlinkat(int directory, const char* path, char* target, size_t bytes) noexcept
{
    return Wrapped<ssize_t>("readlinkat", "readlinkat", directory, path, target, bytes);
}

int fchmod(int descriptor, mode_t mode) noexcept
{
    return Wrapped<int>("fchmod", "fchmod", descriptor, mode);
}

int fchown(int descriptor, uid_t owner, gid_t group) noexcept
{
    return Wrapped<int>("fchown", "fchown", descriptor, owner, group);
}

int futimens(int descriptor, const timespec times[2]) noexcept
{
    return Wrapped<int>("futimens", "futimens", descriptor, times);
}

ssize_t flistxattr(int descriptor, char* names, size_t bytes) noexcept
{
    return Wrapped<ssize_t>("flistxattr", "flistxattr", descriptor, names, bytes);
}

ssize_t fgetxattr(int descriptor, const char* name, void* value, size_t bytes) noexcept
{
    return Wrapped<ssize_t>("fgetxattr", "fgetxattr", descriptor, name, value, bytes);
}

int fsetxattr(int descriptor, const char* name, const void* value, size_t bytes, int flags) noexcept
{
    return Wrapped<int>("fsetxattr", "fsetxattr", descriptor, name, value, bytes, flags);
}

ssize_t pread(int descriptor, void* buffer, size_t bytes, off_t offset)
{
    bytes = Shortened("pread bytes", bytes);
    return Wrapped<ssize_t>("pread", "pread", descriptor, buffer, bytes, offset);
}

ssize_t pread64(int descriptor, void* buffer, size_t bytes, off64_t offset)
{
    bytes = Shortened("pread bytes", bytes);
    return Wrapped<ssize_t>("pread", "pread64", descriptor, buffer, bytes, offset);
}

off_t lseek(int descriptor, off_t offset, int whence) noexcept
{
    return Wrapped<off_t>("lseek", "lseek", descriptor, offset, whence);
}

off64_t lseek64(int descriptor, off64_t offset, int whence) noexcept
{
    return Wrapped<off64_t>("lseek", "lseek64", descriptor, offset, whence);
}

int ftruncate(int descriptor, off_t bytes) noexcept
{
    return Wrapped<int>("ftruncate", "ftruncate", descriptor, bytes);
}

int ftruncate64(int descriptor, off64_t bytes) noexcept
{
    return Wrapped<int>("ftruncate", "ftruncate64", descriptor, bytes);
}

int posix_fadvise(int descriptor, off_t offset, off_t bytes, int advice) noexcept
{
    RecordCall("posix_fadvise", descriptor, {offset, bytes, advice});
    return Wrapped<int>("posix_fadvise", "posix_fadvise", descriptor, offset, bytes, advice);
}

int posix_fadvise64(int descriptor, off64_t offset, off64_t bytes, int advice) noexcept
{
    RecordCall("posix_fadvise", descriptor, {static_cast<long>(offset), static_cast<long>(bytes), advice});
    return Wrapped<int>("posix_fadvise", "posix_fadvise64", descriptor, offset, bytes, advice);
}

ssize_t sendfile(int to, int from, off_t* offset, size_t bytes) noexcept
{
    return Wrapped<ssize_t>("sendfile", "sendfile", to, from, offset, bytes);
}

ssize_t sendfile64(int to, int from, off64_t* offset, size_t bytes) noexcept
{
    return Wrapped<ssize_t>("sendfile", "sendfile64", to, from, offset, bytes);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    return Wrapped<int>("clock_gettime", "clock_gettime", clock, time);
}

#if __WORDSIZE == 32
// The names on 32-bit systems with 64-bit times.
int __fstat64_time64(int descriptor, void* status) noexcept
{
    return Wrapped<int>("fstat", "__fstat64_time64", descriptor, status);
}

int __clock_gettime64(clockid_t clock, void* time) noexcept
{
    return Wrapped<int>("clock_gettime", "__clock_gettime64", clock, time);
}

int __futimens64(int descriptor, const void* times) noexcept
{
    return Wrapped<int>("futimens", "__futimens64", descriptor, times);
}

int __fcntl_time64(int descriptor, int command, ...)
{
    std::va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    if (const std::optional<long> result = command == F_DUPFD_CLOEXEC ? ScopedResult("dup") : std::nullopt) {
        return static_cast<int>(*result);
    }
    return Real<int (*)(int, int, ...)>("__fcntl_time64")(descriptor, command, argument);
}
#endif

long syscall(long number, ...) noexcept
{
    std::va_list rest;
    va_start(rest, number);
    long arguments[6];
    for (long& argument : arguments) {
        argument = va_arg(rest, long);
    }
    va_end(rest);
    const char* const call = number == SYS_copy_file_range ? "copy_file_range"
                             : number == SYS_renameat2     ? "renameat2"
                                                           : "";
    if (const std::optional<long> result = ScopedResult(call)) {
        return *result;
    }
    return Real<long (*)(long, ...)>("syscall")(number, arguments[0], arguments[1], arguments[2], arguments[3],
                                                arguments[4], arguments[5]);
}

}  // extern "C"
