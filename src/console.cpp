#include "console.h"

#include <libgen.h>
#include <termios.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <vector>

#include <openssl/crypto.h>

#include "signals.h"

std::string program_name_of(const char *argv0)
{
    std::vector<char> argument(argv0, argv0 + strlen(argv0) + 1);  // basename may write to it
    std::string name = __xpg_basename(argument.data());
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".bin") == 0)
        name.erase(name.size() - 4);
    return name;
}

void Console::progress(const char *format, ...) const
{
    if (!verbose)
        return;
    FILE *stream = download ? stderr : stdout;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stream, format, arguments);
    va_end(arguments);
    fflush(stream);
}

void Console::status(const char *text) const
{
    if (!quiet)
        fputs(text, stdout);
}

int Console::ask_yes_no(const char *prompt, bool yes, bool no) const
{
    if (yes || no) {
        if (!quiet)
            printf(yes ? _("%syes\n") : _("%sno\n"), prompt);
        return yes ? 1 : 0;
    }
    for (;;) {
        char answer[20];
        read_terminal_line(prompt, answer, sizeof answer, false);
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

int read_terminal_line(const char *prompt, char *buffer, int size, bool no_echo)
{
    const bool terminal = isatty(STDIN_FILENO) != 0;
    struct termios saved;
    bool echo_off = false;
    if (no_echo && terminal && tcgetattr(STDIN_FILENO, &saved) == 0) {
        struct termios silent = saved;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        echo_off = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    fputs(prompt, stdout);
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
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    return count;
}

Result password_from_fd(int fd, char *buffer)
{
    memset(buffer, 0, PASSWORD_BUFFER);
    const ssize_t count = read(fd, buffer, PASSWORD_BUFFER);
    close(fd);
    if (count < 1) {
        fprintf(stderr, _("Empty encryption password on fd %d.\n"), fd);
        return Result::refused;
    }
    if (count > PASSWORD_BUFFER - 1) {
        OPENSSL_cleanse(buffer, PASSWORD_BUFFER);
        fprintf(stderr, _("Maximum encryption password length is %d characters.\n"), PASSWORD_BUFFER - 1);
        return Result::refused;
    }
    // The password is exactly the bytes read: a trailing newline is kept on
    // purpose, so callers that write "secret\n" encrypt with "secret\n".
    buffer[count] = '\0';
    return Result::ok;
}

Result password_from_terminal(char *buffer)
{
    if (interrupted_by_user)
        return Result::refused;
    char confirm[PASSWORD_BUFFER];
    const int length = read_terminal_line(_("Enter encryption password: "), buffer, PASSWORD_BUFFER, true);
    Result result = Result::refused;
    if (interrupted_by_user) {
        // Nothing to say: the user asked to stop.
    } else if (length == 0) {
        fputs(_("Password may not be empty.\n"), stderr);
    } else if (length >= PASSWORD_BUFFER) {
        fprintf(stderr, _("Maximum password length is %d characters.\n"), PASSWORD_BUFFER - 1);
    } else {
        const int confirmed = read_terminal_line(_("Confirm encryption password: "), confirm, PASSWORD_BUFFER, true);
        if (confirmed == length && strcmp(buffer, confirm) == 0)
            result = Result::ok;
        else
            fputs(_("Passwords do not match\n"), stderr);
        OPENSSL_cleanse(confirm, sizeof confirm);
    }
    if (result != Result::ok)
        OPENSSL_cleanse(buffer, PASSWORD_BUFFER);
    return result;
}

namespace {

// ASCII letters and digits, whatever the locale says.
bool alnum(unsigned char c)
{
    return (c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'z');
}

bool token_char(unsigned char c)
{
    return alnum(c) || (c != 0 && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

// A header parameter's value: a token as it stands, anything else as a
// quoted string (the name has no control bytes: they are refused).
std::string parameter(const std::string &value)
{
    bool token = !value.empty();
    for (const unsigned char c : value)
        token = token && c < 0x80 && token_char(c);
    if (token)
        return value;
    std::string quoted = "\"";
    for (const char c : value)
        quoted += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return quoted + "\"";
}

// RFC 5987's extended value for a name with bytes past ASCII.
std::string extended(const std::string &value)
{
    std::string encoded = "UTF-8''";
    for (const unsigned char c : value) {
        char escape[4];
        snprintf(escape, sizeof escape, "%%%02X", c);
        encoded += alnum(c) || (c != 0 && c < 0x80 && strchr("!#$&+-.^_`|~", c) != nullptr) ? std::string(1, char(c)) : escape;
    }
    return encoded;
}

}  // namespace

std::string download_header(const std::string &name)
{
    bool past_ascii = false;
    for (const unsigned char c : name)
        past_ascii = past_ascii || c >= 0x80;
    const std::string value = parameter(name);
    return "Cache-Control: public\nPragma: public\nContent-Disposition: attachment; filename=" + value +
           (past_ascii ? "; filename*=" + extended(name) : "") + "\nContent-Type: application/octet-stream; name=" +
           value + "\n\n";
}

int injected_spswdown()
{
    const char *value = getenv("QUELVANE_INJECT_SPSWDOWN");
    if (value == nullptr)
        return 0;
    const int injected = atoi(value);
    fprintf(stderr, "Injected SPSWDOWN: %d\n", injected);
    return injected;
}
