#include "support/heap.h"

#include <cerrno>
#include <cstddef>

#include "support/orv_test.h"

namespace {

thread_local int allocations = 0;
thread_local int allocationsUntilFault = 0;  // 0: there is no fault
thread_local bool failsForGood = false;
thread_local bool fired = false;

bool Fails()
{
    if (allocationsUntilFault == 0 || --allocationsUntilFault > 0) {
        return false;
    }
    fired = true;
    allocationsUntilFault = failsForGood ? 1 : 0;
    return true;
}

// Counts an allocation. Returns true and sets errno if it must fail.
bool IsToFail()
{
    if (IsCapturingDlogCall()) {
        return false;
    }
    ++allocations;
    if (!Fails()) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

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

ScopedAllocationFault::ScopedAllocationFault(int nth, Failing failing)
{
    fired = false;
    failsForGood = failing == Failing::kFromThereOn;
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

// The other names of these functions in the C library.
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* block, std::size_t bytes);

void* malloc(std::size_t bytes)
{
    return IsToFail() ? nullptr : __libc_malloc(bytes);
}

void* calloc(std::size_t count, std::size_t bytes)
{
    return IsToFail() ? nullptr : __libc_calloc(count, bytes);
}

void* realloc(void* block, std::size_t bytes)
{
    return IsToFail() ? nullptr : __libc_realloc(block, bytes);
}

}  // extern "C"
