// Makes system calls of a child process fail, even those of the C library and the streams. ptrace traces the child
// between two marks, so that only calls of the tested function are affected. The program must be built without a
// sanitizer, which makes system calls too.
#ifndef ORV_TESTS_TRACER_H
#define ORV_TESTS_TRACER_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "support/orv_test.h"

// A system call of the traced program, with its result.
struct TracedCall {
    std::string name;    // "open"; "create" for an open that may create, "tmpfile" for one of a file without a name;
                         // "lstat" and "fstat" for these forms of stat
    int occurrence = 0;  // 1-based, among the calls of that name
    std::vector<std::string> paths;  // its path arguments, or the path that its descriptor was opened on
    std::size_t asked = 0;           // the size of a read or write
    unsigned int mode = 0;           // the mode of chmod and mkdir
    long result = 0;                 // negative: an error number
    bool finished = false;           // false if the program was killed before it got the result
    int faults = 0;                  // the number of faults that affected it

    bool Failed() const
    {
        return finished && result < 0;
    }
    int Error() const
    {
        return static_cast<int>(-result);
    }
};

// A fault and its call. The call is given by name and occurrence, because the number of calls before it may vary.
struct Fault {
    enum class Kind {
        kError,       // the call is not made and fails with `value`; but a close is made, as in the system
        kShort,       // a read, write or writev is made for `value` bytes only
        kKillBefore,  // SIGKILL; the call is not made
        kKillAfter,   // SIGKILL; the call was made, but the program does not get its result
    };
    std::string call;
    int occurrence = 1;
    Kind kind = Kind::kError;
    long value = 0;
    int times = 1;  // how many calls of that name in a row
};

// The number of failures "from here on". It is large enough for every loop of the library. mkstemp repeats a call after
// EEXIST and streams after EINTR; both continue for longer, so that a run always ends.
constexpr int kFromHereOn = 100;

// What a function returns to its caller.
struct Answer {
    std::string result;              // "true", "-1"
    std::vector<std::string> items;  // in the container of the caller

    bool operator==(const Answer& other) const
    {
        return result == other.result && items == other.items;
    }
};

struct TracedRun {
    pid_t child = 0;
    std::vector<TracedCall> calls;
    bool killed = false;  // by a fault of this file
    std::string problem;  // empty if it ended as expected
    // For a run that was not killed:
    Answer answer;
    std::vector<DlogCall> lines;
    std::vector<std::string> descriptorsBefore;
    std::vector<std::string> descriptorsAfter;
    int status = 0;  // for a program: its exit status
};

// Calls `body` in a child and traces it. Removes a temporary page that an earlier process with the same id has left.
// `body` may use the heap, which is large enough to need no system call.
TracedRun RunTraced(const std::function<Answer()>& body, const std::vector<Fault>& faults);

// Runs a program in the directory, with its output in a file, and traces it from the constructor of `mark` on: a
// library that is preloaded and closes kBeginMark (begin_mark.h). So the calls of the loader are not affected. Of
// TracedRun, it fills in `calls`, `killed`, `problem` and `status`.
struct TracedProgram {
    std::vector<std::string> command;
    std::string mark;
    std::string directory;
    std::string output;
    std::string memory;  // ORV_NEW_FAILS of begin_mark.cpp
    std::string input;   // the file that is its standard input
};
TracedRun RunTraced(const TracedProgram& program, const std::vector<Fault>& faults);

// Returns true if a process may trace its children.
bool CanTrace();

#endif  // ORV_TESTS_TRACER_H
