#include "support/heap.h"

#include <cerrno>
#include <cstddef>

namespace {

thread_local int allocations = 0;
thread_local int allocationsUntilFault = 0;  // 0: no fault is set
thread_local bool fired = false;

}  // namespace

ScopedHeapCount::ScopedHeapCount()
{
    allocations = 0;
}

ScopedHeapCount::~ScopedHeapCount() = default;

int ScopedHeapCount::Allocations() const
{
    return allocations;
}

ScopedAllocationFault::ScopedAllocationFault(int nth)
{
    fired = false;
    allocationsUntilFault = nth;
}

ScopedAllocationFault::~ScopedAllocationFault()
{
    allocationsUntilFault = 0;
}

bool ScopedAllocationFault::Fired() const
{
    return fired;
}

extern "C" {

void* __libc_malloc(std::size_t bytes);  // the C library's malloc under its other name

void* malloc(std::size_t bytes)
{
    ++allocations;
    if (allocationsUntilFault > 0 && --allocationsUntilFault == 0) {
        fired = true;
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(bytes);
}

}  // extern "C"
