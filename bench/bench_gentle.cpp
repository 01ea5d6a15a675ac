// A CPU-bound process beside a collection on the same core, both pinned there with
// taskset: with --gentle the process keeps at least 90% of the work it does alone
// (PASS/FAIL, exit status 1 on FAIL); the figure without --gentle is printed beside it.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "bench_common.h"
#include "bench_run.h"

namespace {

constexpr double HOG_SECONDS = 3;
constexpr int ROUNDS = 3;
constexpr double GENTLE_SHARE = 0.90;

// Loop iterations a pinned process completes in HOG_SECONDS.
double hog()
{
    int fds[2];
    if (pipe(fds) != 0)
        abort();
    pid_t pid = fork();
    if (pid == 0) {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(0, &one);
        sched_setaffinity(0, sizeof one, &one);
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(HOG_SECONDS);
        volatile uint64_t sink = 0;
        uint64_t loops = 0;
        while (std::chrono::steady_clock::now() < end) {
            for (int i = 0; i < 100000; ++i)
                sink = sink * 6364136223846793005ULL + 1442695040888963407ULL;
            ++loops;
        }
        if (write(fds[1], &loops, sizeof loops) != sizeof loops)
            _exit(1);
        _exit(0);
    }
    close(fds[1]);
    uint64_t loops = 0;
    if (read(fds[0], &loops, sizeof loops) != sizeof loops)
        abort();
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return static_cast<double>(loops);
}

// The hog's work while the tool collects on the same core, as a share of alone.
double beside_collection(const qt::TempDir &dir, bool gentle, double alone)
{
    pid_t tool = fork();
    if (tool == 0) {
        setpgid(0, 0);
        const std::string home = "QUELVANE_HOME=" + dir.file("home"), binary = qt::quelvane_binary(),
                          config = dir.file("q.conf"), out = dir.file("b.zip");
        putenv(const_cast<char *>(home.c_str()));
        // Its "interrupted" message at the end is expected.
        if (freopen("/dev/null", "w", stdout) == nullptr || freopen("/dev/null", "w", stderr) == nullptr)
            _exit(127);
        std::vector<const char *> argv = {"taskset", "-c", "0", binary.c_str(), "-L", "i", "-f",
                                          config.c_str(), "-a", "b.zip", "-o", out.c_str()};
        if (gentle)
            argv.push_back("--gentle");
        argv.push_back(nullptr);
        execvp("taskset", const_cast<char **>(argv.data()));
        _exit(127);
    }
    usleep(500000);  // the collection is under way
    double share = hog() / alone;
    kill(-tool, SIGTERM);
    waitpid(tool, nullptr, 0);
    return share;
}

}  // namespace

int main()
{
    qt::TempDir dir;
    mkdir(dir.file("home").c_str(), 0755);
    // Enough compressible logs to keep the collection busy all the while.
    qt::write_file(dir.file("big.log"), log_text(64 << 20, 3));
    std::string config;
    for (int i = 0; i < 16; ++i)
        config += "file i,-,y,y logs" + std::to_string(i) + " " + dir.file("big.log") + "\n";
    qt::write_file(dir.file("q.conf"), config);

    std::vector<double> gentle, plain;
    for (int round = 0; round < ROUNDS; ++round) {
        double alone = hog();
        gentle.push_back(beside_collection(dir, true, alone));
        plain.push_back(beside_collection(dir, false, alone));
    }
    std::sort(gentle.begin(), gentle.end());
    std::sort(plain.begin(), plain.end());
    const double share = gentle[ROUNDS / 2];
    printf("CPU-bound process beside a collection on one core (median of %d): %.0f%% of its work alone "
           "with --gentle, %.0f%% without\n", ROUNDS, share * 100, plain[ROUNDS / 2] * 100);
    const bool pass = share >= GENTLE_SHARE;
    printf("%s  --gentle leaves at least %.0f%%\n", pass ? "PASS" : "FAIL", GENTLE_SHARE * 100);
    return pass ? 0 : 1;
}
