#include "text_buffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <vector>

bool TextBuffer::add(const void *data, size_t length)
{
    // All or nothing: a runaway command's text is cut at the cap, never
    // half-appended.
    full_ = text_.size() + length > CAP;
    if (full_ || length == 0)
        return !full_ && length > 0;
    try {
        text_.append(static_cast<const char *>(data), length);
    } catch (const std::bad_alloc &) {
        return false;
    }
    return true;
}

bool TextBuffer::add_capped(const void *data, size_t length)
{
    const size_t room = CAP - text_.size();
    const bool fits = add(data, length < room ? length : room);
    full_ = length >= room;
    return fits && !full_;
}

int TextBuffer::printf(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    char first[256];
    int length = vsnprintf(first, sizeof first, format, arguments);
    va_end(arguments);
    bool added = length == 0;
    if (length > 0 && static_cast<size_t>(length) < sizeof first) {
        added = add(first, static_cast<size_t>(length));
    } else if (length > 0) {
        // Too long for the first buffer: format again at the exact size.
        try {
            std::vector<char> text(static_cast<size_t>(length) + 1);
            added = vsnprintf(text.data(), text.size(), format, again) == length &&
                    add(text.data(), static_cast<size_t>(length));
        } catch (const std::bad_alloc &) {
            added = false;
        }
    }
    va_end(again);
    return added ? length : -1;
}

int TextBuffer::read_fd(int fd)
{
    char buffer[PIECE];
    errno = 0;
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count == 0)
            return 0;
        if (count < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        if (!add(buffer, static_cast<size_t>(count)))
            return -1;
        // Take what is ready now, never wait for end of file: only a full
        // read suggests there is more.
        if (count < static_cast<ssize_t>(sizeof buffer))
            return 0;
    }
}

void TextBuffer::clear()
{
    std::string().swap(text_);
    full_ = false;
}
