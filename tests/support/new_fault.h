// Makes allocations of the calling thread by operator new fail, and counts the bytes of all threads, even in programs
// with a sanitizer. A program that links this replaces operator new. Allocations of the C library are not affected (see
// heap.h).
#ifndef ORV_TESTS_NEW_FAULT_H
#define ORV_TESTS_NEW_FAULT_H

#include <cstddef>

// While it exists, the `nth` (1-based) allocation throws std::bad_alloc. Fired() returns whether there were that many;
// if not, a loop over all allocations is at its end.
class ScopedNewFault {
public:
    explicit ScopedNewFault(int nth);
    ~ScopedNewFault();
    ScopedNewFault(const ScopedNewFault&) = delete;
    ScopedNewFault& operator=(const ScopedNewFault&) = delete;

    bool Fired() const;
};

// The bytes from operator new that are in use.
std::size_t BytesInUse();

#endif  // ORV_TESTS_NEW_FAULT_H
