// Process-wide flags, instance lock, terminal input and console utilities.
#include "quelvane_util.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

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

void set_instance_name(const char *) {}
const char *instance_name() { return "error"; }
const char *work_directory() { return "/tmp"; }
const char *lock_directory() { return nullptr; }
int lock_instance(const char *, char *, size_t) { return -1; }
void unlock_instance() {}
void clear_directory(const char *) {}
int acquire_lock() { return -1; }
int release_lock() { return 0; }
int read_terminal_line(const char *, char *, int, int) { return 0; }
int quelvane_password_from_fd(int, char *) { return -1; }
int quelvane_password_from_terminal(char *) { return -1; }
int print_progress(const char *, ...) { return 0; }
int ask_yes_no(const char *, int, int) { return -1; }
int write_download_header(int, const char *) { return -1; }
int get_injected_spswdown() { return 0; }
int mark_max_domains(int *) { return -1; }
