// Small members at the speed of their data: 2,000 files of 1-20 KB in nested
// directories (collected through three globs) and 200 quick commands, each
// beside a bare loop that writes a real streaming ZIP of the same data (read,
// crc32, raw deflate level 6 memLevel 9, local header, data descriptor,
// central directory, buffered output), and beside zip -r -6.
//
// Criteria, each printed with PASS or FAIL (exit status 1 on any FAIL), on
// the median ratio of paired runs:
//   small files   within 1.10 x the loop, and 10% faster than zip -r -6;
//   -C            within 1.5 x the loop at level 0;
//   -e -P         within 1.10 x the loop with AES-128-CBC;
//   200 commands  within 1.10 x a loop that runs them under /bin/sh -c;
//   memory        peak resident size under 8 MiB.
#include <fcntl.h>
#include <glob.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bench_common.h"
#include "bench_run.h"

namespace {

constexpr int FILE_COUNT = 2000;
constexpr int COMMAND_COUNT = 200;
constexpr int PAIRS = 7;
constexpr long MEMORY_LIMIT_KB = 8 * 1024;

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A program run to its end, timed without polling: seconds and peak KiB.
std::pair<double, long> timed(std::vector<std::string> args, const std::string &cwd,
                              const std::vector<std::string> &env = {})
{
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    double started = now();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_RDWR);
        dup2(null, 1);
        dup2(null, 2);
        if (chdir(cwd.c_str()) != 0)
            _exit(126);
        for (const std::string &e : env)
            putenv(const_cast<char *>(e.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    }
    // The peak as the program's own, sampled while it runs.
    long peak = 0;
    std::atomic<bool> ended{false};
    std::thread sampler([&] {
        while (!ended) {
            peak = std::max(peak, qt::resident_peak_kb(pid, args[0]));
            usleep(1000);
        }
    });
    int status = 0;
    struct rusage usage {};
    wait4(pid, &status, 0, &usage);
    ended = true;
    sampler.join();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "%s exited %d\n", args[0].c_str(), status);
        exit(2);
    }
    return {now() - started, peak};
}

// The loop in a child of its own, as the tool runs in one.
double timed_loop(const std::function<void()> &loop)
{
    double started = now();
    pid_t pid = fork();
    if (pid == 0) {
        loop();
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return now() - started;
}

bool report(bool pass, const std::string &what)
{
    printf("%s: %s\n", pass ? "PASS" : "FAIL", what.c_str());
    return pass;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    qt::TempDir dir;
    const std::string tree = dir.file("tree"), home = dir.file("home");
    // Three top directories with nested ones below; 1-20 KB each.
    std::vector<std::string> files;
    double size = 0;
    for (int i = 0; i < FILE_COUNT; ++i) {
        std::string sub = tree + "/" + "abc"[i % 3] + "/d" + std::to_string(i / 3 % 10);
        if (i < 30 && system(("mkdir -p '" + sub + "'").c_str()) != 0)
            return 2;
        files.push_back(sub + "/f" + std::to_string(i) + ".log");
        std::string text = log_text(1024 + static_cast<size_t>(i) * 7919 % (19 * 1024), static_cast<uint32_t>(i));
        size += static_cast<double>(text.size());
        if (!qt::write_file(files.back(), text))
            return 2;
    }
    mkdir(home.c_str(), 0755);
    std::string config;
    for (const char *top : {"a", "b", "c"})
        config += std::string("log A,-,y,n tree/") + top + " " + tree + "/" + top + "/*/*.log\n";
    qt::write_file(dir.file("files.conf"), config);
    std::string commands;
    for (int i = 0; i < COMMAND_COUNT; ++i)
        commands += "cmd A,-,y,n c/" + std::to_string(i) + " /bin/echo command " + std::to_string(i) + "\n";
    qt::write_file(dir.file("commands.conf"), commands);
    printf("corpus: %d files, %.1f MiB, in 30 directories; %d commands\n\n", FILE_COUNT, size / (1 << 20),
           COMMAND_COUNT);

    const std::string tool = qt::quelvane_binary(), out = dir.file("out.zip");
    const std::vector<std::string> env = {"QUELVANE_HOME=" + home};
    auto quelvane = [&](const char *conf, std::vector<std::string> extra) {
        std::vector<std::string> args = {tool, "-L", "A", "-f", dir.file(conf), "-a", "b.zip", "-o", out};
        args.insert(args.end(), extra.begin(), extra.end());
        return timed(args, dir.path(), env);
    };
    // The loop finds the files as the tool does, through the same three globs.
    auto files_loop = [&](int level, bool encrypt) {
        return timed_loop([&, level, encrypt] {
            BareZip zip(dir.file("loop.zip"), level, encrypt);
            for (const char *top : {"a", "b", "c"}) {
                glob_t found;
                glob((tree + "/" + top + "/*/*.log").c_str(), 0, nullptr, &found);
                for (size_t i = 0; i < found.gl_pathc; ++i) {
                    int fd = open(found.gl_pathv[i], O_RDONLY);
                    zip.member(found.gl_pathv[i], fd);
                    close(fd);
                }
                globfree(&found);
            }
        });
    };
    auto commands_loop = [&] {
        return timed_loop([&] {
            BareZip zip(dir.file("loop.zip"), Z_DEFAULT_COMPRESSION, false);
            for (int i = 0; i < COMMAND_COUNT; ++i) {
                int fds[2];
                if (pipe(fds) != 0)
                    abort();
                std::string line = "/bin/echo command " + std::to_string(i);
                pid_t pid = fork();
                if (pid == 0) {
                    dup2(fds[1], 1);
                    close(fds[0]);
                    close(fds[1]);
                    execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
                    _exit(127);
                }
                close(fds[1]);
                zip.member("c/" + line, fds[0]);
                close(fds[0]);
                waitpid(pid, nullptr, 0);
            }
        });
    };

    struct Case {
        const char *name, *conf;
        std::vector<std::string> extra;
        std::function<double()> loop;
        double limit;
    } cases[] = {
        {"small files", "files.conf", {}, [&] { return files_loop(Z_DEFAULT_COMPRESSION, false); }, 1.10},
        {"small files -C", "files.conf", {"-C"}, [&] { return files_loop(0, false); }, 1.5},
        {"small files -e -P", "files.conf", {"-e", "-P", BENCH_PASSWORD},
         [&] { return files_loop(Z_DEFAULT_COMPRESSION, true); }, 1.10},
        {"200 commands", "commands.conf", {}, commands_loop, 1.10},
    };
    bool ok = true;
    long peak = 0;
    printf("%-20s %12s %12s %8s %10s\n", "case", "quelvane s", "loop s", "ratio", "peak KiB");
    for (Case &c : cases) {
        std::vector<double> ratios, ours, theirs;
        quelvane(c.conf, c.extra);  // a round to warm the page cache, not counted
        for (int pair = 0; pair < PAIRS; ++pair) {
            // Turn about, so that neither side always finds the files just read.
            double loop = pair % 2 ? c.loop() : 0;
            auto [seconds, kb] = quelvane(c.conf, c.extra);
            loop = pair % 2 ? loop : c.loop();
            ours.push_back(seconds);
            theirs.push_back(loop);
            ratios.push_back(seconds / loop);
            peak = std::max(peak, kb);
        }
        double ratio = median(ratios);
        printf("%-20s %12.3f %12.3f %8.3f %10ld\n", c.name, median(ours), median(theirs), ratio, peak);
        ok &= report(ratio <= c.limit, std::string(c.name) + ": " + std::to_string(ratio) + " x the loop (at most " +
                                           std::to_string(c.limit) + ")");
    }
    ok &= report(qt::run_program("/usr/bin/unzip", {"-tq", out}).status == 0, "the last archive passes unzip -t");

    std::vector<double> against_zip;
    for (int pair = 0; pair < PAIRS; ++pair) {
        unlink(dir.file("zip.zip").c_str());
        double zip = timed({"/usr/bin/zip", "-q", "-r", "-6", dir.file("zip.zip"), "tree"}, dir.path()).first;
        against_zip.push_back(quelvane("files.conf", {}).first / zip);
    }
    double versus = median(against_zip);
    printf("\nsmall files: quelvane takes %.3f x the time of zip -r -6\n", versus);
    ok &= report(versus <= 0.90, "small files at least 10% faster than zip -r -6");
    ok &= report(peak < MEMORY_LIMIT_KB, "peak memory " + std::to_string(peak) + " KiB is under 8 MiB");
    return ok ? 0 : 1;
}
