#include "command_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "descriptor.h"
#include "signals.h"

namespace {

// At most two seconds for a signalled command to go before the run goes on.
constexpr int64_t KILL_GRACE_MS = 2000;
constexpr int REAP_POLL_MS = 10;
constexpr time_t POLL_SECONDS = 1;

void disarm_timer()
{
    struct itimerval timer = {};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// Kept in release builds too: a child sharing our process group would take
// the tool down with it when its group is signalled.
void require(bool condition, const Console &console, const char *text)
{
    if (condition)
        return;
    fprintf(stderr, "%s: quelvane_execute_command: Assertion `%s' failed.\n", console.program.c_str(), text);
    abort();
}

pid_t wait_child(pid_t pid, int *status, int options)
{
    pid_t got;
    do {
        got = waitpid(pid, status, options);
    } while (got == -1 && errno == EINTR);
    if (got == -1)
        perror("waitpid");
    return got;
}

// Runs in the forked child; never returns.
[[noreturn]] void run_child(const ConfigEntry &entry, const std::string &command, Pipe &out, Pipe &err, Pipe &sync)
{
    // Default actions before the parent can signal us: a SIGTERM that came
    // before exec must not find our handler, which would ignore the next one
    // for the command too. We ignore SIGPIPE and SIGXFSZ to see failed writes
    // as errors; a command's pipeline (yes | head) relies on them.
    for (int signo : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGCHLD, SIGPIPE, SIGXFSZ})
        signal(signo, SIG_DFL);
    auto keep_as = [](int fd, int target) {
        if (fd == target)
            fcntl(fd, F_SETFD, 0);  // already in place: keep it across exec
        else
            dup2(fd, target);
    };
    keep_as(out.write_end.get(), STDOUT_FILENO);
    keep_as(err.write_end.get(), STDERR_FILENO);
    // A group of its own, so that SIGTERM reaches everything it starts and a
    // terminal interrupt aimed at us does not reach it directly.
    setpgrp();
    char pgid_text[32] = {};
    snprintf(pgid_text, sizeof pgid_text, "%d", static_cast<int>(getpgid(0)));
    ssize_t ignored = write(sync.write_end.get(), pgid_text, strlen(pgid_text));
    (void)ignored;
    // The command gets standard input, output and error, nothing more: not
    // the archive, the lock, our pipes nor what we inherited ourselves.
    if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0)
        for (long fd = STDERR_FILENO + 1, top = sysconf(_SC_OPEN_MAX); fd < top && fd < 65536; ++fd)
            close(static_cast<int>(fd));
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
    const int error = errno;
    fprintf(stderr, _("QUELVANE MSG: Unable to exec: '%s' errno: %d\n"), entry.path.c_str(), error);
    errno = error;
    perror(entry.path.c_str());
    close(STDOUT_FILENO);
    fflush(stderr);
    _exit(error);
}

enum class Ending { running, finished, interrupted, timed_out };

// A started command. Whichever way the runner leaves, an output failure
// included, a command still running is stopped with the kill sequence and
// the timer disarmed, so nothing of ours runs on unwatched.
class RunningCommand {
public:
    RunningCommand(const Console &console, const ConfigEntry &entry, pid_t pid)
        : console_(console), entry_(entry), pid_(pid)
    {
    }
    RunningCommand(const RunningCommand &) = delete;
    RunningCommand &operator=(const RunningCommand &) = delete;
    ~RunningCommand()
    {
        // The caller reports the failure that brought us here, not the
        // grace period's interrupted sleep.
        const int error = errno;
        disarm_timer();
        if (!done_)
            stop(nullptr);
        errno = error;
    }
    pid_t pid() const { return pid_; }
    // What the kill sequence signals: the command's process group.
    void aim_at_group(int pgid) { target_ = pgid == -1 ? pid_ : -pgid; }
    // The command ended by itself and was reaped.
    void reaped() { done_ = true; }
    // SIGTERM to the whole group, then the grace period, which ends as soon
    // as the command itself is reaped. Never SIGKILL: a group that ignores
    // SIGTERM is left running.
    void stop(int *status)
    {
        int ignored = 0;
        done_ = true;
        kill(target_, SIGTERM);
        const int64_t end = clock_ms(CLOCK_MONOTONIC) + KILL_GRACE_MS;
        bool reaped = false;
        while (!(reaped = wait_child(pid_, status != nullptr ? status : &ignored, WNOHANG) == pid_) &&
               clock_ms(CLOCK_MONOTONIC) < end)
            poll(nullptr, 0, REAP_POLL_MS);
        if (!reaped)
            console_.progress(_("Command '%s' (pid %d) did not exit.\n"), entry_.path.c_str(), abs(target_));
    }

private:
    const Console &console_;
    const ConfigEntry &entry_;
    pid_t pid_;
    int target_ = 0;
    bool done_ = false;
};

// Scrubbed as it comes, before the cap: the cap counts the scrubbed text,
// and a secret that the cap cuts is replaced whole or left out.
int read_scrubbed(Context &context, int fd, bool final)
{
    unsigned char buffer[TextBuffer::PIECE];
    std::vector<unsigned char> clean;
    ssize_t count = sizeof buffer;
    while (count == static_cast<ssize_t>(sizeof buffer)) {
        count = read(fd, buffer, sizeof buffer);
        if (count < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            return -1;
        clean.clear();
        context.err_scrub.feed(buffer, count > 0 ? static_cast<size_t>(count) : 0, false, &clean);
        context.err_text.add_capped(clean.data(), clean.size());
    }
    if (final) {
        clean.clear();
        context.err_scrub.feed(buffer, 0, true, &clean);
        context.err_text.add_capped(clean.data(), clean.size());
    }
    return 0;
}

// final: the command has ended, and this is the last of its standard error.
void read_stderr(Context &context, int fd, const char *format, bool final = false)
{
    const int result = context.scrub.active() ? read_scrubbed(context, fd, final) : context.err_text.read_fd(fd);
    if (result != 0 && !context.err_text.full())
        fprintf(stderr, format, result, fd, errno);
}

// The entry's time-out, cut short by the run's deadline, which stops the
// command as its own time-out would.
bool arm_timer(const ConfigEntry &entry, const Pacing &pacing)
{
    struct itimerval timer = {};
    timer.it_value.tv_sec = entry.timeout;
    const int64_t left_ms = pacing.left_ms();
    if (left_ms >= 0 && left_ms < static_cast<int64_t>(entry.timeout) * 1000) {
        timer.it_value.tv_sec = static_cast<time_t>(left_ms / 1000);
        timer.it_value.tv_usec = static_cast<suseconds_t>(left_ms % 1000 * 1000 + 1);
    }
    if (setitimer(ITIMER_REAL, &timer, nullptr) == 0)
        return true;
    perror("setitimer");
    return false;
}

// The program is not there: only an ".err" member says so.
Result report_missing(Context &context, const ConfigEntry &entry, ZipMember &err)
{
    context.note(EntryResult::error);
    err.status = "missing";
    if (context.notes.printf(_("QUELVANE MSG: %s does not exist on this platform\n"),
                             context.scrub.text(entry.path).c_str()) < 0)
        return Result::collection_error;
    if (context.write_text_member(err, context.err_text, &context.notes) != 0) {
        context.console.progress(_("Error with output\n"));
        return Result::output_failure;
    }
    return Result::collection_error;
}

// Streams the command's output until it ends, times out or the user
// interrupts: how it ended, or running after an output failure.
Ending watch(Context &context, ZipMember &out, int out_read, int err_read, RunningCommand &command, int *status)
{
    // The signals that set our flags are held back outside the poll itself:
    // one arriving between the test of the flags and the poll would
    // otherwise leave us waiting out the full second.
    const sigset_t watched = watched_signals();
    struct pollfd slots[2] = {{out_read, POLLIN, 0}, {err_read, POLLIN, 0}};
    const int64_t keepalive_ms = context.pacing.keepalive_ms();
    int64_t heard_ms = clock_ms(CLOCK_MONOTONIC);
    for (;;) {
        *status = 0;
        errno = 0;
        sigset_t previous;
        sigprocmask(SIG_BLOCK, &watched, &previous);
        struct timespec wait = {child_exited || interrupted_by_user || command_timed_out ? 0 : POLL_SECONDS, 0};
        slots[0].revents = slots[1].revents = 0;
        const int ready = ppoll(slots, 2, &wait, &previous);
        const int poll_error = errno;
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        if (ready == -1 && poll_error != EINTR) {
            fputs(_("poll error"), stderr);
            errno = poll_error;
            perror("poll");
        }
        if (child_exited) {
            // SIGCHLD may come from an earlier command left running, or
            // report a stop: only our child's end finishes the command.
            child_exited = 0;
            if (wait_child(command.pid(), status, WNOHANG) != 0) {
                child_exited = 1;
                command.reaped();
                return Ending::finished;
            }
        }
        if (interrupted_by_user)
            return Ending::interrupted;
        if (command_timed_out)
            return Ending::timed_out;
        // A hung-up pipe with nothing left to read would wake every poll.
        for (struct pollfd &slot : slots)
            if ((slot.revents & (POLLHUP | POLLERR | POLLNVAL)) && !(slot.revents & POLLIN))
                slot.fd = -1;
        if ((slots[0].revents & POLLIN) && context.zip.stream().from_fd(out, out_read, Z_NO_FLUSH) != 0)
            return Ending::running;
        if (slots[1].revents & POLLIN)
            read_stderr(context, err_read, _("Error while buffering stderr ret=%d fd=%d errno=%d\n"));
        // A silent command: bytes for the reader, so that a proxy sees no
        // idle stream and a reader that has gone is noticed now.
        const int64_t now_ms = clock_ms(CLOCK_MONOTONIC);
        if (slots[0].revents & POLLIN)
            heard_ms = now_ms;
        else if (keepalive_ms > 0 && now_ms - heard_ms >= keepalive_ms) {
            if (context.zip.stream().keepalive(out) != 0)
                return Ending::running;
            heard_ms = now_ms;
        }
    }
}

// After the command: the rest of its output, its ".err" member with our
// notes, and the console's last word on it.
Result conclude(Context &context, const ConfigEntry &entry, ZipMember &out, ZipMember &err, Ending ending,
                int status, int out_read, int err_read)
{
    const Console &console = context.console;
    // Only an exit code counts as a failure; a command ended by a signal we
    // did not send is reported as having exited normally.
    const int exit_code = (status & 0x7f) == 0 ? (status >> 8) & 0xff : 0;
    for (ZipMember *member : {&out, &err}) {
        member->status = ending == Ending::timed_out     ? "timeout"
                         : ending == Ending::interrupted ? "interrupted"
                         : exit_code != 0                ? "exit"
                                                         : "ok";
        member->exit_status = exit_code;
    }
    // Whatever the command left in its pipes, without waiting for the end
    // of a stream that a background process may still hold open.
    if (context.zip.stream().from_fd(out, out_read, Z_FINISH) != 0 || context.zip.finish_member(out) != 0) {
        console.progress(_("Error with output\n"));
        return Result::output_failure;
    }
    read_stderr(context, err_read, _("Error buffering stderr ret=%d fd=%d errno=%d\n"), true);
    if (out.cut && context.add_cut_note(out) < 0)
        fputs(_("Error withquelvane_vbprintf: Exit\n"), stderr);
    const bool timed_out = ending == Ending::timed_out, interrupted = ending == Ending::interrupted;
    const char *failed = nullptr;
    if (timed_out) {
        context.note(EntryResult::timeout);
        if (context.notes.printf(_("QUELVANE MSG: Command Timeout: Exit Signal: %d\n"), status & 0x7f) < 0)
            failed = _("Error withquelvane_vbprintf: TO message\n");
    } else if (exit_code != 0) {
        context.note(EntryResult::error);
        // The exit code is described as if it were an errno value.
        if (context.notes.printf(_("QUELVANE MSG: Child exited with %d: %s\n"), exit_code, strerror(exit_code)) < 0)
            failed = _("Error withquelvane_vbprintf: Exit\n");
    }
    if (interrupted && failed == nullptr) {
        context.note(EntryResult::interrupted);
        if (context.notes.printf(_("QUELVANE MSG: User Interrupt\n")) < 0)
            failed = _("Error withquelvane_vbprintf: Interrupt Message\n");
    }
    if (failed != nullptr) {
        fputs(failed, stderr);
        return Result::collection_error;
    }
    if ((timed_out || !context.err_text.empty() || !context.notes.empty()) &&
        context.write_text_member(err, context.err_text, &context.notes) != 0) {
        console.progress(_("Error with output\n"));
        return Result::output_failure;
    }
    if (timed_out) {
        console.progress(_("Command '%s' timed out\n"), entry.path.c_str());
        return Result::collection_error;
    }
    console.progress(_("Command '%s' "), entry.path.c_str());
    if (interrupted)
        console.progress(_("interrupted by user\n"));
    else if (exit_code != 0)
        console.progress(_("exited with %d: %s\n"), exit_code, strerror(exit_code));
    else
        console.progress(_("exited normally\n"));
    return Result::ok;
}

// The child's process group, as it reports it once it has made it.
int read_group(Pipe &sync)
{
    char pgid_text[32] = {};
    ssize_t got;
    do {
        got = read(sync.read_end.get(), pgid_text, sizeof pgid_text - 1);
    } while (got == -1 && errno == EINTR);
    int pgid = -1;
    sscanf(pgid_text, "%d", &pgid);
    return pgid;
}

}  // namespace

Result run_command(Context &context, const ConfigEntry &entry, const std::string &command, const EntryNames &names)
{
    context.console.progress(_("Starting Command: %s\n"), names.origin.c_str());
    context.err_text.clear();
    context.err_scrub.reset();
    context.notes.clear();
    child_exited = 0;
    command_timed_out = 0;
    ZipMember out, err;
    err.name = names.err;
    err.command = names.origin;
    if (access(entry.argv.empty() ? entry.path.c_str() : entry.argv[0].c_str(), X_OK) != 0)
        return report_missing(context, entry, err);
    out.name = names.out;
    out.command = names.origin;

    Pipe out_pipe, err_pipe, sync_pipe;
    if (!out_pipe.open() || !err_pipe.open() || !sync_pipe.open())
        return Result::collection_error;
    const pid_t pid = fork();
    if (pid < 0) {
        const int error = errno;
        fprintf(stderr, _("Can't fork for %s\n"), entry.path.c_str());
        errno = error;
        perror(entry.path.c_str());
        return Result::collection_error;
    }
    if (pid == 0)
        run_child(entry, command, out_pipe, err_pipe, sync_pipe);

    // Our own write ends go first, so that a child that dies before it
    // reports its group cannot leave the read below waiting.
    for (Pipe *p : {&out_pipe, &err_pipe, &sync_pipe})
        p->write_end.reset();
    RunningCommand running(context.console, entry, pid);
    const int pgid = read_group(sync_pipe);
    require(pgid != getpgid(0), context.console, "childpgrpid != getpgid(0)");
    require(pgid == getpgid(pid), context.console, "childpgrpid == getpgid(pid)");
    running.aim_at_group(pgid);
    sync_pipe.read_end.reset();
    const int out_read = out_pipe.read_end.get(), err_read = err_pipe.read_end.get();
    // Never block on a pipe: a background process of the command may hold
    // it open long after the command itself has gone.
    for (int fd : {out_read, err_read})
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    if (!arm_timer(entry, context.pacing))
        return Result::collection_error;
    // Everything so far reaches the reader before we wait on the command.
    if (context.zip.begin_member(out) != 0 || context.zip.stream().sink().flush() != 0) {
        perror("quelvane_z_output_local_file_header");
        return Result::output_failure;
    }
    int status = 0;
    const Ending ending = watch(context, out, out_read, err_read, running, &status);
    if (ending == Ending::running) {
        context.console.progress(_("Error with output\n"));
        return Result::output_failure;
    }
    disarm_timer();
    if (ending != Ending::finished)
        running.stop(&status);
    const Result result = conclude(context, entry, out, err, ending, status, out_read, err_read);
    context.err_text.clear();
    context.notes.clear();
    return result;
}
