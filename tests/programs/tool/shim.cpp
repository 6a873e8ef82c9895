// Is preloaded into a tested program, to record its system calls, to make them fail and to send signals at them.
//   ORV_SHIM_TRACE=FILE             appends a line for each of the calls below: "fsync PATH", "renameat FROM TO", and
//                                   "failed CALL" for each fault
//   ORV_SHIM_FAIL=CALL:ERRNO[:NTH]  calls with that name, or only the NTH one (1-based), are not made and fail; several
//                                   faults are separated by blanks
//   ORV_SHIM_RAISE=CALL:NTH:SIGNAL  sends the signal to the process before that call
//   ORV_SHIM_SHORT=CALL:NTH:BYTES   that write is made for the first BYTES only
//   ORV_SHIM_FLIP=NTH               a byte of what the NTH pread reads is changed
//   ORV_SHIM_UNTYPED=1              directory entries have no type
// A call of the system that has two names, such as pread and pread64, is called by the shorter one here. A write to
// standard output or standard error is not counted.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace {

template <typename Function>
Function* Next(Function* /*type*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

ssize_t PassWrite(int descriptor, const void* bytes, size_t count)
{
    return Next(write, "write")(descriptor, bytes, count);
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
    if (PassWrite(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        std::abort();
    }
    close(file);
    errno = callersErrno;
}

// One of the settings above that are about a call.
struct Rule {
    std::string call;
    int first = 0;   // ERRNO or NTH
    int second = 0;  // NTH, SIGNAL or BYTES; 0: none
};

std::vector<Rule> Rules(const char* variable)
{
    const char* const setting = std::getenv(variable);
    std::istringstream in(setting == nullptr ? "" : setting);
    std::vector<Rule> rules;
    for (std::string word; in >> word;) {
        Rule rule;
        std::istringstream parts(word);
        char colon = '\0';
        std::getline(parts, rule.call, ':');
        parts >> rule.first >> colon >> rule.second;
        rules.push_back(rule);
    }
    return rules;
}

int CountCall(const std::string& call)
{
    static std::mutex mutex;
    static std::map<std::string, int> counts;
    const std::lock_guard<std::mutex> lock(mutex);
    return ++counts[call];
}

// Counts the call, and sends the signal that is meant for it. Returns true if it must fail; errno is then set.
bool Fails(const std::string& call)
{
    const int nth = CountCall(call);
    static const std::vector<Rule> raised = Rules("ORV_SHIM_RAISE");
    static const std::vector<Rule> failing = Rules("ORV_SHIM_FAIL");
    for (const Rule& rule : raised) {
        if (rule.call == call && rule.first == nth) {
            (void)raise(rule.second);
        }
    }
    for (const Rule& rule : failing) {
        if (rule.call == call && (rule.second == 0 || rule.second == nth)) {
            Trace("failed " + call);
            errno = rule.first;
            return true;
        }
    }
    return false;
}

std::string PathOf(int descriptor)
{
    char path[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    return readlink(link.c_str(), path, sizeof path - 1) > 0 ? path : "?";
}

// What a pread returns, with a changed byte if that is asked for.
ssize_t Flipped(void* bytes, ssize_t count)
{
    static std::atomic<int> reads(0);
    const char* const wanted = std::getenv("ORV_SHIM_FLIP");
    if (++reads == (wanted == nullptr ? 0 : std::atoi(wanted)) && count > 0) {
        static_cast<char*>(bytes)[count - 1] ^= 1;
    }
    return count;
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

EXPORTED int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept
{
    Trace(std::string("renameat ") + from + " " + to);
    return Fails("renameat") ? -1 : Next(renameat, "renameat")(fromDirectory, from, toDirectory, to);
}

EXPORTED int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept
{
    Trace(std::string("linkat ") + to);
    return Fails("linkat") ? -1 : Next(linkat, "linkat")(fromDirectory, from, toDirectory, to, flags);
}

EXPORTED int unlink(const char* path) noexcept
{
    Trace(std::string("unlink ") + path);
    return Fails("unlink") ? -1 : Next(unlink, "unlink")(path);
}

EXPORTED int unlinkat(int directory, const char* path, int flags) noexcept
{
    Trace(std::string("unlinkat ") + path);
    return Fails("unlinkat") ? -1 : Next(unlinkat, "unlinkat")(directory, path, flags);
}

EXPORTED int chmod(const char* path, mode_t mode) noexcept
{
    return Fails("chmod") ? -1 : Next(chmod, "chmod")(path, mode);
}

EXPORTED int fchmod(int descriptor, mode_t mode) noexcept
{
    return Fails("fchmod") ? -1 : Next(fchmod, "fchmod")(descriptor, mode);
}

EXPORTED ssize_t write(int descriptor, const void* bytes, size_t count)
{
    if (descriptor == STDOUT_FILENO || descriptor == STDERR_FILENO) {
        return PassWrite(descriptor, bytes, count);
    }
    static std::atomic<int> writes(0);
    const int nth = ++writes;
    static const std::vector<Rule> shortened = Rules("ORV_SHIM_SHORT");
    for (const Rule& rule : shortened) {
        if (rule.call == "write" && rule.first == nth) {
            Trace("short write");
            count = static_cast<size_t>(rule.second);
        }
    }
    return Fails("write") ? -1 : PassWrite(descriptor, bytes, count);
}

EXPORTED ssize_t read(int descriptor, void* bytes, size_t count)
{
    return Fails("read") ? -1 : Next(read, "read")(descriptor, bytes, count);
}

EXPORTED ssize_t sendfile(int to, int from, off_t* offset, size_t count) noexcept
{
    return Fails("sendfile") ? -1 : Next(sendfile, "sendfile")(to, from, offset, count);
}

EXPORTED ssize_t sendfile64(int to, int from, off64_t* offset, size_t count) noexcept
{
    return Fails("sendfile") ? -1 : Next(sendfile64, "sendfile64")(to, from, offset, count);
}

EXPORTED ssize_t pread(int descriptor, void* bytes, size_t count, off_t offset)
{
    return Fails("pread") ? -1 : Flipped(bytes, Next(pread, "pread")(descriptor, bytes, count, offset));
}

EXPORTED ssize_t pread64(int descriptor, void* bytes, size_t count, off64_t offset)
{
    return Fails("pread") ? -1 : Flipped(bytes, Next(pread64, "pread64")(descriptor, bytes, count, offset));
}

// The library calls these by number.
EXPORTED long syscall(long number, ...) noexcept
{
    long args[6];
    std::va_list list;
    va_start(list, number);
    for (long& arg : args) {
        arg = va_arg(list, long);
    }
    va_end(list);
    if ((number == SYS_copy_file_range && Fails("copy_file_range")) ||
        (number == SYS_renameat2 && Fails("renameat2"))) {
        return -1;
    }
    return Next(syscall, "syscall")(number, args[0], args[1], args[2], args[3], args[4], args[5]);
}

EXPORTED struct dirent* readdir(DIR* directory)
{
    return Fails("readdir") ? nullptr : WithoutType(Next(readdir, "readdir")(directory));
}

EXPORTED struct dirent64* readdir64(DIR* directory)
{
    return Fails("readdir") ? nullptr : WithoutType(Next(readdir64, "readdir64")(directory));
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
