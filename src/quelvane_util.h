// Process-wide flags, the instance lock and work directory, terminal input,
// console progress, the download header and the test hooks.
#ifndef QUELVANE_UTIL_H
#define QUELVANE_UTIL_H

#include <csignal>
#include <cstddef>
#include <libintl.h>
#include <clocale>
#include <string>
#include <vector>

// Every user-facing text goes through the message catalogue.
#define _(text) dcgettext(nullptr, text, LC_MESSAGES)

// Run flags, 0 until the option parser sets them.
extern int answer_yes;
extern int answer_no;
extern int bui_header;
extern int bui_download_mode;
extern int log_only_mode;
extern int verbose;
extern int quiet;
extern int encrypt_output;
extern int no_compression;
extern char *program_name;

// Set only by the signal actions; read by the main flow at every test.
extern volatile sig_atomic_t interrupted_by_user;
extern volatile sig_atomic_t child_exited;
extern volatile sig_atomic_t command_timed_out;

// Instance lock and work directory.
void set_instance_name(const char *name);
const char *instance_name();
const char *work_directory();
const char *lock_directory();
int lock_instance(const char *name, char *error, size_t error_size);
void unlock_instance();
void clear_directory(const char *directory);
int acquire_lock();
int release_lock();

// Terminal input: returns how many characters were typed, which may exceed
// size - 1; the buffer keeps at most size - 1 of them.
int read_terminal_line(const char *prompt, char *buffer, int size, int no_echo);

// Encryption password into a 64-byte buffer; messages printed here.
// 0 on success, -1 when refused (the run then ends with status 1).
int quelvane_password_from_fd(int fd, char *buffer);
int quelvane_password_from_terminal(char *buffer);

// Console utilities.
int print_progress(const char *format, ...) __attribute__((format(printf, 1, 2)));
int ask_yes_no(const char *prompt, int yes, int no);
int write_download_header(int fd, const char *name);
int get_injected_spswdown();

// The progress channel (--progress-fd): lines for a program, never waited
// for. A line that does not fit the reader's pipe is counted, and the count
// goes out as "LOST n" before the next line that fits.
constexpr int PROGRESS_PROTOCOL = 1;
int progress_channel_open(int fd);  // 0, or -1 when fd is not open
void progress_event(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The run's deadline (--deadline), on the monotonic clock.
void run_deadline_set(unsigned seconds);
bool run_deadline_passed();
// Milliseconds left, or -1 without a deadline.
long long run_deadline_left_ms();

// Gentle mode (--gentle): lowest CPU priority and idle I/O for the tool and
// every command it starts, and pauses between entries while the machine is
// under pressure.
int gentle_start();  // 0, or -1 after a message
void gentle_pause();
// Whether a pressure file's "some avg10=" figure reaches the threshold.
bool pressure_high(const char *text, double threshold);
int mark_max_domains(int *max_domains);

// Secrets scrubbed by value (--scrub). The file holds name=value lines; every
// occurrence of a value, as it stands, percent-encoded or in base64 at any of
// the three alignments, becomes "[REDACTED:name]". The secrets and the
// matcher built from them live in locked memory and are wiped at the end.
int scrub_load(const char *path);  // 0, or -1 after a message
bool scrub_active();
void scrub_wipe();
// Per member: reset, then feed each piece of data; the bytes that are ready
// (the scrubbed data, less a tail that may still begin a secret) are
// appended to out. final: the member ends, the tail goes out too.
void scrub_reset();
void scrub_feed(const unsigned char *data, size_t length, bool final, std::vector<unsigned char> *out);
// A whole text scrubbed (a member name, a progress line's member); the text
// itself while nothing is scrubbed. Not within a member's data.
std::string scrub_text(const std::string &text);

#endif
