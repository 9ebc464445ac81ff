// Controlled clock for the time-window tests and the demonstration: the
// program re-executes itself with libfaketime preloaded, and then sets the
// time through FAKETIME.
#pragma once

namespace mgtest {

// True when libfaketime is preloaded into this process.
bool faketime_loaded();

// Re-executes the running program with libfaketime added to LD_PRELOAD (clock
// unchanged until FAKETIME is set). Returns only on failure, or at once when
// libfaketime is not installed or already loaded: the result says whether the
// clock can be faked.
bool reexec_with_faketime(char **argv);

}  // namespace mgtest
