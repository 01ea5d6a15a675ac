#include "file_collector.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "descriptor.h"

namespace {

// Newest first; matches that cannot be looked at go last, names breaking ties.
void sort_newest_first(std::vector<std::string> *paths)
{
    std::vector<std::pair<time_t, std::string>> matches;
    for (std::string &path : *paths) {
        struct stat status;
        matches.emplace_back(stat(path.c_str(), &status) == 0 ? status.st_mtime : 0, std::move(path));
    }
    std::stable_sort(matches.begin(), matches.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    for (size_t i = 0; i < matches.size(); ++i)
        (*paths)[i] = std::move(matches[i].second);
}

// The file's member as stat describes it; null, or why it is none (absent,
// forbidden, not a regular file).
const char *describe_file(const std::string &path, ZipMember *member)
{
    struct stat status;
    errno = 0;
    if (stat(path.c_str(), &status) != 0) {
        const int error = errno != 0 ? errno : ENOENT;
        return error == ENOENT ? _("No such file") : error == EACCES ? _("Permission denied") : _("Couldn't stat file");
    }
    if (!S_ISREG(status.st_mode))
        return _("Not a file");
    // The size declared is the one stat saw, and no more is read: /proc
    // files declare 0 and are read to their end.
    member->kind = MEMBER_FILE;
    member_from_stat(member, status.st_size, status.st_mtime);
    return nullptr;
}

// Our line about the file goes into its ".err" member; false (after saying
// so) when it cannot be kept.
bool note_line(Context &context, const char *format, const char *path, const char *detail, const char *fallback)
{
    if (context.err_text.printf(format, context.scrub.text(path).c_str(), detail) >= 0)
        return true;
    fprintf(stderr, fallback, path);
    return false;
}

// The open file's data into its member, or why it stopped. A read error is
// the file's fault, not the archive's: the member is ended where the data
// stopped, so that the archive stays readable (it keeps its stat size,
// which readers flag).
Result copy_file(Context &context, const std::string &path, int fd, ZipMember &file, ZipMember &err,
                 bool *note_failed)
{
    const Console &console = context.console;
    ZipData &data = context.zip.stream();
    int read_error = 0;
    const bool begun = context.zip.begin_member(file) == 0;
    if (begun && data.from_file(file, fd, &read_error) == 0 && context.zip.finish_member(file) == 0) {
        console.progress(_(" - Status: ok\n"));
        if (file.cut && context.add_cut_note(file) < 0) {
            fprintf(stderr, _("quelvane_vbprintf: unable to write stderr buffer: '%s'\n"), path.c_str());
            *note_failed = true;
        }
        return Result::ok;
    }
    console.progress(_(" - Status: FAIL\n"));
    if (read_error == 0)
        return Result::output_failure;
    file.status = err.status = "error";
    file.error = err.error = strerror(read_error);
    static const unsigned char nothing = 0;
    const int ended = data.chunk(file, &nothing, 0, Z_FINISH);
    const bool closed = (ended == Z_OK || ended == Z_STREAM_END) && context.zip.finish_member(file) == 0;
    console.progress(_(" - Status: FAIL reading file, errno=%d\n"), read_error);
    *note_failed = !note_line(context, _("Unable to read file: %s: %s\n"), path.c_str(), strerror(read_error),
                              _("quelvane_vbprintf: unable to write stderr buffer opening: '%s'\n"));
    return closed ? Result::collection_error : Result::output_failure;
}

}  // namespace

std::vector<std::string> expand_pattern(const std::string &pattern, bool newest_first)
{
    glob_t found{};
    std::vector<std::string> paths;
    if (glob(pattern.c_str(), GLOB_ERR, nullptr, &found) == 0)
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    if (newest_first)
        sort_newest_first(&paths);
    return paths;
}

int open_regular_file(const std::string &path)
{
    // Opened first, then checked through the descriptor: a fresh look at
    // what we will read, without a second walk of the path. O_NONBLOCK keeps
    // a FIFO put in the file's place from blocking the open; it means
    // nothing for the regular file we go on to read.
    Descriptor fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (fd.get() == -1 || fstat(fd.get(), &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

Result collect_file(Context &context, const std::string &path, const EntryNames &names)
{
    const Console &console = context.console;
    console.progress(_("Collecting file: %s"), names.origin.c_str());
    context.err_text.clear();
    context.notes.clear();
    ZipMember file, err;
    file.name = names.out;
    file.source_path = names.origin;
    // Kind, size 0 and time 0 as a collected file's: the member declares
    // size 0 and 1 January 1980 whatever text it holds.
    err.kind = MEMBER_FILE;
    err.name = names.err;
    err.source_path = names.origin;

    Result result;
    bool note_failed = false;
    Descriptor fd;
    if (const char *why = describe_file(path, &file)) {
        err.status = "error";
        err.error = why;
        console.progress(_(" - Status: No file status\n"));
        console.progress(_("Error for file: %s: %s\n"), names.origin.c_str(), why);
        note_failed = !note_line(context, _("Error for file: %s: %s\n"), path.c_str(), why,
                                 _("quelvane_vbprintf: unable to write stderr buffer: '%s'\n"));
        // A file that only some systems have is no error.
        result = note_failed ? Result::collection_error : Result::missing;
    } else if (fd.reset(open_regular_file(path)), fd.get() == -1) {
        const int error = errno;
        err.status = "error";
        err.error = strerror(error);
        console.progress(_(" - Status: FAIL\n"));
        console.progress(_("Unable to open file: %s: %s\n"), names.origin.c_str(), strerror(error));
        note_failed = !note_line(context, _("Unable to open file: %s: %s\n"), path.c_str(), strerror(error),
                                 _("quelvane_vbprintf: unable to write stderr buffer opening: '%s'\n"));
        result = error == EACCES && !note_failed ? Result::missing : Result::collection_error;
    } else {
        result = copy_file(context, path, fd.get(), file, err, &note_failed);
    }
    if (result != Result::output_failure && !note_failed && (!context.err_text.empty() || !context.notes.empty()) &&
        context.write_text_member(err, context.err_text, &context.notes) != 0)
        result = Result::output_failure;
    return result;
}
