#include "support/new_fault.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local int allocationsToFailure = 0;  // the next one is 1; 0: none is to fail

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

void* operator new(std::size_t bytes)
{
    if (allocationsToFailure > 0 && --allocationsToFailure == 0) {
        throw std::bad_alloc();
    }
    void* const block = std::malloc(bytes == 0 ? 1 : bytes);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}
