// The 32-bit PowerPC, and its C library with 64-bit file offsets and times.

#include "campaigns/faults/machine.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

namespace machine {
namespace {

// ptrace takes and returns values of the size of a register, and finds a register at its number times this size.
unsigned long Register(pid_t child, unsigned long number)
{
    return static_cast<unsigned long>(ptrace(PTRACE_PEEKUSER, child, number * sizeof(unsigned long), nullptr));
}

void SetRegister(pid_t child, unsigned long number, unsigned long value)
{
    (void)ptrace(PTRACE_POKEUSER, child, number * sizeof(unsigned long), value);
}

}  // namespace

const std::vector<CallForm>& OwnCalls()
{
    static const std::vector<CallForm> calls = {
        {SYS_statx, "stat", 1, -1, -1, -1, 2},
        {SYS_fcntl64, "fcntl", -1, -1, 0, -1},
        {SYS_sendfile64, "sendfile", -1, -1, 1, -1},
        {SYS__llseek, "lseek", -1, -1, 0, -1},
        {SYS_ftruncate64, "ftruncate", -1, -1, 0, -1},
        {SYS_fadvise64_64, "posix_fadvise", -1, -1, 0, -1},
        {SYS_utimensat, "utimensat", -1, -1, 0, -1},  // for times that fit into 32 bits
        {SYS_utimensat_time64, "utimensat", -1, -1, 0, -1},
        {SYS_mmap2, "mmap", -1, -1, -1, -1},
    };
    return calls;
}

void SkipCall(pid_t child)
{
    SetRegister(child, PT_R0, static_cast<unsigned long>(-1));
}

void SetThirdArgument(pid_t child, std::size_t value)
{
    SetRegister(child, PT_R5, value);
}

// A bit of the condition register says that the result is an error number, which is then positive.
void SetError(pid_t child, int error)
{
    constexpr unsigned long kSummaryOverflow = 0x10000000;
    SetRegister(child, PT_R3, static_cast<unsigned long>(error));
    SetRegister(child, PT_CCR, Register(child, PT_CCR) | kSummaryOverflow);
}

}  // namespace machine
