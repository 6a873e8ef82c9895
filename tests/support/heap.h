// Counts allocations of the calling thread, and makes them fail. A program that links this replaces malloc, calloc and
// realloc, which operator new and the C library call too. It must run without a sanitizer, which replaces them itself.
#ifndef ORV_TESTS_HEAP_H
#define ORV_TESTS_HEAP_H

// Allocations for captured log calls (orv_test.h) are not counted and do not fail.

// Counts the calls of malloc, calloc and realloc while it exists.
class ScopedHeapCount {
public:
    ScopedHeapCount();
    ~ScopedHeapCount();
    ScopedHeapCount(const ScopedHeapCount&) = delete;
    ScopedHeapCount& operator=(const ScopedHeapCount&) = delete;

    int Allocations() const;
};

enum class Failing { kOnce, kFromThereOn };

// While it exists, the `nth` (1-based) allocation fails, or it and all that follow. Fired() returns whether there were
// that many; if not, a loop over all allocations is at its end.
class ScopedAllocationFault {
public:
    explicit ScopedAllocationFault(int nth, Failing failing = Failing::kOnce);
    ~ScopedAllocationFault();
    ScopedAllocationFault(const ScopedAllocationFault&) = delete;
    ScopedAllocationFault& operator=(const ScopedAllocationFault&) = delete;

    bool Fired() const;
};

#endif  // ORV_TESTS_HEAP_H
