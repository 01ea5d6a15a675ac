// Signal actions. Every case runs in a forked child (death-test style) so
// the test process keeps its own handlers and flags.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "quelvane_config_file.h"
#include "quelvane_util.h"

namespace {

// Ends the child: status 0 when every check held, else 1 with the reason on
// standard error, which the death-test report shows.
[[noreturn]] void finish(const std::string &failure) {
    if (!failure.empty()) {
        fprintf(stderr, "%s\n", failure.c_str());
        _exit(1);
    }
    _exit(0);
}

std::string start_fresh() {
    interrupted_by_user = 0;
    child_exited = 0;
    command_timed_out = 0;
    if (quelvane_signal_setup() != 0) return "setup failed";
    return "";
}

std::string flags_text() {
    return "interrupted_by_user=" + std::to_string(interrupted_by_user) +
           " child_exited=" + std::to_string(child_exited) +
           " command_timed_out=" + std::to_string(command_timed_out);
}

// Forks a helper that sleeps, optionally signals this process or writes one
// byte into the pipe, and exits.
pid_t helper(int delay_ms, int signo, int write_fd) {
    pid_t pid = fork();
    if (pid == 0) {
        usleep(static_cast<useconds_t>(delay_ms) * 1000);
        if (signo != 0) kill(getppid(), signo);
        if (write_fd >= 0 && write(write_fd, "x", 1) != 1) _exit(2);
        _exit(0);
    }
    return pid;
}

// A read that ought to be interrupted gets a byte after two seconds instead
// of hanging the suite when it is not.
pid_t rescue(int write_fd) { return helper(2000, 0, write_fd); }

void stop(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

struct ActionCase {
    int signo;
    void (*handler)(int, siginfo_t *, void *);
    bool restart;
};

const int kInterrupts[] = {SIGINT, SIGHUP, SIGQUIT, SIGTERM};

[[noreturn]] void check_installed_actions() {
    std::string failure = start_fresh();
    const ActionCase cases[] = {
        {SIGALRM, quelvane_signal_alarm, false},
        {SIGCHLD, quelvane_signal_child, true},
        {SIGHUP, quelvane_signal_interrupt, false},
        {SIGINT, quelvane_signal_interrupt, false},
        {SIGQUIT, quelvane_signal_interrupt, false},
        {SIGTERM, quelvane_signal_interrupt, false},
    };
    for (const auto &c : cases) {
        struct sigaction now {};
        sigaction(c.signo, nullptr, &now);
        const std::string name = strsignal(c.signo);
        if (!(now.sa_flags & SA_SIGINFO) || now.sa_sigaction != c.handler)
            failure += name + ": wrong handler; ";
        if (((now.sa_flags & SA_RESTART) != 0) != c.restart)
            failure += name + ": wrong SA_RESTART; ";
        if (!sigisemptyset(&now.sa_mask)) failure += name + ": mask not empty; ";
    }
    finish(failure);
}

[[noreturn]] void check_first_interrupt(int first) {
    std::string failure = start_fresh();
    raise(first);
    if (interrupted_by_user != 1 || child_exited != 0 || command_timed_out != 0)
        failure += "after the first signal: " + flags_text() + "; ";
    for (int signo : kInterrupts) {
        struct sigaction now {};
        sigaction(signo, nullptr, &now);
        if (now.sa_handler != SIG_IGN || !(now.sa_flags & SA_RESTART))
            failure += std::string(strsignal(signo)) + " not ignored; ";
    }
    // Each of them again: the process must survive them all.
    for (int signo : kInterrupts) raise(signo);
    finish(failure);
}

// With the flag already up the handler does nothing at all, so the
// handlers stay in place.
[[noreturn]] void check_flag_already_set() {
    std::string failure = start_fresh();
    interrupted_by_user = 1;
    raise(SIGINT);
    for (int signo : kInterrupts) {
        struct sigaction now {};
        sigaction(signo, nullptr, &now);
        if (now.sa_sigaction != quelvane_signal_interrupt)
            failure += std::string(strsignal(signo)) + " handler replaced; ";
    }
    finish(failure);
}

[[noreturn]] void check_termination_breaks_read() {
    std::string failure = start_fresh();
    int fds[2];
    if (pipe(fds) != 0) finish("pipe");
    pid_t pid = helper(100, SIGTERM, -1);
    pid_t backstop = rescue(fds[1]);
    char byte;
    ssize_t n = read(fds[0], &byte, 1);
    if (n != -1 || errno != EINTR) failure += "read was not interrupted; ";
    if (interrupted_by_user != 1) failure += "flag not set: " + flags_text();
    waitpid(pid, nullptr, 0);
    stop(backstop);
    finish(failure);
}

[[noreturn]] void check_alarm() {
    std::string failure = start_fresh();
    int fds[2];
    if (pipe(fds) != 0) finish("pipe");
    struct itimerval timer {};
    timer.it_value.tv_usec = 50000;
    pid_t backstop = rescue(fds[1]);
    setitimer(ITIMER_REAL, &timer, nullptr);
    char byte;
    ssize_t n = read(fds[0], &byte, 1);
    if (n != -1 || errno != EINTR) failure += "read was not interrupted; ";
    int timed_out = command_timed_out;
    int interrupted = interrupted_by_user;
    int exited = child_exited;  // taken before the backstop is reaped
    if (timed_out != 1 || interrupted != 0 || exited != 0) failure += "flags: " + flags_text();
    stop(backstop);
    finish(failure);
}

[[noreturn]] void check_child_exit_restarts_read() {
    std::string failure = start_fresh();
    int fds[2];
    if (pipe(fds) != 0) finish("pipe");
    // One helper exits while the read waits; the other then feeds it.
    pid_t quick = helper(100, 0, -1);
    pid_t feeder = helper(400, 0, fds[1]);
    char byte = 0;
    ssize_t n = read(fds[0], &byte, 1);
    if (n != 1 || byte != 'x')
        failure += "read gave " + std::to_string(n) + " (" + strerror(errno) + "); ";
    if (child_exited != 1 || interrupted_by_user != 0 || command_timed_out != 0)
        failure += "flags: " + flags_text();
    waitpid(quick, nullptr, 0);
    waitpid(feeder, nullptr, 0);
    finish(failure);
}

TEST(ConfigSignals, SetupInstallsEveryAction) {
    EXPECT_EXIT(check_installed_actions(), ::testing::ExitedWithCode(0), "");
}

TEST(ConfigSignals, OnlyTheFirstInterruptCounts) {
    for (int first : kInterrupts) {
        SCOPED_TRACE(strsignal(first));
        EXPECT_EXIT(check_first_interrupt(first), ::testing::ExitedWithCode(0), "");
    }
}

TEST(ConfigSignals, InterruptWithTheFlagSetChangesNothing) {
    EXPECT_EXIT(check_flag_already_set(), ::testing::ExitedWithCode(0), "");
}

TEST(ConfigSignals, TerminationBreaksABlockingRead) {
    EXPECT_EXIT(check_termination_breaks_read(), ::testing::ExitedWithCode(0), "");
}

TEST(ConfigSignals, AlarmMarksTheTimeOutAndBreaksARead) {
    EXPECT_EXIT(check_alarm(), ::testing::ExitedWithCode(0), "");
}

TEST(ConfigSignals, ChildExitDoesNotBreakARead) {
    EXPECT_EXIT(check_child_exit_restarts_read(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
