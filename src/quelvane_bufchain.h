// Text held in memory, in 1024-byte blocks capped at 262144 bytes, until it
// is deflated into an archive member.
#ifndef QUELVANE_BUFCHAIN_H
#define QUELVANE_BUFCHAIN_H

#include "quelvane_zip.h"

enum {
    BUFCHAIN_BLOCK_SIZE = 1024,
    BUFCHAIN_MAX_LENGTH = 0x40000,
};

struct BufBlock {
    BufBlock *next;
    BufBlock *prev;
    char *end;  // first free byte of data
    char data[BUFCHAIN_BLOCK_SIZE];
};

struct Bufchain {
    BufBlock *head = nullptr;
    BufBlock *tail = nullptr;

    Bufchain() = default;
    Bufchain(const Bufchain &) = delete;
    Bufchain &operator=(const Bufchain &) = delete;
    ~Bufchain();
};

// ENOSPC once an append would pass the cap.
extern int bufchain_error;

int quelvane_bufchain_add(Bufchain *chain, const void *data, int length);
int quelvane_bufchain_read_fd(Bufchain *chain, int fd);
int quelvane_bufchain_length(const Bufchain *chain, unsigned *length);
// context is the archive's running byte count (uint64_t *).
int quelvane_bufchain_write(Bufchain *chain, ZipMember *member, int out, void *context, int finish);
int quelvane_bufchain_free(Bufchain *chain);
int quelvane_vbprintf(Bufchain *chain, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

#endif
