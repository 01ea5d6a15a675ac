// Capped chain of 1024-byte blocks and formatted capture.
#include "quelvane_bufchain.h"

int bufchain_error;

Bufchain::~Bufchain() { quelvane_bufchain_free(this); }

int quelvane_bufchain_add(Bufchain *, const void *, int) { return -1; }
int quelvane_bufchain_read_fd(Bufchain *, int) { return -1; }
int quelvane_bufchain_length(const Bufchain *, unsigned *) { return -1; }
int quelvane_bufchain_write(Bufchain *, ZipMember *, int, void *, int) { return -1; }
int quelvane_bufchain_free(Bufchain *) { return -1; }
int quelvane_vbprintf(Bufchain *, const char *, ...) { return -1; }
