#include "progress.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

// A line is written in one call no longer than PIPE_BUF, so a pipe takes it
// whole or not at all; that call may carry a "LOST n" line first.
constexpr size_t LOST_MAX_BYTES = 32;
constexpr size_t LINE_MAX_BYTES = PIPE_BUF - LOST_MAX_BYTES;

}  // namespace

bool ProgressChannel::open(int fd)
{
    struct stat status;
    if (fd <= STDERR_FILENO || fstat(fd, &status) != 0)
        return false;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    // A reader that is gone is an error to see, from the first line on.
    signal(SIGPIPE, SIG_IGN);
    fd_ = fd;
    socket_ = S_ISSOCK(status.st_mode);
    lost_ = 0;
    return true;
}

// 1 written, 0 no room now, -1 the reader is gone. Never blocks: a socket
// is asked not to, anything else is written only when it has room for a
// line (a pipe with a free page takes PIPE_BUF bytes at once).
int ProgressChannel::send(const char *line, size_t length)
{
    ssize_t written;
    do {
        if (socket_) {
            written = ::send(fd_, line, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        } else {
            struct pollfd slot = {fd_, POLLOUT, 0};
            const int ready = poll(&slot, 1, 0);
            if (ready == 0)
                return 0;
            written = ready > 0 ? write(fd_, line, length) : -1;
        }
    } while (written == -1 && errno == EINTR);
    if (written == static_cast<ssize_t>(length))
        return 1;
    return written == -1 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
}

// A count of lost lines goes out in the same write as the next line.
void ProgressChannel::send_line(const char *line, size_t length)
{
    std::string both = lost_ > 0 ? "LOST " + std::to_string(lost_) + "\n" : "";
    both.append(line, length);
    const int sent = send(both.data(), both.size());
    if (sent == 0)
        ++lost_;
    else if (sent == -1)
        fd_ = -1;  // nobody reads any more; the run goes on
    else
        lost_ = 0;
}

void ProgressChannel::event(const char *format, ...)
{
    if (fd_ < 0)
        return;
    char line[LINE_MAX_BYTES];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    // Our own fixed lines are short; one that is not is not sent cut.
    if (length > 0 && static_cast<size_t>(length) < sizeof line)
        send_line(line, static_cast<size_t>(length));
}

void ProgressChannel::named(const std::string &head, const std::string &name, const std::string &tail)
{
    if (fd_ < 0)
        return;
    std::string line = head;
    const size_t room = head.size() + tail.size() < LINE_MAX_BYTES ? LINE_MAX_BYTES - head.size() - tail.size() : 0;
    for (const unsigned char c : name) {
        char escaped[5] = {static_cast<char>(c), 0};
        if (c < 0x20 || c == 0x7f || c == '\\')
            snprintf(escaped, sizeof escaped, "\\x%02x", c);
        if (line.size() - head.size() + std::char_traits<char>::length(escaped) > room)
            break;
        line += escaped;
    }
    line += tail;
    if (line.size() <= LINE_MAX_BYTES)
        send_line(line.data(), line.size());
}
