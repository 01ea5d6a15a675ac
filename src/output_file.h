// Files the run delivers (the archive, its checksum) are written under a
// hidden name beside the final one, made new, synced, and renamed over the
// final name only when complete: a failed, refused or interrupted run
// leaves the earlier file (or nothing) there, and a link at the final name
// is replaced, never followed; a link to a device or other special file is
// refused. A device or other special file named as the archive is written
// in place.
#ifndef QUELVANE_OUTPUT_FILE_H
#define QUELVANE_OUTPUT_FILE_H

#include <string>

#include "result.h"

class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile() { discard(); }
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // A descriptor to write the file through (the caller closes it), or -1
    // with errno set.
    int open(const std::string &path);
    bool in_place() const { return temporary_.empty(); }
    // synced: the data is on the device (errno says why not). The file
    // under its final name, and that name on the device; false after a
    // message.
    bool commit(bool synced);
    // What this run wrote and did not commit is removed.
    void discard();

private:
    std::string path_, temporary_;
};

// The whole of text as the file at path (or on standard error, when path
// names it); output_failure after a message.
Result write_whole_file(const std::string &path, const std::string &text);

// Why path may not take the checksum (null when it may): the archive's own
// file, standard output, a directory or other special file, or a directory
// we cannot write in. Standard error (/dev/stderr) may: a remote run's
// second stream.
const char *checksum_path_fault(const std::string &path, const std::string &output, bool download);

#endif
