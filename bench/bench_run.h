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
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testsupport.h"

namespace qt {

inline std::string quelvane_binary() { return QUELVANE_BINARY; }

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

namespace detail {

inline bool write_all(int fd, const std::string &data)
{
    for (size_t done = 0; done < data.size();) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// An anonymous in-memory file holding data, positioned at its start.
inline int memory_file(const std::string &data)
{
    const int fd = memfd_create("run", 0);
    if (fd < 0 || !write_all(fd, data))
        abort();
    lseek(fd, 0, SEEK_SET);
    return fd;
}

inline std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (std::string &text : texts)
        result.push_back(&text[0]);
    result.push_back(nullptr);
    return result;
}

// In the child: the planned descriptors in place, nothing else open, the
// signals as a new process has them.
[[noreturn]] inline void start_child(const RunSpec &job, std::vector<std::pair<int, int>> plan, const std::string &program,
                              std::vector<std::string> argv, std::vector<std::string> env)
{
    // Every source moves above the targets first, so no dup2 clobbers one.
    for (auto &step : plan)
        step.first = fcntl(step.first, F_DUPFD, 900);
    std::set<int> targets;
    for (const auto &step : plan)
        targets.insert(dup2(step.first, step.second));
    for (int fd = 3; fd < 1024; fd++)
        if (targets.count(fd) == 0)
            close(fd);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int s = 1; s < NSIG; s++)
        signal(s, SIG_DFL);
    if (!job.cwd.empty() && chdir(job.cwd.c_str()) != 0)
        _exit(126);
    if (job.in_child)
        job.in_child();
    execve(program.c_str(), pointers(argv).data(), pointers(env).data());
    _exit(127);
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
    std::vector<std::string> argv = {job.argv0.empty() ? program : job.argv0};
    argv.insert(argv.end(), job.args.begin(), job.args.end());
    // The first definition of a name wins, so the test's own come first;
    // sanitizer settings reach the child so that its reports are not lost.
    std::vector<std::string> env = job.env;
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char *value = getenv(name))
            env.push_back(std::string(name) + "=" + value);
    env.push_back("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    env.push_back("LC_ALL=C");
    // Standard input, output, error and the extra descriptors, as the child
    // will see them.
    std::vector<std::pair<int, int>> plan = {{detail::memory_file(job.stdin_data), 0}, {detail::memory_file(""), 1}, {detail::memory_file(""), 2}};
    for (const auto &fd_data : job.fds)
        plan.push_back({detail::memory_file(fd_data.second), fd_data.first});
    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0)
        abort();
    if (pid == 0)
        detail::start_child(job, plan, program, argv, env);
    for (const auto &step : plan)
        if (step.second != 1 && step.second != 2)
            close(step.first);
    if (job.during)
        job.during(pid);
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
    // The rusage peak counts the harness's own pages, which the child held
    // between fork and exec; the peak seen while it ran is the program's.
    result.maxrss_kb = peak_kb > 0 ? peak_kb : usage.ru_maxrss;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = read_file("/proc/self/fd/" + std::to_string(plan[1].first));
    result.err = read_file("/proc/self/fd/" + std::to_string(plan[2].first));
    close(plan[1].first);
    close(plan[2].first);
    return result;
}

inline RunResult run_program(const std::string &program, const std::vector<std::string> &args, const std::string &stdin_data = "")
{
    RunSpec job;
    job.program = program;
    job.args = args;
    job.stdin_data = stdin_data;
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
