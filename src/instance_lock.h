// Only one run of a program name at a time: a lockf lock on a file in a
// per-name directory under the work directory, emptied when the lock is
// taken and removed when it is released.
#ifndef QUELVANE_INSTANCE_LOCK_H
#define QUELVANE_INSTANCE_LOCK_H

#include <string>

#include "descriptor.h"

// $QUELVANE_HOME/quelvane_tmp (made if missing), or /tmp.
std::string work_directory();

class InstanceLock {
public:
    InstanceLock() = default;
    InstanceLock(const InstanceLock &) = delete;
    InstanceLock &operator=(const InstanceLock &) = delete;
    ~InstanceLock() { release(); }
    // Takes the lock of the program name; false after saying why on
    // standard error.
    bool acquire(const std::string &program_name);
    void release();

private:
    std::string directory_;
    Descriptor directory_fd_;  // opened without following links
    Descriptor lock_fd_;
};

#endif
