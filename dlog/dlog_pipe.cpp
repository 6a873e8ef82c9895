#include "dlog_pipe.h"

#include <cerrno>
#include <ctime>

namespace dlog_pipe {

namespace {

bool IsPending(int signal)
{
    sigset_t pending;
    (void)sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

}  // namespace

// On Linux, sigprocmask changes the mask of this thread alone. Unlike pthread_sigmask, it never needs libpthread.
ScopedNoSignal::ScopedNoSignal() : pipe_(), callersMask_(), wasPending_(IsPending(SIGPIPE))
{
    (void)sigemptyset(&pipe_);
    (void)sigaddset(&pipe_, SIGPIPE);
    (void)sigprocmask(SIG_BLOCK, &pipe_, &callersMask_);
}

ScopedNoSignal::~ScopedNoSignal()
{
    const int callersErrno = errno;
    if (!wasPending_) {
        const struct timespec kAtOnce = {0, 0};
        (void)sigtimedwait(&pipe_, nullptr, &kAtOnce);
    }
    (void)sigprocmask(SIG_SETMASK, &callersMask_, nullptr);
    errno = callersErrno;
}

}  // namespace dlog_pipe
