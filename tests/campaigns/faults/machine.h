// What the tracer must know of the machine that it runs on: the registers of a traced child, and the system calls that
// not all machines have. Each machine has a source file.
#ifndef ORV_TESTS_MACHINE_H
#define ORV_TESTS_MACHINE_H

#include <sys/types.h>

#include <cstddef>
#include <vector>

// A system call. The other numbers are indices of its arguments; -1: it has no such argument.
struct CallForm {
    long number;
    const char* name;  // see TracedCall
    int firstPath;
    int secondPath;
    int descriptor;
    int mode;
    int flags = -1;  // of "open" and "stat", whose name depends on them
};

namespace machine {

// The system calls of this machine that the others do not have, or have with other arguments.
const std::vector<CallForm>& OwnCalls();

// At the entry of a call: the kernel does not make it.
void SkipCall(pid_t child);

// At the entry of a call, and at its exit.
void SetThirdArgument(pid_t child, std::size_t value);

// At the exit of a call, also of one that was skipped: it fails with this error number.
void SetError(pid_t child, int error);

}  // namespace machine

#endif  // ORV_TESTS_MACHINE_H
