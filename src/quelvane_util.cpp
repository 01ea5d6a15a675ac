// Process-wide flags, instance lock, terminal input and console utilities.
#include "quelvane_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include <openssl/crypto.h>

int answer_yes;
int answer_no;
int bui_header;
int bui_download_mode;
int log_only_mode;
int verbose;
int quiet;
int encrypt_output;
int no_compression;
char *program_name;

volatile sig_atomic_t interrupted_by_user;
volatile sig_atomic_t child_exited;
volatile sig_atomic_t command_timed_out;

// ---------------------------------------------------------------------------
// Instance lock and work directory
// ---------------------------------------------------------------------------

namespace {

constexpr size_t PATH_BUFFER = 4096;
constexpr size_t MESSAGE_BUFFER = 128;
constexpr int PASSWORD_BUFFER = 64;

char instance[32] = "error";
char work_dir[PATH_BUFFER];
char lock_dir_buffer[PATH_BUFFER];
const char *held_lock_dir;  // null while no lock is held
int lock_fd = -1;
int lock_dir_fd = -1;  // the held lock directory, opened without following links

// Paths and messages are cut at their buffer size, never overrun.
__attribute__((format(printf, 3, 4))) void bounded(char *out, size_t size, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(out, size, format, arguments);
    va_end(arguments);
}

struct DirClose {
    void operator()(DIR *dir) const { closedir(dir); }
};

}  // namespace

void set_instance_name(const char *name)
{
    if (name == nullptr)
        return;
    const char *slash = strrchr(name, '/');
    bounded(instance, sizeof instance, "%s", slash != nullptr ? slash + 1 : name);
}

const char *instance_name() { return instance; }

const char *work_directory()
{
    if (work_dir[0] == '\0') {
        const char *home = getenv("QUELVANE_HOME");
        if (home != nullptr) {
            bounded(work_dir, sizeof work_dir, "%s/quelvane_tmp", home);
            (void)mkdir(work_dir, 0755);  // an existing directory is the usual case
        } else {
            bounded(work_dir, sizeof work_dir, "%s", "/tmp");
        }
    }
    return work_dir;
}

const char *lock_directory() { return held_lock_dir; }

namespace {

// Every non-hidden entry of the open directory goes; hidden files (the lock
// itself) and subdirectories stay. Relative to the descriptor, so nothing
// outside the directory we checked is touched.
void clear_directory_fd(int dir_fd)
{
    int scan_fd = dup(dir_fd);
    if (scan_fd == -1)
        return;
    std::unique_ptr<DIR, DirClose> dir(fdopendir(scan_fd));
    if (!dir) {
        close(scan_fd);
        return;
    }
    while (const struct dirent *entry = readdir(dir.get())) {
        if (entry->d_name[0] != '.')
            unlinkat(dir_fd, entry->d_name, 0);
    }
}

// The directory itself, never a link to one: the path lies in a directory
// that everyone may write to.
int open_real_directory(const char *directory)
{
    struct stat status;
    if (lstat(directory, &status) != 0 || !S_ISDIR(status.st_mode))
        return -1;
    return open(directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

}  // namespace

int lock_instance(const char *name, char *error, size_t error_size)
{
    char scratch[MESSAGE_BUFFER];
    if (error == nullptr || error_size == 0) {
        error = scratch;
        error_size = sizeof scratch;
    }
    if (name == nullptr) {
        bounded(error, error_size, "No instance name.");
        return -1;
    }

    // The lock directory and file are shared by every user who runs the tool.
    mode_t old_mask = umask(0);
    char directory[PATH_BUFFER];
    char lock_file[PATH_BUFFER];
    bounded(directory, sizeof directory, "%s/%s.quelvane", work_directory(), name);
    bounded(lock_file, sizeof lock_file, "%s/.lock", directory);

    if (mkdir(directory, 0777) == -1 && errno != EEXIST) {
        bounded(error, error_size, "Failed to create directory %s, errno=%d", directory, errno);
        umask(old_mask);
        return -1;
    }
    int dir_fd = open_real_directory(directory);
    if (dir_fd == -1) {
        bounded(error, error_size, "Refusing lock directory %s: not a real directory.", directory);
        umask(old_mask);
        return -1;
    }
    int fd = openat(dir_fd, ".lock", O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd == -1) {
        bounded(error, error_size, "Failed to open %s, errno=%d.", lock_file, errno);
        umask(old_mask);
        close(dir_fd);
        return -1;
    }
    umask(old_mask);

    if (lockf(fd, F_TLOCK, 0) == 0) {
        clear_directory_fd(dir_fd);
        bounded(lock_dir_buffer, sizeof lock_dir_buffer, "%s", directory);
        held_lock_dir = lock_dir_buffer;
        lock_dir_fd = dir_fd;
        lock_fd = fd;
        return 0;
    }
    int error_number = errno;
    close(dir_fd);
    if (error_number == EAGAIN || error_number == EACCES) {
        // The descriptor stays open: the process ends right after.
        bounded(error, error_size, "An instance of %s is already running.", name);
        return -1;
    }
    bounded(error, error_size, "Failed to lock %s, errno=%d.", lock_file, error_number);
    close(fd);
    return -1;
}

void unlock_instance()
{
    if (held_lock_dir == nullptr)
        return;
    clear_directory_fd(lock_dir_fd);
    unlinkat(lock_dir_fd, ".lock", 0);
    rmdir(held_lock_dir);  // fails harmlessly if the path no longer is that directory
    held_lock_dir = nullptr;
    close(lock_dir_fd);
    lock_dir_fd = -1;
    if (lock_fd != -1) {
        close(lock_fd);
        lock_fd = -1;
    }
}

void clear_directory(const char *directory)
{
    if (directory == nullptr)
        return;
    int dir_fd = open_real_directory(directory);
    if (dir_fd == -1)
        return;
    clear_directory_fd(dir_fd);
    close(dir_fd);
}

int acquire_lock()
{
    char message[MESSAGE_BUFFER] = {};
    if (lock_instance(instance_name(), message, sizeof message) == -1) {
        fprintf(stderr, "%s\n", message);
        return -1;
    }
    return 0;
}

int release_lock()
{
    unlock_instance();
    return 0;
}

// ---------------------------------------------------------------------------
// Terminal input and the encryption password
// ---------------------------------------------------------------------------

int read_terminal_line(const char *prompt, char *buffer, int size, int no_echo)
{
    if (buffer == nullptr || size < 1)
        return -1;
    const bool terminal = isatty(0) != 0;
    struct termios saved;
    bool echo_off = false;
    if (no_echo && terminal && tcgetattr(0, &saved) == 0) {
        struct termios silent = saved;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        echo_off = tcsetattr(0, TCSAFLUSH, &silent) == 0;
    }

    fputs(prompt != nullptr ? prompt : "", stdout);
    fflush(stdout);
    memset(buffer, 0, static_cast<size_t>(size));

    // Every character counts, stored or not, so the caller sees an entry
    // that was too long. An interrupt that lands between two reads ends the
    // line as one that cuts a read short does.
    int count = 0;
    int c;
    while (!interrupted_by_user && (c = fgetc(stdin)) != EOF && c != '\n') {
        if (count < size - 1)
            buffer[count] = static_cast<char>(c);
        count++;
    }

    // The typed newline was not echoed, or there was no terminal to echo it.
    if (no_echo || !terminal) {
        fputc('\n', stdout);
        fflush(stdout);
    }
    if (echo_off)
        tcsetattr(0, TCSANOW, &saved);
    return count;
}

int quelvane_password_from_fd(int fd, char *buffer)
{
    if (buffer == nullptr)
        return -1;
    memset(buffer, 0, PASSWORD_BUFFER);
    ssize_t count = read(fd, buffer, PASSWORD_BUFFER);
    close(fd);
    if (count < 1) {
        fprintf(stderr, _("Empty encryption password on fd %d.\n"), fd);
        return -1;
    }
    if (count > PASSWORD_BUFFER - 1) {
        OPENSSL_cleanse(buffer, PASSWORD_BUFFER);
        fprintf(stderr, _("Maximum encryption password length is %d characters.\n"),
                PASSWORD_BUFFER - 1);
        return -1;
    }
    // The password is exactly the bytes read: a trailing newline is kept on
    // purpose, so callers that write "secret\n" encrypt with "secret\n".
    buffer[count] = '\0';
    return 0;
}

int quelvane_password_from_terminal(char *buffer)
{
    if (buffer == nullptr || interrupted_by_user)
        return -1;
    char confirm[PASSWORD_BUFFER];
    int length = read_terminal_line(_("Enter encryption password: "), buffer, PASSWORD_BUFFER, 1);
    int result = -1;
    if (interrupted_by_user) {
        // Nothing to say: the user asked to stop.
    } else if (length == 0) {
        fputs(_("Password may not be empty.\n"), stderr);
    } else if (length >= PASSWORD_BUFFER) {
        fprintf(stderr, _("Maximum password length is %d characters.\n"), PASSWORD_BUFFER - 1);
    } else {
        int confirmed = read_terminal_line(_("Confirm encryption password: "), confirm,
                                           PASSWORD_BUFFER, 1);
        if (confirmed == length && strcmp(buffer, confirm) == 0)
            result = 0;
        else
            fputs(_("Passwords do not match\n"), stderr);
        OPENSSL_cleanse(confirm, sizeof confirm);
    }
    if (result != 0)
        OPENSSL_cleanse(buffer, PASSWORD_BUFFER);
    return result;
}

// ---------------------------------------------------------------------------
// Console utilities
// ---------------------------------------------------------------------------

int print_progress(const char *format, ...)
{
    // In download mode standard output carries the archive.
    FILE *stream = bui_download_mode ? stderr : stdout;
    if (format == nullptr)
        return -1;
    if (!verbose)
        return 0;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stream, format, arguments);
    va_end(arguments);
    fflush(stream);
    return 0;
}

int ask_yes_no(const char *prompt, int yes, int no)
{
    if (prompt == nullptr)
        prompt = "";
    if (yes) {
        if (!quiet)
            printf(_("%syes\n"), prompt);
        return 1;
    }
    if (no) {
        if (!quiet)
            printf(_("%sno\n"), prompt);
        return 0;
    }
    for (;;) {
        char answer[20];
        read_terminal_line(prompt, answer, sizeof answer, 0);
        if (interrupted_by_user)
            return -2;
        if (strcasecmp(answer, "yes") == 0 || strcasecmp(answer, "y") == 0)
            return 1;
        if (strcasecmp(answer, "no") == 0 || strcasecmp(answer, "n") == 0)
            return 0;
        // A standard input that fails (closed, hung up) ends like one at
        // its end, rather than asking forever.
        if (feof(stdin) || ferror(stdin))
            return -1;
        fputs(_("Please enter 'yes', 'no', 'y', or 'n'.\n"), stdout);
    }
}

int write_download_header(int fd, const char *name)
{
    if (name == nullptr)
        return -1;
    static const char header[] = "Cache-Control: public\n"
                                 "Pragma: public\n"
                                 "Content-Disposition: attachment; filename=%s\n"
                                 "Content-Type: application/octet-stream; name=%s\n"
                                 "\n";
    std::vector<char> text;
    try {
        // The fixed text is shorter than 150 characters, so this always fits.
        text.assign(2 * strlen(name) + 150, '\0');
    } catch (const std::bad_alloc &) {
        fputs(_("No Memory\n"), stderr);
        return -1;
    }
    int length = snprintf(text.data(), text.size(), header, name, name);
    // One write, so the web server sees the whole header before any data.
    if (length < 0 || write(fd, text.data(), static_cast<size_t>(length)) == -1) {
        int error = errno;  // the catalogue lookup may change errno
        fprintf(stderr, _("Error writing html file download header: %s\n"), strerror(error));
        return -1;
    }
    return 0;
}

int get_injected_spswdown()
{
    const char *value = getenv("QUELVANE_INJECT_SPSWDOWN");
    if (value == nullptr)
        return 0;
    int injected = atoi(value);
    fprintf(stderr, "Injected SPSWDOWN: %d\n", injected);
    return injected;
}

int mark_max_domains(int *max_domains)
{
    if (max_domains == nullptr)
        return -1;
    *max_domains = 1;
    return 0;
}

// ---------------------------------------------------------------------------
// Progress channel
// ---------------------------------------------------------------------------

namespace {

int progress_fd = -1;
unsigned long long lines_lost;
// A line is written in one call no longer than PIPE_BUF, so a pipe takes it
// whole or not at all.
constexpr size_t LINE_MAX_BYTES = 4096;

// 1 written, 0 no room now, -1 the reader is gone.
int send_line(const char *line, size_t length)
{
    ssize_t written;
    do {
        written = write(progress_fd, line, length);
    } while (written == -1 && errno == EINTR);
    if (written == static_cast<ssize_t>(length))
        return 1;
    if (written == -1 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return 0;
    return -1;
}

}  // namespace

int progress_channel_open(int fd)
{
    int flags = fd >= 0 ? fcntl(fd, F_GETFL) : -1;
    if (flags == -1 || fd <= STDERR_FILENO)
        return -1;
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    progress_fd = fd;
    lines_lost = 0;
    return 0;
}

bool progress_channel_active() { return progress_fd >= 0; }

void progress_event(const char *format, ...)
{
    if (progress_fd < 0)
        return;
    char line[LINE_MAX_BYTES];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (length <= 0)
        return;
    if (static_cast<size_t>(length) >= sizeof line) {
        length = sizeof line - 1;  // cut, still one line
        line[length - 1] = '\n';
    }
    int sent = 1;
    if (lines_lost > 0) {
        char lost[48];
        int lost_length = snprintf(lost, sizeof lost, "LOST %llu\n", lines_lost);
        sent = send_line(lost, static_cast<size_t>(lost_length));
        if (sent == 1)
            lines_lost = 0;
    }
    if (sent == 1)
        sent = send_line(line, static_cast<size_t>(length));
    if (sent == 0)
        ++lines_lost;
    else if (sent == -1)
        progress_fd = -1;  // nobody reads any more; the run goes on
}

// ---------------------------------------------------------------------------
// Deadline
// ---------------------------------------------------------------------------

namespace {

long long deadline_ms = -1;

long long monotonic_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void run_deadline_set(unsigned seconds)
{
    deadline_ms = monotonic_ms() + static_cast<long long>(seconds) * 1000;
}

long long run_deadline_left_ms()
{
    if (deadline_ms < 0)
        return -1;
    long long left = deadline_ms - monotonic_ms();
    return left > 0 ? left : 0;
}

bool run_deadline_passed() { return run_deadline_left_ms() == 0; }

// ---------------------------------------------------------------------------
// Gentle mode
// ---------------------------------------------------------------------------

namespace {

constexpr int IOPRIO_CLASS_IDLE = 3;
constexpr int IOPRIO_CLASS_SHIFT = 13;
constexpr int IOPRIO_WHO_PROCESS = 1;
constexpr int LOWEST_PRIORITY = 19;

// Pressure at which we wait: share of the last 10 s in which some task was
// stalled on the CPU or on I/O.
constexpr double CPU_PRESSURE_LIMIT = 40.0;
constexpr double IO_PRESSURE_LIMIT = 30.0;
constexpr long PAUSE_STEP_MS = 500;
constexpr long long PAUSE_TOTAL_MS = 30000;

bool gentle;
long long paused_ms;

bool pressure_file_high(const char *path, double threshold)
{
    char text[256] = {};
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;  // no pressure accounting: never wait
    ssize_t got = read(fd, text, sizeof text - 1);
    close(fd);
    return got > 0 && pressure_high(text, threshold);
}

}  // namespace

bool pressure_high(const char *text, double threshold)
{
    const char *some = text != nullptr ? strstr(text, "some ") : nullptr;
    const char *average = some != nullptr ? strstr(some, "avg10=") : nullptr;
    if (average == nullptr)
        return false;
    char *end = nullptr;
    double value = strtod(average + 6, &end);
    return end != average + 6 && value >= threshold;
}

int gentle_start()
{
    // Both are inherited across fork and exec: every command runs as we do.
    if (setpriority(PRIO_PROCESS, 0, LOWEST_PRIORITY) != 0 ||
        syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_CLASS_IDLE << IOPRIO_CLASS_SHIFT) != 0) {
        int error = errno;
        fprintf(stderr, _("Unable to lower the priority for --gentle: %s\n"), strerror(error));
        return -1;
    }
    gentle = true;
    return 0;
}

void gentle_pause()
{
    while (gentle && !interrupted_by_user && paused_ms < PAUSE_TOTAL_MS &&
           (pressure_file_high("/proc/pressure/cpu", CPU_PRESSURE_LIMIT) ||
            pressure_file_high("/proc/pressure/io", IO_PRESSURE_LIMIT))) {
        long long step = PAUSE_STEP_MS;
        long long left = run_deadline_left_ms();
        if (left == 0)
            return;
        if (left > 0 && left < step)
            step = left;
        struct timespec pause = {0, static_cast<long>(step) * 1000000};
        nanosleep(&pause, nullptr);
        paused_ms += step;
    }
}
