#include "signals.h"

#include <cerrno>
#include <initializer_list>

volatile sig_atomic_t interrupted_by_user;
volatile sig_atomic_t child_exited;
volatile sig_atomic_t command_timed_out;

namespace {

const int INTERRUPTS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

bool install(int signo, void (*handler)(int, siginfo_t *, void *), int flags)
{
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | flags;
    sigemptyset(&action.sa_mask);
    return sigaction(signo, &action, nullptr) == 0;
}

void on_child(int, siginfo_t *, void *) { child_exited = 1; }

void on_alarm(int, siginfo_t *, void *) { command_timed_out = 1; }

void on_interrupt(int, siginfo_t *, void *)
{
    if (interrupted_by_user)
        return;
    const int saved_errno = errno;
    interrupted_by_user = 1;
    // Only the first interrupt counts; the run needs quiet to close the archive.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    ignore.sa_flags = SA_RESTART;
    sigemptyset(&ignore.sa_mask);
    for (int signo : INTERRUPTS)
        sigaction(signo, &ignore, nullptr);
    errno = saved_errno;
}

}  // namespace

sigset_t watched_signals()
{
    sigset_t watched;
    sigemptyset(&watched);
    for (int signo : {SIGCHLD, SIGALRM, SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        sigaddset(&watched, signo);
    return watched;
}

bool signals_install()
{
    // A reader that went away or a file-size limit is an output failure
    // like any other: the write fails, the run says so and cleans up.
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR || signal(SIGXFSZ, SIG_IGN) == SIG_ERR)
        return false;
    // SIGALRM and the interrupts lack SA_RESTART so that a blocking wait
    // in the command runner returns with EINTR.
    if (!install(SIGALRM, on_alarm, 0) || !install(SIGCHLD, on_child, SA_RESTART))
        return false;
    for (int signo : INTERRUPTS)
        if (!install(signo, on_interrupt, 0))
            return false;
    return true;
}
