#include "instance_lock.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

// The instance is the program name's last component, at most 31 characters.
constexpr size_t INSTANCE_MAX = 31;

// The lock's messages are untranslated and cut at 127 characters.
__attribute__((format(printf, 1, 2))) void say(const char *format, ...)
{
    char message[128];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%s\n", message);
}

// Every non-hidden entry of the open directory goes; hidden files (the lock
// itself) and subdirectories stay. Relative to the descriptor, so nothing
// outside the directory we checked is touched.
void clear_directory(int dir_fd)
{
    const int scan_fd = dup(dir_fd);
    DIR *dir = scan_fd != -1 ? fdopendir(scan_fd) : nullptr;
    if (dir == nullptr) {
        if (scan_fd != -1)
            close(scan_fd);
        return;
    }
    while (const struct dirent *entry = readdir(dir))
        if (entry->d_name[0] != '.')
            unlinkat(dir_fd, entry->d_name, 0);
    closedir(dir);
}

// The directory itself, never a link to one: the path lies in a directory
// that everyone may write to. -1 with errno ENOENT when it has just gone.
int open_real_directory(const std::string &directory)
{
    struct stat status;
    if (lstat(directory.c_str(), &status) != 0)
        return -1;
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Whether the open file is the one the path names now.
bool still_named(int fd, int dir_fd, const char *name)
{
    struct stat opened, named;
    return fstat(fd, &opened) == 0 && fstatat(dir_fd, name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Tries to lock before giving up: each retry means another run released the
// lock between our opening its files and locking them.
constexpr int LOCK_ATTEMPTS = 1000;

// The umask the lock's files were made under comes back whichever way
// acquire() leaves.
struct SharedUmask {
    mode_t saved = umask(0);  // the directory and file are shared by every user
    ~SharedUmask() { umask(saved); }
};

}  // namespace

std::string work_directory()
{
    const char *home = getenv("QUELVANE_HOME");
    if (home == nullptr)
        return "/tmp";
    std::string directory = std::string(home) + "/quelvane_tmp";
    (void)mkdir(directory.c_str(), 0755);  // an existing directory is the usual case
    return directory;
}

bool InstanceLock::acquire(const std::string &program_name)
{
    std::string name = program_name.substr(program_name.rfind('/') + 1).substr(0, INSTANCE_MAX);
    const std::string directory = work_directory() + "/" + name + ".quelvane";
    const std::string lock_file = directory + "/.lock";
    for (int attempt = 0; attempt < LOCK_ATTEMPTS; ++attempt) {
        Descriptor dir_fd, fd;
        {
            SharedUmask shared;
            if (mkdir(directory.c_str(), 0777) == -1 && errno != EEXIST) {
                say("Failed to create directory %s, errno=%d", directory.c_str(), errno);
                return false;
            }
            dir_fd.reset(open_real_directory(directory));
            if (dir_fd.get() == -1 && errno == ENOENT)
                continue;  // its holder removed it just now
            if (dir_fd.get() == -1) {
                say("Refusing lock directory %s: not a real directory.", directory.c_str());
                return false;
            }
            fd.reset(openat(dir_fd.get(), ".lock", O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
            if (fd.get() == -1 && errno == ENOENT)
                continue;
            if (fd.get() == -1) {
                say("Failed to open %s, errno=%d.", lock_file.c_str(), errno);
                return false;
            }
        }
        if (lockf(fd.get(), F_TLOCK, 0) != 0) {
            if (errno == EAGAIN || errno == EACCES)
                say("An instance of %s is already running.", name.c_str());
            else
                say("Failed to lock %s, errno=%d.", lock_file.c_str(), errno);
            return false;
        }
        // The run before us may have unlinked what we locked, or removed
        // its directory, after we opened them: a lock nobody else can see.
        if (!still_named(fd.get(), dir_fd.get(), ".lock") || !still_named(dir_fd.get(), AT_FDCWD, directory.c_str()))
            continue;
        clear_directory(dir_fd.get());
        directory_ = directory;
        directory_fd_ = std::move(dir_fd);
        lock_fd_ = std::move(fd);
        return true;
    }
    say("Failed to lock %s: it keeps changing.", lock_file.c_str());
    return false;
}

void InstanceLock::release()
{
    if (directory_fd_.get() == -1)
        return;
    clear_directory(directory_fd_.get());
    unlinkat(directory_fd_.get(), ".lock", 0);
    rmdir(directory_.c_str());  // fails harmlessly if the path no longer is that directory
    directory_fd_.reset();
    lock_fd_.reset();
}
