// Faults in the system calls of a child process, also in those that the C library and the streams make for themselves.
// The child is traced with ptrace between two marks, so that only the calls of the function under test are seen. For
// programs built without a sanitizer, which makes calls of its own.
#ifndef ORV_TESTS_TRACER_H
#define ORV_TESTS_TRACER_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "support/orv_test.h"

// A system call as the traced program made it and saw it end.
struct TracedCall {
    std::string name;    // "open"; "create" for an open that may create; "lstat" and "fstat" for these forms of stat
    int occurrence = 0;  // 1-based, among the calls of that name
    std::vector<std::string> paths;  // its path arguments, or the path that its descriptor was opened on
    std::size_t asked = 0;           // the bytes asked of a read or write
    unsigned int mode = 0;           // what chmod and mkdir were given
    long result = 0;                 // negative: an error number
    bool finished = false;           // false where the program was killed before it saw the result
    int faults = 0;                  // how many faults fired on it

    bool Failed() const
    {
        return finished && result < 0;
    }
    int Error() const
    {
        return static_cast<int>(-result);
    }
};

// What is to go wrong, at which call: addressed by name and occurrence, since the number of calls before it may vary.
struct Fault {
    enum class Kind {
        kError,       // the call is not made and fails with `value`; a close is made all the same, as the system does
        kShort,       // a read, write or writev is made for `value` bytes only
        kKillBefore,  // SIGKILL; the call is not made
        kKillAfter,   // SIGKILL; the call was made, and its result never seen
    };
    std::string call;
    int occurrence = 1;
    Kind kind = Kind::kError;
    long value = 0;
    int times = 1;  // how many calls of that name in a row
};

// "From here on": long enough for every loop of the library. The two that repeat a failed call, mkstemp on EEXIST and
// the streams on EINTR, outlast it, so that a run always ends.
constexpr int kFromHereOn = 100;

// What the caller of a function has in hand after the call.
struct Answer {
    std::string result;              // "true", "-1"
    std::vector<std::string> items;  // of the caller's container

    bool operator==(const Answer& other) const
    {
        return result == other.result && items == other.items;
    }
};

struct TracedRun {
    pid_t child = 0;
    std::vector<TracedCall> calls;
    bool killed = false;  // by a fault of ours
    std::string problem;  // empty: ended as it should
    // Of a run that was not killed:
    Answer answer;
    std::vector<DlogCall> lines;
    std::vector<std::string> descriptorsBefore;
    std::vector<std::string> descriptorsAfter;
};

// Calls `body` in a child that is traced meanwhile. Removes a temporary page that an earlier process of the same number
// has left. `body` may use the heap: it is large enough from the start for no system call.
TracedRun RunTraced(const std::function<Answer()>& body, const std::vector<Fault>& faults);

// True where a process may trace its children.
bool CanTrace();

#endif  // ORV_TESTS_TRACER_H
