// The benchmarks' child runner: the tool or a program as a child, with its
// output captured, its time and its peak resident size.
#ifndef QUELVANE_BENCH_RUN_H
#define QUELVANE_BENCH_RUN_H

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "testsupport.h"

namespace qt {

inline std::string quelvane_binary() { return QUELVANE_BINARY; }

// One child process: its argv after argv[0], its environment and directory.
struct RunSpec {
    std::vector<std::string> args;
    std::string program;           // default: the tool
    std::vector<std::string> env;  // "NAME=value", besides PATH and LC_ALL=C
    std::string cwd;
    int timeout_seconds = 60;      // then SIGKILL
};

struct RunResult {
    int status = -1;  // exit status, or -1 when killed by a signal
    std::string out, err;
    long maxrss_kb = 0;  // its peak resident size
    double seconds = 0;
};

namespace detail {

inline std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (std::string &text : texts)
        result.push_back(&text[0]);
    result.push_back(nullptr);
    return result;
}

}  // namespace detail

// The peak resident size so far of a running process that has executed
// program, in KiB; 0 before that exec and once it has ended.
inline long resident_peak_kb(pid_t pid, const std::string &program)
{
    // Until it has called exec, the child is a copy of us: its peak is ours.
    const std::string name = program.substr(program.rfind('/') + 1).substr(0, 15);
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmHWM:");
    if (status.compare(0, 6 + name.size() + 1, "Name:\t" + name + "\n") != 0 || at == std::string::npos)
        return 0;
    return atol(status.c_str() + at + 6);
}

inline RunResult run(const RunSpec &job)
{
    const std::string program = job.program.empty() ? quelvane_binary() : job.program;
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), job.args.begin(), job.args.end());
    // The first definition of a name wins, so the caller's own come first.
    std::vector<std::string> env = job.env;
    env.push_back("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    env.push_back("LC_ALL=C");
    const int out = memfd_create("out", 0), err = memfd_create("err", 0);
    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0 || out < 0 || err < 0)
        abort();
    if (pid == 0) {  // standard input empty, output and error captured, nothing else open
        const int none = open("/dev/null", O_RDONLY);
        dup2(none, 0), dup2(out, 1), dup2(err, 2);
        for (int fd = 3; fd < 1024; fd++)
            close(fd);
        if (!job.cwd.empty() && chdir(job.cwd.c_str()) != 0)
            _exit(126);
        execve(program.c_str(), detail::pointers(argv).data(), detail::pointers(env).data());
        _exit(127);
    }
    RunResult result;
    int status = 0;
    struct rusage usage;
    long peak_kb = 0;
    for (bool killed = false;;) {
        peak_kb = std::max(peak_kb, resident_peak_kb(pid, program));
        const pid_t done = wait4(pid, &status, WNOHANG, &usage);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            abort();
        if (!killed && std::chrono::steady_clock::now() > started + std::chrono::seconds(job.timeout_seconds))
            killed = kill(pid, SIGKILL) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // The rusage peak counts our own pages, which the child held between fork
    // and exec; the peak seen while it ran is the program's.
    result.maxrss_kb = peak_kb > 0 ? peak_kb : usage.ru_maxrss;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = read_file("/proc/self/fd/" + std::to_string(out));
    result.err = read_file("/proc/self/fd/" + std::to_string(err));
    close(out);
    close(err);
    return result;
}

inline RunResult run_program(const std::string &program, const std::vector<std::string> &args)
{
    RunSpec job;
    job.program = program;
    job.args = args;
    job.timeout_seconds = 120;
    return run(job);
}

// The tool in dir, with QUELVANE_HOME=dir/home and dir as its working directory.
inline RunResult run_quelvane(const TempDir &dir, const std::vector<std::string> &args, RunSpec job = RunSpec())
{
    mkdir(dir.file("home").c_str(), 0755);
    job.args.insert(job.args.begin(), args.begin(), args.end());
    job.env.push_back("QUELVANE_HOME=" + dir.file("home"));
    if (job.cwd.empty())
        job.cwd = dir.path();
    return run(job);
}

}  // namespace qt

#endif
