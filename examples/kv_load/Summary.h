// The last words of a run.
#pragma once

#include <kv_load/LoadProgress.h>
#include <kv_load/Options.h>

namespace kv_load {

// Prints what was achieved on standard output. `signal` is the one that ended the run, or 0.
void PrintSummary(const Options& options, const LoadProgress& progress, int signal);

// The exit status that goes with it: 0 if every request got its right reply; 1 if not, also when a
// signal ended the run after a failure; else 128 plus the signal.
int GetExitStatus(const Options& options, const LoadProgress& progress, int signal);

}  // namespace kv_load
