#include "progress.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>

namespace {

// A line is written in one call no longer than PIPE_BUF, so a pipe takes it
// whole or not at all.
constexpr size_t LINE_MAX_BYTES = 4096;

}  // namespace

bool ProgressChannel::open(int fd)
{
    const int flags = fd > STDERR_FILENO ? fcntl(fd, F_GETFL) : -1;
    if (flags == -1)
        return false;
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    // A reader that is gone is an error to see, from the first line on.
    signal(SIGPIPE, SIG_IGN);
    fd_ = fd;
    lost_ = 0;
    return true;
}

// 1 written, 0 no room now, -1 the reader is gone.
int ProgressChannel::send(const char *line, unsigned long length)
{
    ssize_t written;
    do {
        written = write(fd_, line, length);
    } while (written == -1 && errno == EINTR);
    if (written == static_cast<ssize_t>(length))
        return 1;
    return written == -1 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
}

void ProgressChannel::event(const char *format, ...)
{
    if (fd_ < 0)
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
    if (lost_ > 0) {
        char lost[48];
        const int lost_length = snprintf(lost, sizeof lost, "LOST %llu\n", lost_);
        if ((sent = send(lost, static_cast<unsigned long>(lost_length))) == 1)
            lost_ = 0;
    }
    if (sent == 1)
        sent = send(line, static_cast<unsigned long>(length));
    if (sent == 0)
        ++lost_;
    else if (sent == -1)
        fd_ = -1;  // nobody reads any more; the run goes on
}
