// What the tests share: temporary directories, children run with their
// output captured, and one way to make a collection and read its archive
// with the real readers.
#ifndef QUELVANE_TESTSUPPORT_H
#define QUELVANE_TESTSUPPORT_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qt {

std::string quelvane_binary();
// Whether the tool and the tests run under an emulator (a cross build).
bool emulated();

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
bool file_exists(const std::string &path);
// An executable shell script NAME in dir; returns its path.
std::string script(const TempDir &dir, const std::string &name, const std::string &body);
std::vector<std::string> split_lines(const std::string &text);
// A path as a member name's tail: every '/' an '@'.
std::string flat(std::string path);
std::string sha256(const std::string &data);
// A self-signed certificate and its key, support.pem and support.key in dir.
bool make_certificate(const TempDir &dir);

// One child process: its argv, environment, standard input, extra
// descriptors open for reading, and what it printed.
struct RunSpec {
    std::vector<std::string> args;                 // after argv[0]
    std::string program;                           // default: the tool
    std::string argv0;                             // default: program
    std::vector<std::string> env;                  // "NAME=value", besides PATH and LC_ALL=C
    std::string stdin_data;
    std::vector<std::pair<int, std::string>> fds;  // descriptor N holding this data
    std::string cwd;
    int timeout_seconds = 60;                      // then SIGKILL
    std::function<void(pid_t)> during;             // in the parent while it runs
    std::function<void()> in_child;                // in the child before exec
};

struct RunResult {
    int status = -1;  // exit status, or -1 when killed by a signal
    std::string out, err;
    long maxrss_kb = 0;  // its peak resident size
    double seconds = 0;
};

RunResult run(const RunSpec &job);
RunResult run_program(const std::string &program, const std::vector<std::string> &args,
                      const std::string &stdin_data = "");
// The tool in dir, with QUELVANE_HOME=dir/home, dir as its working
// directory, and its processes marked with RUN_MARK + dir.
RunResult run_quelvane(const TempDir &dir, const std::vector<std::string> &args, RunSpec job = RunSpec());
// What call wrote to standard error while it ran.
std::string capture_stderr(const std::function<void()> &call);
// The processes of a run marked with RUN_MARK + mark still alive a second later (killed).
extern const std::string RUN_MARK;
std::string left_running(const std::string &mark);
// The peak resident size so far of a running process that has executed
// program, in KiB; 0 before that exec and once it has ended.
long resident_peak_kb(pid_t pid, const std::string &program);

// An archive as the readers see it. Every member's local header, data
// descriptor and central record are checked against each other, and
// unzip -t, Python's zipfile and bsdtar (streaming) read it; problems is
// empty when all agree and exactly the flagged members (a collected file
// read short or long, its ".err") declare a size other than their data.
struct Member {
    std::string name, data;  // no data past 1 GiB
    uint32_t flags = 0, dos_datetime = 0, crc = 0;
    unsigned long long compressed = 0, declared = 0, offset = 0, size = 0;  // size: the data's, inflated
};
struct Archive {
    std::vector<Member> members;
    std::string problems;
    std::vector<std::string> names() const;
    const Member *find(const std::string &name) const;
    // A member's data, or "(no NAME)" when there is none.
    std::string data(const std::string &name) const;
};
Archive read_archive(const std::string &path, const std::set<std::string> &flagged = {});

// openssl enc -d -aes-128-cbc -md md5; openssl's complaint, or empty.
std::string openssl_decrypt(const std::string &in, const std::string &password, const std::string &out);

// One collection: config written to dir/q.conf, then
// quelvane -f q.conf -a ARCHIVE -o OUT ARGS; the archive (behind any download
// header, decrypted) read with read_archive.
struct Collect {
    Collect(std::string config_ = "", std::vector<std::string> args_ = {}, std::string out_ = "out.zip",
            std::string password_ = "")
        : config(std::move(config_)), args(std::move(args_)), out(std::move(out_)), password(std::move(password_))
    {
    }
    std::string config;
    std::vector<std::string> args;
    std::string out;  // as given to -o, in dir; "-": standard output
    std::string password;
    std::vector<std::string> decrypt;  // or openssl's arguments to decrypt it, before -in and -out
    std::string archive = "t.zip";  // -a
    std::set<std::string> flagged;
    bool progress = false;  // --progress-fd=3 into dir/progress
    int status = 0;         // expected, and then an archive read without problems; -1: anything
    RunSpec job;
};
struct Collection {
    std::string config;
    std::set<std::string> flagged;
    RunResult run;
    std::string header;  // what preceded the archive on standard output
    std::string sent;    // the archive as delivered
    std::string path;    // the plain archive
    Archive zip;
    std::vector<std::string> progress;
};
Collection collect(const TempDir &dir, const Collect &c);

// README's text for archive t.zip made from q.conf.
std::string readme(const std::string &letters = "i", bool down = false, bool log_only = false);
using Members = std::vector<std::pair<std::string, std::string>>;  // name, data
// README, CONFIG (the configuration as written), then exactly these members in order;
// a flagged ".err" member (a collected file's) declares 1 January 1980.
void expect_members(const Collection &c, const Members &rest, const std::string &readme_text = readme());

}  // namespace qt

#endif
