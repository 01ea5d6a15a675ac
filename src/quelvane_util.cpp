// Process-wide flags, instance lock, terminal input and console utilities.
#include "quelvane_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
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
    // A reader that is gone is an error to see, from the first line on.
    signal(SIGPIPE, SIG_IGN);
    progress_fd = fd;
    lines_lost = 0;
    return 0;
}

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

// ---------------------------------------------------------------------------
// Scrubbing secrets by value
// ---------------------------------------------------------------------------

namespace {

bool lock_failed;
int lock_error;

// Memory that is never swapped out nor dumped, and is wiped when freed: it
// holds the secrets and the matcher that spells them out.
template <class T>
struct Locked {
    using value_type = T;
    Locked() = default;
    template <class U>
    Locked(const Locked<U> &) {}
    static size_t span(size_t count)
    {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        return (count * sizeof(T) + page - 1) / page * page;
    }
    T *allocate(size_t count)
    {
        void *memory = mmap(nullptr, span(count), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        if (mlock(memory, span(count)) != 0 && !lock_failed) {
            lock_failed = true;
            lock_error = errno;
        }
        madvise(memory, span(count), MADV_DONTDUMP);
        return static_cast<T *>(memory);
    }
    void deallocate(T *memory, size_t count)
    {
        OPENSSL_cleanse(memory, span(count));
        munlock(memory, span(count));
        munmap(memory, span(count));
    }
    bool operator==(const Locked &) const { return true; }
    bool operator!=(const Locked &) const { return false; }
};

template <class T>
using LockedVector = std::vector<T, Locked<T>>;
using Bytes = LockedVector<unsigned char>;

// Encodings shorter than this would match ordinary text.
constexpr size_t MIN_SECRET = 4;
constexpr size_t MIN_BASE64 = 8;
constexpr size_t MAX_SCRUB_FILE = 1 << 20;

struct Match {
    size_t start;
    uint32_t length;
    uint32_t pattern;
};

// The patterns' matcher: a deterministic automaton over byte classes (the
// bytes no pattern holds share class 0), each state knowing the longest
// pattern that ends there.
struct Scrubber {
    bool active = false;
    unsigned char byte_class[256] = {};  // which bytes occur, not where
    uint32_t classes = 1;
    LockedVector<uint32_t> next;       // state * classes + class
    LockedVector<uint32_t> ends;       // per state: longest pattern length ending there
    LockedVector<uint32_t> pattern_of; // per state: that pattern
    LockedVector<uint32_t> replacement;  // per pattern: offset and length in texts
    Bytes texts;                       // the "[REDACTED:name]" texts
    size_t longest = 0;
    Bytes carry;                       // a member's tail that may begin a secret
    std::vector<Match> matches;

    void clear() { *this = Scrubber(); }
};

Scrubber scrubber;

bool ascii_alnum(unsigned char byte)
{
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
}

void add_percent_forms(const Bytes &value, std::vector<Bytes> *forms)
{
    static const char upper[] = "0123456789ABCDEF", lower[] = "0123456789abcdef";
    for (const char *digits : {upper, lower}) {
        Bytes encoded;
        for (unsigned char byte : value) {
            if (ascii_alnum(byte) || byte == '-' || byte == '.' || byte == '_' || byte == '~') {
                encoded.push_back(byte);
            } else {
                encoded.push_back('%');
                encoded.push_back(static_cast<unsigned char>(digits[byte >> 4]));
                encoded.push_back(static_cast<unsigned char>(digits[byte & 15]));
            }
        }
        if (std::find(forms->begin(), forms->end(), encoded) == forms->end())
            forms->push_back(std::move(encoded));
    }
}

// At each alignment, the base64 characters that the value alone decides.
void add_base64_forms(const Bytes &value, std::vector<Bytes> *forms)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t align = 0; align < 3; ++align) {
        Bytes padded(align, 0);
        padded.insert(padded.end(), value.begin(), value.end());
        padded.resize(padded.size() + 3, 0);
        Bytes encoded;
        const size_t first_bit = 8 * align, last_bit = 8 * (align + value.size());
        for (size_t bit = 0; bit + 6 <= padded.size() * 8; bit += 6) {
            if (bit < first_bit || bit + 6 > last_bit)
                continue;
            unsigned sextet = 0;
            for (size_t b = bit; b < bit + 6; ++b)
                sextet = sextet << 1 | ((padded[b / 8] >> (7 - b % 8)) & 1);
            encoded.push_back(static_cast<unsigned char>(alphabet[sextet]));
        }
        if (encoded.size() >= MIN_BASE64 && std::find(forms->begin(), forms->end(), encoded) == forms->end())
            forms->push_back(std::move(encoded));
    }
}

bool valid_name(const unsigned char *name, size_t length)
{
    if (length == 0 || length > 64)
        return false;
    for (size_t i = 0; i < length; ++i)
        if (!ascii_alnum(name[i]) && name[i] != '_' && name[i] != '.' && name[i] != '-')
            return false;
    return true;
}

// Aho-Corasick: the trie of every pattern, then failure links folded into
// a full transition table, breadth first.
void build_matcher(const std::vector<Bytes> &patterns, const std::vector<uint32_t> &owner)
{
    Scrubber &m = scrubber;
    for (const Bytes &pattern : patterns)
        for (unsigned char byte : pattern)
            if (m.byte_class[byte] == 0)
                m.byte_class[byte] = static_cast<unsigned char>(m.classes++);
    constexpr uint32_t NONE = UINT32_MAX;
    // At most one state per pattern byte: room for all at once, no regrowth.
    size_t states = 1;
    for (const Bytes &pattern : patterns)
        states += pattern.size();
    m.next.reserve(states * m.classes);
    m.ends.reserve(states);
    m.pattern_of.reserve(states);
    m.next.assign(m.classes, NONE);
    m.ends.assign(1, 0);
    m.pattern_of.assign(1, 0);
    for (size_t p = 0; p < patterns.size(); ++p) {
        uint32_t state = 0;
        for (unsigned char byte : patterns[p]) {
            uint32_t &edge = m.next[state * m.classes + m.byte_class[byte]];
            if (edge == NONE) {
                edge = static_cast<uint32_t>(m.ends.size());
                m.ends.push_back(0);
                m.pattern_of.push_back(0);
                m.next.resize(m.next.size() + m.classes, NONE);
            }
            state = m.next[state * m.classes + m.byte_class[byte]];
        }
        if (m.ends[state] == 0) {
            m.ends[state] = static_cast<uint32_t>(patterns[p].size());
            m.pattern_of[state] = owner[p];
        }
        m.longest = std::max(m.longest, patterns[p].size());
    }
    LockedVector<uint32_t> fail(m.ends.size(), 0), queue;
    queue.reserve(m.ends.size());
    for (uint32_t c = 0; c < m.classes; ++c) {
        uint32_t &edge = m.next[c];
        if (edge == NONE)
            edge = 0;
        else
            queue.push_back(edge);
    }
    for (size_t head = 0; head < queue.size(); ++head) {
        const uint32_t state = queue[head];
        if (m.ends[state] == 0) {  // a proper suffix's pattern ends here too
            m.ends[state] = m.ends[fail[state]];
            m.pattern_of[state] = m.pattern_of[fail[state]];
        }
        for (uint32_t c = 0; c < m.classes; ++c) {
            uint32_t &edge = m.next[state * m.classes + c];
            const uint32_t fallback = m.next[fail[state] * m.classes + c];
            if (edge == NONE) {
                edge = fallback;
            } else {
                fail[edge] = fallback;
                queue.push_back(edge);
            }
        }
    }
}

}  // namespace

int scrub_load(const char *path)
{
    try {
        int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
        struct stat status;
        if (fd == -1 || fstat(fd, &status) != 0) {
            int error = errno;
            if (fd != -1)
                close(fd);
            fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path, strerror(error));
            return -1;
        }
        if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0 ||
            static_cast<size_t>(status.st_size) > MAX_SCRUB_FILE) {
            close(fd);
            fprintf(stderr, _("Refusing scrub file %s: it must be a regular file readable only by its owner\n"),
                    path);
            return -1;
        }
        Bytes text(static_cast<size_t>(status.st_size) + 1, 0);
        ssize_t got = read(fd, text.data(), text.size() - 1);
        close(fd);
        if (got < 0) {
            fprintf(stderr, _("Unable to open scrub file %s: %s\n"), path, strerror(errno));
            return -1;
        }
        text.resize(static_cast<size_t>(got));

        std::vector<Bytes> patterns;
        std::vector<uint32_t> owner;  // pattern -> its replacement
        int line_number = 0;
        for (size_t at = 0; at < text.size();) {
            size_t end = std::find(text.begin() + at, text.end(), '\n') - text.begin();
            ++line_number;
            const unsigned char *line = text.data() + at;
            const size_t length = end - at;
            at = end + 1;
            if (length == 0 || line[0] == '#')
                continue;
            const unsigned char *equals = static_cast<const unsigned char *>(memchr(line, '=', length));
            const size_t name_length = equals != nullptr ? static_cast<size_t>(equals - line) : 0;
            if (equals == nullptr || !valid_name(line, name_length) || length - name_length - 1 < MIN_SECRET) {
                fprintf(stderr, _("Scrub file %s, line %d: expected name=value, the name of letters, digits, "
                                  "'_', '.' or '-', the value at least %d bytes\n"),
                        path, line_number, static_cast<int>(MIN_SECRET));
                scrubber.clear();
                return -1;
            }
            const uint32_t replacement = static_cast<uint32_t>(scrubber.replacement.size() / 2);
            static const char head[] = "[REDACTED:";
            scrubber.replacement.push_back(static_cast<uint32_t>(scrubber.texts.size()));
            scrubber.replacement.push_back(static_cast<uint32_t>(sizeof head - 1 + name_length + 1));
            scrubber.texts.insert(scrubber.texts.end(), head, head + sizeof head - 1);
            scrubber.texts.insert(scrubber.texts.end(), line, line + name_length);
            scrubber.texts.push_back(']');
            Bytes value(equals + 1, line + length);
            std::vector<Bytes> forms = {value};
            add_percent_forms(value, &forms);
            add_base64_forms(value, &forms);
            for (Bytes &form : forms) {
                patterns.push_back(std::move(form));
                owner.push_back(replacement);
            }
        }
        if (patterns.empty()) {
            fprintf(stderr, _("Scrub file %s holds no secrets\n"), path);
            return -1;
        }
        build_matcher(patterns, owner);
        for (Bytes &pattern : patterns)
            OPENSSL_cleanse(pattern.data(), pattern.size());
        if (lock_failed) {
            fprintf(stderr, _("Unable to lock the scrub secrets in memory: %s\n"), strerror(lock_error));
            scrubber.clear();
            return -1;
        }
        scrubber.active = true;
        return 0;
    } catch (const std::bad_alloc &) {
        scrubber.clear();
        fputs(_("No Memory\n"), stderr);
        return -1;
    }
}

bool scrub_active() { return scrubber.active; }

void scrub_wipe() { scrubber.clear(); }

void scrub_reset() { scrubber.carry.clear(); }

void scrub_feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out)
{
    Scrubber &m = scrubber;
    Bytes &buffer = m.carry;
    buffer.insert(buffer.end(), data, data + length);
    // The carried tail is scanned again: a secret may start in it.
    m.matches.clear();
    uint32_t state = 0;
    const unsigned char *bytes = buffer.data();
    for (size_t i = 0; i < buffer.size(); ++i) {
        state = m.next[state * m.classes + m.byte_class[bytes[i]]];
        if (m.ends[state] != 0)
            m.matches.push_back({i + 1 - m.ends[state], m.ends[state], m.pattern_of[state]});
    }
    // Leftmost first, the longest at each start, none overlapping.
    std::sort(m.matches.begin(), m.matches.end(), [](const Match &a, const Match &b) {
        return a.start != b.start ? a.start < b.start : a.length > b.length;
    });
    // Bytes from here on may begin a secret whose end has not come yet.
    const size_t safe = final ? buffer.size() : buffer.size() - std::min(buffer.size(), m.longest - 1);
    size_t at = 0;
    for (const Match &match : m.matches) {
        if (match.start < at)
            continue;
        if (match.start >= safe)
            break;
        out->insert(out->end(), bytes + at, bytes + match.start);
        const unsigned char *text = m.texts.data() + m.replacement[2 * match.pattern];
        out->insert(out->end(), text, text + m.replacement[2 * match.pattern + 1]);
        at = match.start + match.length;
    }
    const size_t kept = std::max(at, safe);
    out->insert(out->end(), bytes + at, bytes + kept);
    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(kept));
}

std::string scrub_text(const std::string &text)
{
    if (!scrubber.active)
        return text;
    // The member's carried tail is set aside: names are scrubbed between pieces of data.
    Bytes saved;
    saved.swap(scrubber.carry);
    std::vector<unsigned char> out;
    scrub_feed(reinterpret_cast<const unsigned char *>(text.data()), text.size(), true, &out);
    scrubber.carry.swap(saved);
    return std::string(out.begin(), out.end());
}
