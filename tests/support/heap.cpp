#include "support/heap.h"

#include <cerrno>
#include <cstddef>

#include "support/orv_test.h"

namespace {

thread_local int allocations = 0;
thread_local int allocationsUntilFault = 0;  // 0: no fault is set
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

void* __libc_malloc(std::size_t bytes);  // the C library's malloc under its other name

void* malloc(std::size_t bytes)
{
    if (!IsCapturingDlogCall()) {
        ++allocations;
        if (Fails()) {
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(bytes);
}

}  // extern "C"
