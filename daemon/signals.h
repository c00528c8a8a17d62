// The daemon's signals: SIGTERM and SIGINT stop it, SIGUSR2 and SIGALRM ask for a scheduled-scan
// pass, SIGHUP for a definition update.
//
// SIGBUS is not among them for its own sake: another process can cut the shared status area off,
// and the daemon then works on without it instead of dying.
//
// The handlers run on the lookout, the one thread that never gets stuck. They use atomics and plain
// system calls only, and construct nothing: what they reach exists before they are installed.
#pragma once

#include <signal.h>

/// Holds the daemon's signals back from the calling thread and those it makes afterwards: so that
/// none meets its default action while the process gets ready, and from every thread that may get
/// stuck in the kernel, where no handler runs.
void hold_signals();
void release_signals();

/// Installs the handlers and lets the signals come.
void setsignals();

/// SIGBUS. A fault that is not the status area's ends the process as it would have.
void area_lost(int signal, siginfo_t* info, void* context);

void terminate(int signal);
void startscan(int signal);
void reconfigure(int signal);
