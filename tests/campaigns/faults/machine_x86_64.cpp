#include "campaigns/faults/machine.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>

#include <cstddef>

namespace machine {
namespace {

void SetRegister(pid_t child, std::size_t offset, unsigned long value)
{
    (void)ptrace(PTRACE_POKEUSER, child, offset, value);
}

}  // namespace

const std::vector<CallForm>& OwnCalls()
{
    static const std::vector<CallForm> calls = {
        {SYS_newfstatat, "stat", 1, -1, -1, -1, 3},
        {SYS_stat, "stat", 0, -1, -1, -1},
        {SYS_lstat, "lstat", 0, -1, -1, -1},
        {SYS_fstat, "fstat", -1, -1, 0, -1},
        {SYS_fcntl, "fcntl", -1, -1, 0, -1},
        {SYS_sendfile, "sendfile", -1, -1, 1, -1},
        {SYS_lseek, "lseek", -1, -1, 0, -1},
        {SYS_ftruncate, "ftruncate", -1, -1, 0, -1},
        {SYS_fadvise64, "posix_fadvise", -1, -1, 0, -1},
        {SYS_utimensat, "utimensat", -1, -1, 0, -1},
        {SYS_mmap, "mmap", -1, -1, -1, -1},
    };
    return calls;
}

void SkipCall(pid_t child)
{
    SetRegister(child, offsetof(user, regs.orig_rax), static_cast<unsigned long>(-1));
}

void SetThirdArgument(pid_t child, std::size_t value)
{
    SetRegister(child, offsetof(user, regs.rdx), value);
}

void SetError(pid_t child, int error)
{
    SetRegister(child, offsetof(user, regs.rax), static_cast<unsigned long>(-error));
}

}  // namespace machine
