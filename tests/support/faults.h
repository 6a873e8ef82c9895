// Makes system calls fail and traces them. The test program defines the calls itself and forwards to those of the
// system, so the dynamic linker directs every call of the libraries to the test. The libraries need no change for it.
#ifndef ORV_TESTS_FAULTS_H
#define ORV_TESTS_FAULTS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

enum class Call {
    kStat,
    kLstat,
    kOpen,
    kRead,
    kWrite,
    kClose,
    kChmod,
    kRename,
    kUnlink,
    kMkstemp,
    kMkdir,
    kOpendir,
    kReaddir,
    kClosedir,
    kOpenat,
    kFstatat,
    kMkdirat,
    kFsync,
};

// While it exists, the `nth` (1-based) `call` of this thread from now on fails with `error`. The destructor fails the
// test if the fault did not occur.
class ScopedFault {
public:
    ScopedFault(Call call, int nth, int error);
    ~ScopedFault();
    ScopedFault(const ScopedFault&) = delete;
    ScopedFault& operator=(const ScopedFault&) = delete;

    bool Fired() const
    {
        return fired_;
    }

    // For the wrappers: counts a call. Returns true if this call must fail.
    bool Hits(Call call);
    int Error() const
    {
        return error_;
    }

private:
    Call call_;
    int left_;
    int error_;
    bool fired_ = false;
};

// While it exists, `act` runs in place of the calls of that name from the `nth` (1-based) on, `times` of them. If it
// returns nothing, the system's call follows. The destructor fails the test if there was no such call.
class ScopedCall {
public:
    using Act = std::function<std::optional<long>()>;

    ScopedCall(std::string call, int nth, Act act, int times = 1);
    ~ScopedCall();
    ScopedCall(const ScopedCall&) = delete;
    ScopedCall& operator=(const ScopedCall&) = delete;

    // For the wrappers: counts a call and returns its result, if it is not the system's. Allocates nothing, because a
    // wrapper must not throw.
    std::optional<long> Result(const char* call);

private:
    std::string call_;
    int left_;
    Act act_;
    int times_;
    bool reached_ = false;
};

// While it exists, `change` alters the status that the `nth` (1-based) fstatat of this thread from now on reads. The
// destructor fails the test if there was no such call.
class ScopedStatus {
public:
    using Change = std::function<void(struct stat*)>;

    ScopedStatus(int nth, Change change);
    ~ScopedStatus();
    ScopedStatus(const ScopedStatus&) = delete;
    ScopedStatus& operator=(const ScopedStatus&) = delete;

    // For the wrappers: counts a call that has read a status.
    void Apply(void* status);

private:
    int left_;
    Change change_;
};

// The call fails with this error number.
ScopedCall::Act FailWith(int error);

// For the wrappers: the result of a call by that name, if a ScopedCall of this thread decides it.
std::optional<long> ScopedResult(const char* call);

// More calls than any test makes.
constexpr int kAlways = 1000000;

// While it exists, the `nth` write writes only `bytes` bytes and does not change errno.
class ScopedShortWrite {
public:
    ScopedShortWrite(int nth, std::size_t bytes);
    ~ScopedShortWrite();
    ScopedShortWrite(const ScopedShortWrite&) = delete;
    ScopedShortWrite& operator=(const ScopedShortWrite&) = delete;
};

// While it exists, every directory entry has the type "unknown", as on file systems that do not record types.
class ScopedUnknownTypes {
public:
    ScopedUnknownTypes();
    ~ScopedUnknownTypes();
    ScopedUnknownTypes(const ScopedUnknownTypes&) = delete;
    ScopedUnknownTypes& operator=(const ScopedUnknownTypes&) = delete;
};

// Removes the file `path` directly after this thread has read its status: between a test and an open.
class ScopedVanishAfterStat {
public:
    explicit ScopedVanishAfterStat(const std::string& path);
    ~ScopedVanishAfterStat();
    ScopedVanishAfterStat(const ScopedVanishAfterStat&) = delete;
    ScopedVanishAfterStat& operator=(const ScopedVanishAfterStat&) = delete;
};

// While it exists, `action` runs once on this thread: directly before the `nth` (1-based) `call` from now on, or
// directly after it if the call closes something. It does what another process may do at that moment, or checks the
// state. The destructor fails the test if the action did not run. Use one at a time.
class ScopedAction {
public:
    ScopedAction(Call call, int nth, std::function<void()> action);
    ~ScopedAction();
    ScopedAction(const ScopedAction&) = delete;
    ScopedAction& operator=(const ScopedAction&) = delete;

    // For the wrappers: counts a call, and runs the action if this is the right one.
    void RunIfDue(Call call);

private:
    Call call_;
    int left_;
    std::function<void()> action_;
    bool ran_ = false;
};

// While it exists, the calls of this thread are recorded. A path that mkstemp made is recorded as "<temporary>", and a
// descriptor as the path that it was opened with: "read(/tmp/a, 4096) = 17".
class ScopedTrace {
public:
    ScopedTrace();
    ~ScopedTrace();
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;

    const std::vector<std::string>& Calls() const;
};

// For the wrappers in other files: records a call on a descriptor, with its other arguments. Without a trace, it
// allocates nothing, because a wrapper must not throw.
void RecordCall(const char* name, int descriptor, std::initializer_list<long> arguments);

#endif  // ORV_TESTS_FAULTS_H
