// SIGINT/SIGTERM for the desktop tools: blocked in every thread, taken synchronously.
#ifndef TOOLS_COMMON_SIGNALS_H
#define TOOLS_COMMON_SIGNALS_H

namespace pmtools {

// Blocks SIGINT and SIGTERM in the calling thread. Call it first in main, before any thread
// exists, so that every thread inherits the mask and no handler ever runs.
void BlockStopSignals();

// A reader that goes away (`pm-host | head -1`) must not end the program: writes to a closed
// pipe then fail with EPIPE instead of raising SIGPIPE. Call it first in main too.
void IgnoreBrokenPipes();

// Waits up to `ms` (0: just looks) for a pending SIGINT or SIGTERM; returns its number, or 0.
int TakeStopSignal(int ms);

// Waits without limit for SIGINT or SIGTERM and returns its number.
int WaitStopSignal();

}  // namespace pmtools

#endif
