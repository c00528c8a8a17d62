// The daemon's signals: SIGTERM and SIGINT stop it, SIGUSR2 and SIGALRM ask for a scheduled-scan
// pass, SIGHUP for a definition update.
//
// SIGBUS is handled because another process can truncate the shared status area: the daemon then
// goes on without it instead of dying.
//
// The handlers run on the lookout, the one thread that never gets stuck. They use only atomics and
// plain system calls, and construct nothing: the objects that they use exist before the handlers
// are installed.
#pragma once

#include <signal.h>

/// Blocks the daemon's signals in the calling thread and in all threads that it starts. Called once
/// by the main thread, before there are others and before the process detaches: no signal takes
/// its default action during start-up, and none is delivered to a thread that may get stuck in the
/// kernel, where no handler runs.
void hold_signals();

/// Unblocks them in the calling thread, which also gets those that came meanwhile. For the lookout
/// alone.
void take_signals();

/// Installs the handlers.
void setsignals();

/// SIGBUS. A fault outside the status area ends the process, as without this handler.
void area_lost(int signal, siginfo_t* info, void* context);

void terminate(int signal);
void startscan(int signal);
void reconfigure(int signal);
