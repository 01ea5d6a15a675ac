// What the unit tests and the benchmarks share: temporary directories, files,
// a program's output, and the real readers' verdict on an archive.
#ifndef QUELVANE_TESTSUPPORT_H
#define QUELVANE_TESTSUPPORT_H

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qt {

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

bool write_file(const std::string &path, const std::string &content, unsigned mode = 0644);
std::string read_file(const std::string &path);
// What the program (argv[0], found on PATH) wrote to standard output; *status its exit status.
std::string output_of(const std::vector<std::string> &argv, int *status = nullptr);
// What call wrote to standard error while it ran.
std::string capture_stderr(const std::function<void()> &call);

// What unzip -t, Python's zipfile and bsdtar find wrong with an archive
// (empty: nothing; exactly the flagged members may declare another size than
// their data), and its members' names.
struct Archive {
    std::string problems;
    std::vector<std::string> names;
};
Archive read_archive(const std::string &path, const std::set<std::string> &flagged = {});

}  // namespace qt

#endif
