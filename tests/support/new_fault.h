// Fails allocations of the calling thread by operator new, also in programs that run with a sanitizer. The program that
// links this replaces operator new; those of the C library are not failed (see heap.h).
#ifndef ORV_TESTS_NEW_FAULT_H
#define ORV_TESTS_NEW_FAULT_H

// While it lives, the `nth` (1-based) allocation throws std::bad_alloc. Read Fired() to learn whether there was such a
// one: a sweep ends where there is none.
class ScopedNewFault {
public:
    explicit ScopedNewFault(int nth);
    ~ScopedNewFault();
    ScopedNewFault(const ScopedNewFault&) = delete;
    ScopedNewFault& operator=(const ScopedNewFault&) = delete;

    bool Fired() const;
};

#endif  // ORV_TESTS_NEW_FAULT_H
