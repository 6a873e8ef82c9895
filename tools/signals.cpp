#include "signals.h"

#include <csignal>
#include <cstdlib>
#include <initializer_list>

namespace {

const int kStatusOfSignals = 128;  // as shells do it

volatile std::sig_atomic_t caught = 0;
bool closedPipesEnd = false;

extern "C" void Remember(int number)
{
    if (caught == 0) {
        caught = number;
    }
}

}  // namespace

void CatchSignals()
{
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) {
            continue;
        }
        struct sigaction action = {};
        action.sa_handler = Remember;
        action.sa_flags = SA_RESTART;
        (void)sigaction(number, &action, nullptr);
    }
}

int CaughtSignal()
{
    return caught;
}

void EndBySignal(int number)
{
    (void)std::signal(number, SIG_DFL);
    (void)std::raise(number);
    std::_Exit(kStatusOfSignals + number);  // the signal is blocked
}

void IgnoreClosedPipes()
{
    closedPipesEnd = std::signal(SIGPIPE, SIG_IGN) != SIG_IGN;
}

void EndByClosedPipe()
{
    if (closedPipesEnd) {
        EndBySignal(SIGPIPE);
    }
}
