// Is preloaded into a tested program, too, to take away what the system offers to programs that wait for changes:
//   ORV_SHIM_PATIENT=1      polls of a second have no time limit, so only events end them
//   ORV_SHIM_WAITS=FILE     the time limits of polls are appended to this file, a line each
//   ORV_SHIM_POLL=ERRNO     the first poll fails with this error
//   ORV_SHIM_BLIND=1        there are no events
//   ORV_SHIM_DEAF=ERRNO     signals cannot be read
//   ORV_SHIM_LEASE=ERRNO    leases fail with this error
//   ORV_SHIM_FS=TYPE        all files are on a file system of this type; 0: the system does not tell the type
//   ORV_SHIM_UNNAMED=ERRNO  files without a name cannot be made
//   ORV_SHIM_NAMED=ERRNO    nor temporary files with one

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

template <typename Function>
Function* Next(Function* /*type*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Returns whether the setting is there; errno is then its value.
bool IsSet(const char* setting)
{
    const char* const value = std::getenv(setting);
    if (value == nullptr) {
        return false;
    }
    errno = std::atoi(value);
    return true;
}

typedef int Open(const char* path, int flags, ...);
typedef int Fcntl(int descriptor, int command, ...);

int OpenBy(Open* next, const char* path, int flags, mode_t mode)
{
    const bool isUnnamed = (flags & O_TMPFILE) == O_TMPFILE;
    return isUnnamed && IsSet("ORV_SHIM_UNNAMED") ? -1 : next(path, flags, mode);
}

int FcntlBy(Fcntl* next, int descriptor, int command, void* argument)
{
    return command == F_SETLEASE && IsSet("ORV_SHIM_LEASE") ? -1 : next(descriptor, command, argument);
}

void Record(int timeout)
{
    if (const char* const path = std::getenv("ORV_SHIM_WAITS")) {
        std::FILE* const file = std::fopen(path, "a");
        (void)std::fprintf(file, "%d\n", timeout);
        (void)std::fclose(file);
    }
}

template <typename Status>
int WithType(int result, Status* status)
{
    if (const char* const type = std::getenv("ORV_SHIM_FS")) {
        const unsigned long number = std::strtoul(type, nullptr, 16);
        status->f_type = static_cast<decltype(status->f_type)>(number);
        return number == 0 ? -1 : result;
    }
    return result;
}

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED int poll(struct pollfd* descriptors, nfds_t count, int timeout)
{
    static bool isFirst = true;
    if (isFirst && IsSet("ORV_SHIM_POLL")) {
        isFirst = false;
        return -1;
    }
    Record(timeout);
    return Next(poll, "poll")(descriptors, count, timeout > 900 && IsSet("ORV_SHIM_PATIENT") ? -1 : timeout);
}

// With _FORTIFY_SOURCE
EXPORTED int __poll_chk(struct pollfd* descriptors, nfds_t count, int timeout, size_t /*size*/)
{
    return poll(descriptors, count, timeout);
}

EXPORTED int inotify_init1(int flags) noexcept
{
    return IsSet("ORV_SHIM_BLIND") ? -1 : Next(inotify_init1, "inotify_init1")(flags);
}

EXPORTED int signalfd(int descriptor, const sigset_t* signals, int flags) noexcept
{
    return IsSet("ORV_SHIM_DEAF") ? -1 : Next(signalfd, "signalfd")(descriptor, signals, flags);
}

EXPORTED int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return OpenBy(Next(static_cast<Open*>(nullptr), "open"), path, flags, mode);
}

EXPORTED int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return OpenBy(Next(static_cast<Open*>(nullptr), "open64"), path, flags, mode);
}

EXPORTED int fcntl(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return FcntlBy(Next(static_cast<Fcntl*>(nullptr), "fcntl"), descriptor, command, argument);
}

EXPORTED int fcntl64(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return FcntlBy(Next(static_cast<Fcntl*>(nullptr), "fcntl64"), descriptor, command, argument);
}

// On 32-bit machines with 64-bit times
EXPORTED int __fcntl_time64(int descriptor, int command, ...)
{
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return FcntlBy(Next(static_cast<Fcntl*>(nullptr), "__fcntl_time64"), descriptor, command, argument);
}

EXPORTED int fstatfs(int descriptor, struct statfs* status) noexcept
{
    return WithType(Next(fstatfs, "fstatfs")(descriptor, status), status);
}

EXPORTED int fstatfs64(int descriptor, struct statfs64* status) noexcept
{
    return WithType(Next(fstatfs64, "fstatfs64")(descriptor, status), status);
}

EXPORTED int mkostemp(char* path, int flags)
{
    return IsSet("ORV_SHIM_NAMED") ? -1 : Next(mkostemp, "mkostemp")(path, flags);
}

EXPORTED int mkostemp64(char* path, int flags)
{
    return IsSet("ORV_SHIM_NAMED") ? -1 : Next(mkostemp64, "mkostemp64")(path, flags);
}
