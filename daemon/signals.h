// The daemon's signals: SIGTERM and SIGINT stop it, SIGUSR2 and SIGALRM ask for a scheduled-scan
// pass, SIGHUP for a definition update.
//
// The handlers run on whichever thread a signal hits. They use atomics, sem_post and write only,
// and construct nothing: what they reach exists before they are installed.
#pragma once

/// Holds the daemon's signals back until setsignals(), so that none meets its default action while
/// the process gets ready. For the main thread, before there are others.
void hold_signals();

/// Installs the handlers and lets the signals come.
void setsignals();

void terminate(int signal);
void startscan(int signal);
void reconfigure(int signal);
