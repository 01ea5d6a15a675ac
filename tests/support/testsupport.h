// Helpers shared by the unit and end-to-end tests.
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

// Path of the built quelvane executable.
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
// An executable shell script NAME in dir; returns its path.
std::string script(const TempDir &dir, const std::string &name, const std::string &body);
std::string read_file(const std::string &path);
std::vector<std::string> split_lines(const std::string &text);
// A path as a member name's tail: every '/' an '@'.
std::string flat(std::string path);
// A self-signed certificate and its key, support.pem and support.key in dir.
bool make_certificate(const TempDir &dir);
bool file_exists(const std::string &path);

// One child process: its argv, environment, standard input, extra inherited
// descriptors, and what it printed.
struct RunSpec {
    std::vector<std::string> args;                  // after argv[0]
    std::string program;                            // default: the quelvane binary
    std::string argv0;                              // default: program
    std::vector<std::string> env;                   // "NAME=value"; besides PATH and LC_ALL=C
    std::string stdin_data;                         // standard input (empty: at end at once)
    std::vector<std::pair<int, std::string>> fds;   // descriptor N open for reading this data
    std::string cwd;                                // default: unchanged
    int timeout_seconds = 60;                       // then SIGKILL and timed_out
    std::function<void(pid_t)> during;              // called in the parent while it runs
    std::function<void()> in_child;                 // called in the child before exec
};

struct RunResult {
    int status = -1;       // exit status, or -1 when killed by a signal
    bool timed_out = false;
    std::string out;
    std::string err;
    long maxrss_kb = 0;  // peak resident size while it ran
    double seconds = 0;
};

RunResult run(const RunSpec &job);

// The peak resident size so far of a running process that has executed
// program, in KiB; 0 before that exec and once it has ended.
long resident_peak_kb(pid_t pid, const std::string &program);

// What call wrote to standard error (descriptor 2) while it ran.
std::string capture_stderr(const std::function<void()> &call);

// The tool in the directory dir, with QUELVANE_HOME=dir/home and the
// working directory dir; job supplies anything else (stdin, descriptors).
RunResult run_quelvane(const TempDir &dir, const std::vector<std::string> &args,
                       RunSpec job = RunSpec());

// An environment variable whose value marks the processes of one run:
// left_running(mark) names (and kills) those still alive.
extern const std::string RUN_MARK;
std::string left_running(const std::string &mark);

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

// An external program by path with its arguments.
RunResult run_program(const std::string &program, const std::vector<std::string> &args,
                      const std::string &stdin_data = "");

// Our own reader: walks the stream front to back (local header, inflated
// data, data descriptor), then checks the central directory and end record
// against what it saw. error is empty when everything agrees.
struct ZipEntry {
    std::string name;
    std::string data;                 // inflated
    uint16_t version = 0;
    uint16_t flags = 0;
    uint16_t method = 0;
    uint32_t dos_datetime = 0;        // date << 16 | time
    uint32_t crc = 0;                 // from the descriptor
    uint32_t compressed_size = 0;     // from the descriptor
    uint32_t declared_size = 0;       // uncompressed size from the descriptor
    uint64_t offset = 0;              // of the local header
};

struct ZipArchive {
    std::vector<ZipEntry> entries;
    std::string error;
    std::vector<std::string> names() const;
    const ZipEntry *find(const std::string &name) const;
};

ZipArchive read_zip(const std::string &bytes);

// Hands the archive to unzip -t, Python's zipfile and bsdtar (reading from a
// pipe). Members in 'flagged' declare a size other than their data (collected
// files read short or long, their ".err" members): exactly those must be
// flagged by the readers that check sizes. Empty when all agree; otherwise
// what went wrong.
std::string check_real_readers(const std::string &zip_path,
                               const std::set<std::string> &flagged = {});

// openssl enc -d -aes-128-cbc -md md5 with the password as given; returns
// an empty string on success, else openssl's standard error.
std::string openssl_decrypt(const std::string &in_path, const std::string &password,
                            const std::string &out_path);

}  // namespace qt

#endif
