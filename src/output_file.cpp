#include "output_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "console.h"
#include "descriptor.h"

namespace {

std::string directory_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// The path with its directory resolved: two names of one file compare equal
// even before the file exists.
std::string resolved(const std::string &path)
{
    char directory[PATH_MAX];
    if (realpath(directory_of(path).c_str(), directory) == nullptr)
        return path;
    return std::string(directory) + "/" + path.substr(path.rfind('/') + 1);
}

bool same_file(const struct stat &a, const struct stat &b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Whether path, links followed, is the file open on fd.
bool names_descriptor(const std::string &path, int fd)
{
    struct stat status, other;
    return stat(path.c_str(), &status) == 0 && fstat(fd, &other) == 0 && same_file(status, other);
}

// A link to something that is not a regular file (as /dev/stdin is) is
// neither replaced nor followed: it may be the system's own.
bool links_to_special(const std::string &path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && stat(path.c_str(), &status) == 0 &&
           !S_ISREG(status.st_mode);
}

}  // namespace

int OutputFile::open(const std::string &path)
{
    discard();
    path_ = path;
    struct stat status;
    const bool exists = lstat(path.c_str(), &status) == 0;
    if (exists && S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return -1;
    }
    if (exists && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        return ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOCTTY);
    if (links_to_special(path)) {
        errno = EPERM;
        return -1;
    }
    const size_t slash = path.rfind('/');
    std::string name = directory_of(path) + "/." + path.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    std::vector<char> pattern(name.begin(), name.end());
    pattern.push_back('\0');
    const int fd = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd == -1)
        return -1;
    temporary_ = pattern.data();
    // As a file created with open(2) would be.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0644 & ~mask);
    return fd;
}

bool OutputFile::commit(bool synced)
{
    int error = 0;
    if (!synced)
        error = errno;
    else if (!in_place() && rename(temporary_.c_str(), path_.c_str()) != 0)
        error = errno;
    if (error == 0) {
        temporary_.clear();
        // The name on the device too; a file system that cannot sync a
        // directory (EINVAL) still has it.
        Descriptor directory(::open(directory_of(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (directory.get() == -1 || (fsync(directory.get()) != 0 && errno != EINVAL && errno != ENOSYS))
            error = errno;
    }
    if (error == 0)
        return true;
    fprintf(stderr, _("Error flushing %s to its device: %s\n"), path_.c_str(), strerror(error));
    return false;
}

void OutputFile::discard()
{
    if (!temporary_.empty())
        unlink(temporary_.c_str());
    temporary_.clear();
}

Result write_whole_file(const std::string &path, const std::string &text)
{
    if (names_descriptor(path, STDERR_FILENO)) {
        fputs(text.c_str(), stderr);
        return Result::ok;
    }
    OutputFile file;
    Descriptor fd(file.open(path));
    bool written = fd.get() != -1;
    for (size_t done = 0; written && done < text.size();) {
        const ssize_t count = write(fd.get(), text.data() + done, text.size() - done);
        written = count > 0 || (count == -1 && errno == EINTR);
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    if (!written) {
        fprintf(stderr, _("Unable to write the checksum to %s: %s\n"), path.c_str(), strerror(errno));
        return Result::output_failure;
    }
    return file.commit(fsync(fd.get()) == 0) ? Result::ok : Result::output_failure;
}

const char *checksum_path_fault(const std::string &path, const std::string &output, bool download)
{
    // A link there is replaced, not followed, unless it leads to our own
    // standard output (as /dev/stdout does) or standard error (taken).
    if (names_descriptor(path, STDOUT_FILENO))
        return _("it is standard output");
    if (names_descriptor(path, STDERR_FILENO))
        return nullptr;
    if (links_to_special(path))
        return _("it is not a regular file");
    struct stat status, other;
    const bool exists = lstat(path.c_str(), &status) == 0;
    const bool link = exists && S_ISLNK(status.st_mode);
    if (exists && !link && !S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? _("it is a directory") : _("it is not a regular file");
    if (!download && ((exists && !link && lstat(output.c_str(), &other) == 0 && same_file(status, other)) ||
                      resolved(path) == resolved(output)))
        return _("it is the archive's own file");
    if (access(directory_of(path).c_str(), W_OK | X_OK) != 0)
        return strerror(errno);
    return nullptr;
}
