// Counts and fails allocations of the calling thread. The program that links this replaces malloc, calloc and realloc,
// which operator new and the C library call too; so it is for programs that run without a sanitizer, which replaces
// them itself.
#ifndef ORV_TESTS_HEAP_H
#define ORV_TESTS_HEAP_H

// The allocations that the capture of diagnostic calls makes (orv_test.h) neither count nor fail.

// Counts the calls of malloc, calloc and realloc while it lives.
class ScopedHeapCount {
public:
    ScopedHeapCount();
    ~ScopedHeapCount();
    ScopedHeapCount(const ScopedHeapCount&) = delete;
    ScopedHeapCount& operator=(const ScopedHeapCount&) = delete;

    int Allocations() const;
};

enum class Failing { kOnce, kFromThereOn };

// While it lives, the `nth` (1-based) allocation fails, alone or with all that follow. Read Fired() to learn whether
// there was such a one: a sweep ends where there is none.
class ScopedAllocationFault {
public:
    explicit ScopedAllocationFault(int nth, Failing failing = Failing::kOnce);
    ~ScopedAllocationFault();
    ScopedAllocationFault(const ScopedAllocationFault&) = delete;
    ScopedAllocationFault& operator=(const ScopedAllocationFault&) = delete;

    bool Fired() const;
};

#endif  // ORV_TESTS_HEAP_H
