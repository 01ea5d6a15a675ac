#include "descriptor.h"

#include <fcntl.h>
#include <unistd.h>

void Descriptor::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

bool Pipe::open()
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    return true;
}
