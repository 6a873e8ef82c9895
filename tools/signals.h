// The signals that ask orvfile to end, and pipes that nobody reads.
#ifndef ORV_TOOLS_SIGNALS_H
#define ORV_TOOLS_SIGNALS_H

// From now on, SIGHUP, SIGINT and SIGTERM do not end the process but are remembered, except those that the caller of
// the process ignores, as nohup(1) does. System calls are repeated after them.
void CatchSignals();

// The first signal that was caught; 0 if there was none.
int CaughtSignal();

// Ends the process as the signal would have done, so that a shell sees why.
[[noreturn]] void EndBySignal(int number);

// From now on, a write to a pipe that nobody reads fails with EPIPE. So a reader of standard error who goes away cannot
// end a move half-way.
void IgnoreClosedPipes();

// For a write to standard output that failed with EPIPE: ends the process as the system does, which is what pipelines
// expect. Returns if the caller of the process ignores SIGPIPE.
void EndByClosedPipe();

#endif  // ORV_TOOLS_SIGNALS_H
