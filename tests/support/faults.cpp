// The wrappers define both the plain and the 64-bit names of the calls. With 64-bit file offsets in this file, the
// system's headers would rename the plain names.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS

#include "support/faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

#include "gtest/gtest.h"

namespace {

struct ShortWrite {
    int left = 0;
    std::size_t bytes = 0;
    bool fired = false;
};

struct Trace {
    std::vector<std::string> calls;
    std::map<int, std::string> paths;  // of open descriptors
    std::string temporary;
};

// All of these belong to a thread: a fault affects only calls of the thread that set it.
thread_local std::vector<ScopedFault*> faults;
thread_local std::vector<ScopedCall*> scopedCalls;
thread_local ShortWrite shortWrite;
thread_local bool unknownTypes = false;
thread_local std::string vanishing;  // the path to remove after its status was read
thread_local Trace* trace = nullptr;
thread_local ScopedAction* scopedAction = nullptr;
thread_local ScopedStatus* scopedStatus = nullptr;

// Returns the system's function of that name.
template <typename Function>
Function Real(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

const ScopedFault* FaultFor(Call call)
{
    if (scopedAction != nullptr) {
        scopedAction->RunIfDue(call);
    }
    const ScopedFault* hit = nullptr;
    for (ScopedFault* const fault : faults) {
        if (fault->Hits(call)) {
            hit = fault;
        }
    }
    return hit;
}

// Returns whether the call must fail; then errno is that of the fault.
bool Fails(Call call)
{
    const ScopedFault* const fault = FaultFor(call);
    if (fault == nullptr) {
        return false;
    }
    errno = fault->Error();
    return true;
}

std::string Shown(const std::string& path)
{
    return trace->temporary.empty() || path != trace->temporary ? path : "<temporary>";
}

std::string Shown(int descriptor)
{
    const auto path = trace->paths.find(descriptor);
    return path == trace->paths.end() ? std::to_string(descriptor) : Shown(path->second);
}

// Records a call on paths or descriptors without touching errno.
template <typename... Rest>
void Record(const char* name, const Rest&... parts)
{
    const int saved = errno;
    std::string text = name;
    (text.append(parts), ...);
    trace->calls.push_back(text);
    errno = saved;
}

void RemoveIfVanishing(const char* path)
{
    if (vanishing == path && Real<int (*)(const char*)>("unlink")(path) == 0) {
        vanishing.clear();
    }
}

template <typename... Arguments>
int OnPath(Call call, const char* traceName, const char* realName, const char* path, Arguments... arguments)
{
    if (trace != nullptr) {
        Record(traceName, "(", Shown(path), ")");
    }
    const int result = Fails(call) ? -1 : Real<int (*)(const char*, Arguments...)>(realName)(path, arguments...);
    if (call == Call::kStat && !vanishing.empty()) {
        RemoveIfVanishing(path);
    }
    return result;
}

int Open(const char* realName, const char* path, int flags, mode_t mode)
{
    if (Fails(Call::kOpen)) {
        return -1;
    }
    const int descriptor = Real<int (*)(const char*, int, ...)>(realName)(path, flags, mode);
    if (trace != nullptr) {
        Record("open(", Shown(path), ", ", std::to_string(flags & ~O_LARGEFILE), ")");
        trace->paths[descriptor] = path;
    }
    return descriptor;
}

int Mkstemp(const char* realName, char* path)
{
    if (trace != nullptr) {
        Record("mkstemp(", path, ")");
    }
    if (Fails(Call::kMkstemp)) {
        return -1;
    }
    const int descriptor = Real<int (*)(char*)>(realName)(path);
    if (trace != nullptr) {
        trace->temporary = path;
        trace->paths[descriptor] = path;
    }
    return descriptor;
}

template <typename... Arguments>
int OnPathAt(Call call, const char* name, int directory, const char* path, Arguments... arguments)
{
    if (const std::optional<long> result = ScopedResult(call == Call::kOpenat ? "openat" : "fstatat")) {
        return static_cast<int>(*result);
    }
    return Fails(call) ? -1 : Real<int (*)(int, const char*, Arguments...)>(name)(directory, path, arguments...);
}

template <typename Status>
int StatusAt(const char* name, int directory, const char* path, Status* status, int flags)
{
    const int result = OnPathAt(Call::kFstatat, name, directory, path, status, flags);
    if (result == 0 && scopedStatus != nullptr) {
        scopedStatus->Apply(status);
    }
    return result;
}

// A file without a name is asked for by a call of its own name here, so that tests can make a file system lack it.
int OpenAt(const char* name, int directory, const char* path, int flags, mode_t mode)
{
    if ((flags & O_TMPFILE) == O_TMPFILE) {
        const std::optional<long> result = ScopedResult("tmpfile");
        return result ? static_cast<int>(*result)
                      : Real<int (*)(int, const char*, int, ...)>(name)(directory, path, flags, mode);
    }
    return OnPathAt(Call::kOpenat, name, directory, path, flags, mode);
}

template <typename Entry>
Entry* NextEntry(const char* realName, DIR* directory)
{
    if (Fails(Call::kReaddir)) {
        return nullptr;
    }
    Entry* const entry = Real<Entry* (*)(DIR*)>(realName)(directory);
    if (unknownTypes && entry != nullptr) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

template <typename Entry>
int ReadEntry(const char* realName, DIR* directory, Entry* buffer, Entry** entry)
{
    if (trace != nullptr) {
        Record("readdir_r()");
    }
    if (const ScopedFault* const fault = FaultFor(Call::kReaddir)) {
        *entry = nullptr;
        errno = 0;  // readdir_r returns its error; a caller that reads errno instead is noticed
        return fault->Error();
    }
    const int error = Real<int (*)(DIR*, Entry*, Entry**)>(realName)(directory, buffer, entry);
    if (unknownTypes && error == 0 && *entry != nullptr) {
        (*entry)->d_type = DT_UNKNOWN;
    }
    return error;
}

}  // namespace

ScopedFault::ScopedFault(Call call, int nth, int error) : call_(call), left_(nth), error_(error)
{
    faults.push_back(this);
}

ScopedFault::~ScopedFault()
{
    EXPECT_TRUE(fired_) << "the fault was never reached";
    faults.pop_back();
}

bool ScopedFault::Hits(Call call)
{
    if (call != call_ || --left_ != 0) {
        return false;
    }
    fired_ = true;
    return true;
}

ScopedCall::ScopedCall(std::string call, int nth, Act act, int times)
    : call_(std::move(call)), left_(nth), act_(std::move(act)), times_(times)
{
    scopedCalls.push_back(this);
}

ScopedCall::~ScopedCall()
{
    EXPECT_TRUE(reached_) << call_ << " was never reached";
    scopedCalls.pop_back();
}

std::optional<long> ScopedCall::Result(const char* call)
{
    if (call_ != call || --left_ > 0 || left_ <= -times_) {
        return std::nullopt;
    }
    reached_ = true;
    return act_();
}

std::optional<long> ScopedResult(const char* call)
{
    std::optional<long> result;
    for (ScopedCall* const scoped : scopedCalls) {
        if (const std::optional<long> own = scoped->Result(call)) {
            result = own;
        }
    }
    return result;
}

ScopedStatus::ScopedStatus(int nth, Change change) : left_(nth), change_(std::move(change))
{
    scopedStatus = this;
}

ScopedStatus::~ScopedStatus()
{
    EXPECT_GE(0, left_) << "the status was never read";
    scopedStatus = nullptr;
}

void ScopedStatus::Apply(void* status)
{
    if (--left_ == 0) {
        change_(static_cast<struct stat*>(status));
    }
}

ScopedCall::Act FailWith(int error)
{
    return [error] {
        errno = error;
        return -1L;
    };
}

ScopedShortWrite::ScopedShortWrite(int nth, std::size_t bytes)
{
    shortWrite = ShortWrite{nth, bytes, false};
}

ScopedShortWrite::~ScopedShortWrite()
{
    EXPECT_TRUE(shortWrite.fired) << "the short write was never reached";
    shortWrite = ShortWrite{};
}

ScopedUnknownTypes::ScopedUnknownTypes()
{
    unknownTypes = true;
}

ScopedUnknownTypes::~ScopedUnknownTypes()
{
    unknownTypes = false;
}

ScopedVanishAfterStat::ScopedVanishAfterStat(const std::string& path)
{
    vanishing = path;
}

ScopedVanishAfterStat::~ScopedVanishAfterStat()
{
    EXPECT_EQ("", vanishing) << "its status was never taken";
    vanishing.clear();
}

ScopedAction::ScopedAction(Call call, int nth, std::function<void()> action)
    : call_(call), left_(nth), action_(std::move(action))
{
    scopedAction = this;
}

ScopedAction::~ScopedAction()
{
    EXPECT_TRUE(ran_) << "the action was never due";
    scopedAction = nullptr;
}

void ScopedAction::RunIfDue(Call call)
{
    if (call == call_ && --left_ == 0) {
        ran_ = true;
        action_();
    }
}

ScopedTrace::ScopedTrace()
{
    trace = new Trace;
}

ScopedTrace::~ScopedTrace()
{
    delete trace;
    trace = nullptr;
}

const std::vector<std::string>& ScopedTrace::Calls() const
{
    return trace->calls;
}

void RecordCall(const char* name, int descriptor, std::initializer_list<long> arguments)
{
    if (trace != nullptr) {
        std::string rest;
        for (const long argument : arguments) {
            rest += ", " + std::to_string(argument);
        }
        Record(name, "(", Shown(descriptor), rest, ")");
    }
}

// ---- The wrappers

extern "C" {

int stat(const char* path, struct stat* status) noexcept
{
    return OnPath(Call::kStat, "stat", "stat", path, status);
}

int stat64(const char* path, struct stat64* status) noexcept
{
    return OnPath(Call::kStat, "stat", "stat64", path, status);
}

int lstat(const char* path, struct stat* status) noexcept
{
    return OnPath(Call::kLstat, "lstat", "lstat", path, status);
}

int lstat64(const char* path, struct stat64* status) noexcept
{
    return OnPath(Call::kLstat, "lstat", "lstat64", path, status);
}

#if __WORDSIZE == 32
// The names of both on 32-bit systems with 64-bit times.
int __stat64_time64(const char* path, void* status) noexcept
{
    return OnPath(Call::kStat, "stat", "__stat64_time64", path, status);
}

int __lstat64_time64(const char* path, void* status) noexcept
{
    return OnPath(Call::kLstat, "lstat", "__lstat64_time64", path, status);
}
#endif

int chmod(const char* path, mode_t mode) noexcept
{
    return OnPath(Call::kChmod, "chmod", "chmod", path, mode);
}

int unlink(const char* path) noexcept
{
    return OnPath(Call::kUnlink, "unlink", "unlink", path);
}

int mkdir(const char* path, mode_t mode) noexcept
{
    return OnPath(Call::kMkdir, "mkdir", "mkdir", path, mode);
}

int rename(const char* from, const char* to) noexcept
{
    if (trace != nullptr) {
        Record("rename(", Shown(from), ", ", Shown(to), ")");
    }
    return Fails(Call::kRename) ? -1 : Real<int (*)(const char*, const char*)>("rename")(from, to);
}

int open(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Open("open", path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Open("open64", path, flags, mode);
}

int mkstemp(char* path)
{
    return Mkstemp("mkstemp", path);
}

int mkstemp64(char* path)
{
    return Mkstemp("mkstemp64", path);
}

ssize_t read(int descriptor, void* buffer, size_t bytes)
{
    const bool fails = Fails(Call::kRead);
    const ssize_t got = fails ? -1 : Real<ssize_t (*)(int, void*, size_t)>("read")(descriptor, buffer, bytes);
    if (trace != nullptr) {
        Record("read(", Shown(descriptor), ", ", std::to_string(bytes), ") = ", std::to_string(got));
    }
    return got;
}

ssize_t write(int descriptor, const void* buffer, size_t bytes)
{
    if (Fails(Call::kWrite)) {
        return -1;
    }
    if (shortWrite.left > 0 && --shortWrite.left == 0) {
        shortWrite.fired = true;
        bytes = shortWrite.bytes;
    }
    const ssize_t put = Real<ssize_t (*)(int, const void*, size_t)>("write")(descriptor, buffer, bytes);
    if (trace != nullptr) {
        Record("write(", Shown(descriptor), ", ", std::to_string(bytes), ")");
    }
    return put;
}

#ifdef _LIBCPP_VERSION
// The streams of libc++ read and write by stdio, whose own calls of read and write cannot be wrapped. Nothing else in
// the libraries and tests uses these two.
size_t fread(void* buffer, size_t size, size_t count, FILE* file)
{
    if (trace != nullptr) {
        Record("read(", Shown(fileno(file)), ", ", std::to_string(size * count), ")");
    }
    return Fails(Call::kRead) ? 0 : Real<size_t (*)(void*, size_t, size_t, FILE*)>("fread")(buffer, size, count, file);
}

size_t fwrite(const void* buffer, size_t size, size_t count, FILE* file)
{
    if (trace != nullptr) {
        Record("write(", Shown(fileno(file)), ", ", std::to_string(size * count), ")");
    }
    return Fails(Call::kWrite)
               ? 0
               : Real<size_t (*)(const void*, size_t, size_t, FILE*)>("fwrite")(buffer, size, count, file);
}
#endif

int close(int descriptor)
{
    if (trace != nullptr) {
        Record("close(", Shown(descriptor), ")");
        trace->paths.erase(descriptor);
    }
    const int result = Real<int (*)(int)>("close")(descriptor);
    return Fails(Call::kClose) ? -1 : result;  // like the system, which closes even if close fails
}

int fsync(int descriptor)
{
    if (trace != nullptr) {
        Record("fsync(", Shown(descriptor), ")");
    }
    return Fails(Call::kFsync) ? -1 : Real<int (*)(int)>("fsync")(descriptor);
}

int fdatasync(int descriptor)
{
    if (trace != nullptr) {
        Record("fdatasync(", Shown(descriptor), ")");
    }
    return Real<int (*)(int)>("fdatasync")(descriptor);
}

DIR* opendir(const char* path)
{
    if (trace != nullptr) {
        Record("opendir(", path, ")");
    }
    return Fails(Call::kOpendir) ? nullptr : Real<DIR* (*)(const char*)>("opendir")(path);
}

int closedir(DIR* directory)
{
    if (trace != nullptr) {
        Record("closedir()");
    }
    const int result = Real<int (*)(DIR*)>("closedir")(directory);
    return Fails(Call::kClosedir) ? -1 : result;
}

int openat(int directory, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return OpenAt("openat", directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return OpenAt("openat64", directory, path, flags, mode);
}

int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept
{
    return StatusAt("fstatat", directory, path, status, flags);
}

int fstatat64(int directory, const char* path, struct stat64* status, int flags) noexcept
{
    return StatusAt("fstatat64", directory, path, status, flags);
}

#if __WORDSIZE == 32
int __fstatat64_time64(int directory, const char* path, void* status, int flags) noexcept
{
    return StatusAt("__fstatat64_time64", directory, path, status, flags);
}
#endif

int mkdirat(int directory, const char* path, mode_t mode) noexcept
{
    return OnPathAt(Call::kMkdirat, "mkdirat", directory, path, mode);
}

struct dirent* readdir(DIR* directory)
{
    return NextEntry<struct dirent>("readdir", directory);
}

struct dirent64* readdir64(DIR* directory)
{
    return NextEntry<struct dirent64>("readdir64", directory);
}

int readdir_r(DIR* directory, struct dirent* buffer, struct dirent** entry)
{
    return ReadEntry("readdir_r", directory, buffer, entry);
}

int readdir64_r(DIR* directory, struct dirent64* buffer, struct dirent64** entry)
{
    return ReadEntry("readdir64_r", directory, buffer, entry);
}

}  // extern "C"
