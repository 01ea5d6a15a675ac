// Signal actions. Every case runs in a forked child (death-test style) so
// the test process keeps its own handlers and flags.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "quelvane_config_file.h"
#include "quelvane_util.h"
#include "testsupport.h"

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

// Runs body in a forked helper process that then exits. A helper dies with
// the checking child, so a check killed by a signal leaves nothing behind
// that holds the death-test pipe open.
template <typename Body>
pid_t spawn(Body body) {
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        body();
        _exit(0);
    }
    return pid;
}

// Waits (at most two seconds) until the process sleeps, which in these
// checks means it is blocked in its read.
void wait_until_asleep(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    for (int i = 0; i < 2000; i++) {
        const std::string stat = qt::read_file(path);
        const size_t end = stat.rfind(')');
        if (end != std::string::npos && end + 2 < stat.size() && stat[end + 2] == 'S') return;
        usleep(1000);
    }
}

void write_byte(int fd) {
    if (write(fd, "x", 1) != 1) _exit(2);
}

// A read that ought to be interrupted gets a byte after two seconds instead
// of hanging the suite when it is not.
pid_t rescue(int write_fd) {
    return spawn([write_fd] {
        sleep(2);
        write_byte(write_fd);
    });
}

void stop(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

const int kInterrupts[] = {SIGINT, SIGHUP, SIGQUIT, SIGTERM};

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

// SIGALRM and the interrupts are installed without SA_RESTART: they must cut
// a blocking read short (EINTR) and raise only their own flag.
[[noreturn]] void check_breaks_read(int signo, volatile sig_atomic_t *flag) {
    std::string failure = start_fresh();
    int fds[2];
    if (pipe(fds) != 0) finish("pipe");
    const pid_t self = getpid();
    // The sender stays until stopped: its exit would raise SIGCHLD.
    const pid_t sender = spawn([self, signo] {
        wait_until_asleep(self);
        kill(self, signo);
        for (;;) pause();
    });
    const pid_t backstop = rescue(fds[1]);
    char byte;
    const ssize_t n = read(fds[0], &byte, 1);
    if (n != -1 || errno != EINTR) failure += "read was not interrupted; ";
    const int total = interrupted_by_user + child_exited + command_timed_out;
    if (*flag != 1 || total != 1) failure += "flags: " + flags_text();
    stop(sender);
    stop(backstop);
    finish(failure);
}

[[noreturn]] void check_child_exit_restarts_read() {
    std::string failure = start_fresh();
    int fds[2];
    if (pipe(fds) != 0) finish("pipe");
    const pid_t self = getpid();
    // One helper ends while the read waits; the other feeds it afterwards.
    const pid_t quick = spawn([self] { wait_until_asleep(self); });
    const pid_t feeder = spawn([self, &fds] {
        wait_until_asleep(self);
        usleep(300000);
        write_byte(fds[1]);
    });
    char byte = 0;
    const ssize_t n = read(fds[0], &byte, 1);
    if (n != 1 || byte != 'x')
        failure += "read gave " + std::to_string(n) + " (" + strerror(errno) + "); ";
    if (child_exited != 1 || interrupted_by_user != 0 || command_timed_out != 0)
        failure += "flags: " + flags_text();
    waitpid(quick, nullptr, 0);
    waitpid(feeder, nullptr, 0);
    finish(failure);
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

TEST(ConfigSignals, AlarmAndInterruptsBreakABlockingRead) {
    const struct {
        int signo;
        volatile sig_atomic_t *flag;
    } cases[] = {
        {SIGALRM, &command_timed_out}, {SIGINT, &interrupted_by_user},
        {SIGHUP, &interrupted_by_user}, {SIGQUIT, &interrupted_by_user},
        {SIGTERM, &interrupted_by_user},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(strsignal(c.signo));
        EXPECT_EXIT(check_breaks_read(c.signo, c.flag), ::testing::ExitedWithCode(0), "");
    }
}

TEST(ConfigSignals, ChildExitDoesNotBreakARead) {
    EXPECT_EXIT(check_child_exit_restarts_read(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
