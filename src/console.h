// What the operator sees and types: the program's name, status and
// progress lines, the yes/no prompt, passwords, and the download header.
#ifndef QUELVANE_CONSOLE_H
#define QUELVANE_CONSOLE_H

#include <libintl.h>

#include <clocale>
#include <string>

#include "result.h"

// Every user-facing text goes through the message catalogue.
#define _(text) dcgettext(nullptr, text, LC_MESSAGES)

// The name the program was started by: argv[0]'s last component, without
// a ".bin" ending.
std::string program_name_of(const char *argv0);

class Console {
public:
    std::string program = "quelvane";
    bool verbose = false;   // progress lines (-v)
    bool quiet = false;     // no status lines (-q)
    bool download = false;  // standard output carries the archive (-o -)

    // A progress line, with -v only: on standard output, or on standard
    // error when standard output carries the archive.
    void progress(const char *format, ...) const __attribute__((format(printf, 2, 3)));
    // A status line on standard output, unless -q.
    void status(const char *text) const;
    // 1 yes, 0 no, -1 end of input, -2 interrupted; yes and no answer at
    // once (-y, -n).
    int ask_yes_no(const char *prompt, bool yes, bool no) const;
};

// A line typed at standard input, echoed or not: how many characters were
// typed, which may exceed size - 1; the buffer keeps at most size - 1.
int read_terminal_line(const char *prompt, char *buffer, int size, bool no_echo);

// The encryption password into a buffer of PASSWORD_BUFFER bytes, from a
// descriptor (-I, then closed) or typed twice at the terminal; refused
// after a message.
constexpr int PASSWORD_BUFFER = 64;
Result password_from_fd(int fd, char *buffer);
Result password_from_terminal(char *buffer);

// The HTTP header that precedes the archive in browser download usage.
std::string download_header(const std::string &name);

// The SP-software-down value a test injects (QUELVANE_INJECT_SPSWDOWN), said
// on standard error; 0 without it.
int injected_spswdown();

#endif
