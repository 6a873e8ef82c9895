#include "support/new_fault.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local int allocationsToFailure = 0;  // the next one is 1; 0: there is no fault
std::atomic<std::size_t> bytesInUse(0);

}  // namespace

ScopedNewFault::ScopedNewFault(int nth)
{
    allocationsToFailure = nth;
}

ScopedNewFault::~ScopedNewFault()
{
    allocationsToFailure = 0;
}

bool ScopedNewFault::Fired() const
{
    return allocationsToFailure == 0;
}

std::size_t BytesInUse()
{
    return bytesInUse;
}

void* operator new(std::size_t bytes)
{
    if (allocationsToFailure > 0 && --allocationsToFailure == 0) {
        throw std::bad_alloc();
    }
    void* const block = std::malloc(bytes == 0 ? 1 : bytes);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    bytesInUse += malloc_usable_size(block);
    return block;
}

void operator delete(void* block) noexcept
{
    bytesInUse -= malloc_usable_size(block);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    operator delete(block);
}
