// Faults in system calls, and a trace of them. The test program defines the calls itself and forwards to the system's,
// so the dynamic linker hands it every call that the libraries make; the product needs no seam.
#ifndef ORV_TESTS_FAULTS_H
#define ORV_TESTS_FAULTS_H

#include <sys/types.h>

#include <functional>
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
};

// While it lives, the `nth` (1-based) `call` from now on, made by this thread, fails with `error`. Its destructor
// fails the test when the fault never fired.
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

    // For the wrappers: counts an occurrence; true when it is the one to fail.
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

// While it lives, the `nth` write takes only `bytes` of what it is given, and leaves errno alone.
class ScopedShortWrite {
public:
    ScopedShortWrite(int nth, std::size_t bytes);
    ~ScopedShortWrite();
    ScopedShortWrite(const ScopedShortWrite&) = delete;
    ScopedShortWrite& operator=(const ScopedShortWrite&) = delete;
};

// While it lives, every directory entry read carries the type "unknown", as on file systems that record none.
class ScopedUnknownTypes {
public:
    ScopedUnknownTypes();
    ~ScopedUnknownTypes();
    ScopedUnknownTypes(const ScopedUnknownTypes&) = delete;
    ScopedUnknownTypes& operator=(const ScopedUnknownTypes&) = delete;
};

// Removes the file `path` as soon as its status has been queried by this thread: between a test and an open.
class ScopedVanishAfterStat {
public:
    explicit ScopedVanishAfterStat(const std::string& path);
    ~ScopedVanishAfterStat();
    ScopedVanishAfterStat(const ScopedVanishAfterStat&) = delete;
    ScopedVanishAfterStat& operator=(const ScopedVanishAfterStat&) = delete;
};

// While it lives, `action` runs once, on this thread: just before its `nth` (1-based) `call` from now on, or just after
// it where that closes something. What another process may do at that moment, or what the moment looks like. Its
// destructor fails the test when the action never ran. One at a time.
class ScopedAction {
public:
    ScopedAction(Call call, int nth, std::function<void()> action);
    ~ScopedAction();
    ScopedAction(const ScopedAction&) = delete;
    ScopedAction& operator=(const ScopedAction&) = delete;

    // For the wrappers: counts an occurrence, and runs the action when it is the one.
    void RunIfDue(Call call);

private:
    Call call_;
    int left_;
    std::function<void()> action_;
    bool ran_ = false;
};

// While it lives, calls of this thread are recorded. A path that mkstemp made is written as "<temporary>", and a
// descriptor as the path that it was opened on: "read(/tmp/a, 4096) = 17".
class ScopedTrace {
public:
    ScopedTrace();
    ~ScopedTrace();
    ScopedTrace(const ScopedTrace&) = delete;
    ScopedTrace& operator=(const ScopedTrace&) = delete;

    const std::vector<std::string>& Calls() const;
};

#endif  // ORV_TESTS_FAULTS_H
