// Marks for the tracer.
#ifndef ORV_TESTS_BEGIN_MARK_H
#define ORV_TESTS_BEGIN_MARK_H

// The window begins when this file descriptor, which does not exist, is closed. No program does that otherwise.
constexpr int kBeginMark = -1000;

// Is closed when the memory is taken away.
constexpr int kMemoryMark = -1002;

#endif  // ORV_TESTS_BEGIN_MARK_H
