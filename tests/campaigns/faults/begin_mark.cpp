// Is preloaded into a program, to tell the tracer that the program begins, and to take its memory away.
//   ORV_NEW_FAILS=NTH    the NTH operator new (1-based) and all that follow throw; the first of them closes kMemoryMark
//   ORV_NEW_FAILS=count  the number of calls is printed at the end of the program

#include "campaigns/faults/begin_mark.h"

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<long> calls(0);
long failing = 0;  // the first that fails; 0: none
bool isCounting = false;

__attribute__((constructor)) void Begin()
{
    const char* const setting = std::getenv("ORV_NEW_FAILS");
    if (setting != nullptr) {
        isCounting = std::strcmp(setting, "count") == 0;
        failing = std::atol(setting);
    }
    calls = 0;
    (void)close(kBeginMark);
}

__attribute__((destructor)) void End()
{
    if (isCounting) {
        (void)std::fprintf(stderr, "%ld\n", calls.load());
    }
}

}  // namespace

void* operator new(std::size_t size)
{
    const long call = ++calls;
    if (call == failing) {
        (void)close(kMemoryMark);
    }
    void* const memory = failing != 0 && call >= failing ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
