// Shared by the substitutes in this folder that may write to standard error.
#ifndef ORV_DLOG_PIPE_H
#define ORV_DLOG_PIPE_H

#include <csignal>

namespace dlog_pipe {

// While it exists, a write of this thread to a pipe that nobody reads fails, and does not end the process, which could
// be half-way through its work. The program's own handler of SIGPIPE and its mask stay as they are.
class ScopedNoSignal {
public:
    ScopedNoSignal();
    ~ScopedNoSignal();
    ScopedNoSignal(const ScopedNoSignal&) = delete;
    ScopedNoSignal& operator=(const ScopedNoSignal&) = delete;

private:
    sigset_t pipe_;
    sigset_t callersMask_;
    bool wasPending_;  // then the caller has blocked the signal, and will want to see it
};

}  // namespace dlog_pipe

#endif  // ORV_DLOG_PIPE_H
