// Keeps signals from ending the process in the middle of something.
#ifndef ORV_TOOLS_BLOCKED_SIGNALS_H
#define ORV_TOOLS_BLOCKED_SIGNALS_H

#include <signal.h>

#include <initializer_list>

// While an object exists, SIGHUP, SIGINT and SIGTERM wait.
class BlockedSignals {
public:
    BlockedSignals()
    {
        sigset_t all;
        (void)sigemptyset(&all);
        for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
            (void)sigaddset(&all, number);
        }
        (void)sigprocmask(SIG_BLOCK, &all, &before_);
    }
    ~BlockedSignals()
    {
        (void)sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_ = {};
};

#endif  // ORV_TOOLS_BLOCKED_SIGNALS_H
