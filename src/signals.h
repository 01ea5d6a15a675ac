// The signal actions: they only set these flags, which the run reads at
// every point where it may wait or stop.
#ifndef QUELVANE_SIGNALS_H
#define QUELVANE_SIGNALS_H

#include <csignal>

// SIGHUP, SIGINT, SIGQUIT or SIGTERM came; only the first one counts.
extern volatile sig_atomic_t interrupted_by_user;
// SIGCHLD: some child ended (the command runner checks whose).
extern volatile sig_atomic_t child_exited;
// SIGALRM: the running command's timer ran out.
extern volatile sig_atomic_t command_timed_out;

// Installs the actions; false when one cannot be installed.
bool signals_install();

// The signals whose actions set the flags above.
sigset_t watched_signals();

#endif
