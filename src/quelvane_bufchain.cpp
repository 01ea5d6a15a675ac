// Capped chain of 1024-byte blocks and formatted capture.
#include "quelvane_bufchain.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>
#include <zlib.h>

int bufchain_error;

namespace {

constexpr size_t FIRST_FORMAT_SIZE = 256;

size_t used_bytes(const BufBlock *block)
{
    return static_cast<size_t>(block->end - block->data);
}

BufBlock *new_block()
{
    BufBlock *block = new (std::nothrow) BufBlock();  // zero-filled
    if (block != nullptr)
        block->end = block->data;
    return block;
}

}  // namespace

Bufchain::~Bufchain() { quelvane_bufchain_free(this); }

int quelvane_bufchain_length(const Bufchain *chain, unsigned *length)
{
    if (chain == nullptr || length == nullptr)
        return -1;
    unsigned total = 0;
    for (const BufBlock *block = chain->head; block != nullptr; block = block->next)
        total += static_cast<unsigned>(used_bytes(block));
    *length = total;
    return 0;
}

int quelvane_bufchain_add(Bufchain *chain, const void *data, int length)
{
    if (chain == nullptr || data == nullptr || length < 1)
        return -1;
    unsigned current;
    if (quelvane_bufchain_length(chain, &current) != 0)
        return -1;
    // All or nothing: a runaway command's text is cut at the cap, never
    // half-appended.
    if (static_cast<unsigned long>(current) + static_cast<unsigned>(length) >
        BUFCHAIN_MAX_LENGTH) {
        bufchain_error = ENOSPC;
        return -1;
    }
    if (chain->head == nullptr) {
        chain->head = chain->tail = new_block();
        if (chain->head == nullptr)
            return -1;
    }
    const char *source = static_cast<const char *>(data);
    size_t remaining = static_cast<size_t>(length);
    while (remaining > 0) {
        BufBlock *tail = chain->tail;
        size_t room = BUFCHAIN_BLOCK_SIZE - used_bytes(tail);
        if (room == 0) {
            BufBlock *block = new_block();
            if (block == nullptr)
                return -1;
            block->prev = tail;
            tail->next = block;
            chain->tail = block;
            continue;
        }
        size_t count = remaining < room ? remaining : room;
        memcpy(tail->end, source, count);
        tail->end += count;
        source += count;
        remaining -= count;
    }
    return 0;
}

int quelvane_bufchain_read_fd(Bufchain *chain, int fd)
{
    if (chain == nullptr || fd < 0)
        return -1;
    char buffer[BUFCHAIN_BLOCK_SIZE];
    errno = 0;
    for (;;) {
        ssize_t count = read(fd, buffer, sizeof buffer);
        if (count == 0)
            return 0;
        if (count < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        if (quelvane_bufchain_add(chain, buffer, static_cast<int>(count)) != 0)
            return -1;
        // Take what is ready now, never wait for end of file: only a full
        // read suggests there is more.
        if (count < static_cast<ssize_t>(sizeof buffer))
            return 0;
    }
}

int quelvane_bufchain_write(Bufchain *chain, ZipMember *member, int out, void *context, int finish)
{
    if (chain == nullptr || context == nullptr || out < 0)
        return -1;
    uint64_t *total_written = static_cast<uint64_t *>(context);
    for (BufBlock *block = chain->head; block != nullptr; block = block->next) {
        bool last = block == chain->tail;
        int result = zip_deflate_chunk(member, out, block->data,
                                       static_cast<unsigned>(used_bytes(block)),
                                       last ? finish : Z_NO_FLUSH, total_written);
        if (result != Z_OK && result != Z_STREAM_END)
            return -1;
    }
    return 0;
}

int quelvane_bufchain_free(Bufchain *chain)
{
    if (chain == nullptr)
        return -1;
    BufBlock *block = chain->head;
    while (block != nullptr) {
        BufBlock *next = block->next;
        delete block;
        block = next;
    }
    chain->head = chain->tail = nullptr;
    return 0;
}

int quelvane_vbprintf(Bufchain *chain, const char *format, ...)
{
    if (chain == nullptr || format == nullptr)
        return -1;
    std::unique_ptr<char[]> text(new (std::nothrow) char[FIRST_FORMAT_SIZE]());
    if (!text)
        return -1;

    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    int length = vsnprintf(text.get(), FIRST_FORMAT_SIZE, format, arguments);
    va_end(arguments);
    if (length >= static_cast<int>(FIRST_FORMAT_SIZE)) {
        // Too long for the first buffer: format again at the exact size.
        size_t size = static_cast<size_t>(length) + 1;
        text.reset(new (std::nothrow) char[size]());
        if (!text || vsnprintf(text.get(), size, format, again) >= static_cast<int>(size))
            length = -1;
    }
    va_end(again);
    if (length < 0)
        return -1;
    // Empty text appends nothing and is not a failure.
    if (length == 0)
        return 0;
    return quelvane_bufchain_add(chain, text.get(), length) == 0 ? length : -1;
}
