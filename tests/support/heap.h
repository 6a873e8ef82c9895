// Counts and fails allocations of the calling thread. The program that links this replaces malloc, which operator new
// and the C library call too; so it is for programs that run without a sanitizer, which replaces malloc itself.
#ifndef ORV_TESTS_HEAP_H
#define ORV_TESTS_HEAP_H

// Counts the calls of malloc while it lives.
class ScopedHeapCount {
public:
    ScopedHeapCount();
    ~ScopedHeapCount();
    ScopedHeapCount(const ScopedHeapCount&) = delete;
    ScopedHeapCount& operator=(const ScopedHeapCount&) = delete;

    int Allocations() const;
};

// While it lives, the `nth` (1-based) allocation fails. Read Fired() to learn whether there was such a one: a sweep
// ends where there is none.
class ScopedAllocationFault {
public:
    explicit ScopedAllocationFault(int nth);
    ~ScopedAllocationFault();
    ScopedAllocationFault(const ScopedAllocationFault&) = delete;
    ScopedAllocationFault& operator=(const ScopedAllocationFault&) = delete;

    bool Fired() const;
};

#endif  // ORV_TESTS_HEAP_H
