// Collection throughput and memory: a generated corpus of log-like files
// collected by quelvane, beside zip -r -6 of the same files and a bare loop
// that writes a streaming ZIP of them; then a configuration of 200 short
// commands. The corpus again with --scrub (100 secrets, at least 85% of the
// plain throughput), --manifest (at least 95%) and --recipient (under 8 MiB);
// the scrubber's locked memory for 100, 1,000 and 10,000 secrets; --fast
// beside the default (at least 8x its throughput, at most 1.35x its size)
// and beside zip -1 and gzip -1 (at least 3x).
// Prints PASS/FAIL lines and exits non-zero on any FAIL.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_common.h"
#include "scrub.h"
#include "bench_run.h"

namespace {

constexpr size_t FILE_COUNT = 60;
constexpr size_t FILE_SIZE = 5u << 20;  // 300 MiB in all
constexpr int ROUNDS = 2;               // best of, on a shared machine
constexpr long MEMORY_LIMIT_KB = 8 * 1024;
constexpr int COMMAND_COUNT = 200;

double now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// What every collector must at least do: a real streaming ZIP of the files
// (read, CRC, raw deflate at the default level, descriptors, directory).
double bare_loop(const std::vector<std::string> &files, const std::string &out, uint64_t *size)
{
    double started = now();
    {
        BareZip zip(out, Z_DEFAULT_COMPRESSION, false);
        for (const std::string &path : files) {
            int fd = open(path.c_str(), O_RDONLY);
            zip.member(path, fd);
            close(fd);
        }
    }
    double seconds = now() - started;
    struct stat status {};
    stat(out.c_str(), &status);
    *size = static_cast<uint64_t>(status.st_size);
    return seconds;
}

bool report(bool pass, const std::string &what)
{
    printf("%s: %s\n", pass ? "PASS" : "FAIL", what.c_str());
    return pass;
}

double mib_per_s(double bytes, double seconds) { return bytes / (1 << 20) / seconds; }

}  // namespace

int main()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);  // progress shows as it comes under run-bench
    qt::TempDir dir;
    std::string corpus = dir.file("corpus");
    if (system(("mkdir -p '" + corpus + "' '" + dir.file("home") + "'").c_str()) != 0)
        return 2;
    std::vector<std::string> files;
    double generated = now();
    for (size_t i = 0; i < FILE_COUNT; ++i) {
        char name[64];
        snprintf(name, sizeof name, "/ctl%02zu.log", i);
        files.push_back(corpus + name);
        if (!qt::write_file(files.back(), log_text(FILE_SIZE, static_cast<uint32_t>(i))))
            return 2;
    }
    const double total = static_cast<double>(FILE_COUNT * FILE_SIZE);
    printf("corpus: %zu files, %.0f MiB of log text, generated in %.1f s\n", FILE_COUNT,
           total / (1 << 20), now() - generated);

    std::string config = dir.file("corpus.conf");
    qt::write_file(config, "log A,-,y,n corpus " + corpus + "/*.log\n");
    std::string archive = dir.file("quelvane.zip");
    std::string zip_archive = dir.file("zip.zip");
    double quelvane_s = 1e9, zip_s = 1e9, bare_s = 1e9;
    long quelvane_kb = 0;
    uint64_t bare_size = 0;
    // The three take turns, so that a neighbour's load falls on each alike.
    for (int round = 0; round < ROUNDS; ++round) {
        qt::RunResult r = qt::run_quelvane(dir, {"-L", "A", "-f", config, "-a", "bench.zip", "-o", archive});
        if (r.status != 0) {
            printf("FAIL: quelvane exited %d: %s\n", r.status, r.err.c_str());
            return 1;
        }
        quelvane_s = std::min(quelvane_s, r.seconds);
        quelvane_kb = std::max(quelvane_kb, r.maxrss_kb);

        unlink(zip_archive.c_str());
        qt::RunSpec job;
        job.program = "/usr/bin/zip";
        job.args = {"-q", "-r", "-6", zip_archive, "corpus"};
        job.cwd = dir.path();
        job.timeout_seconds = 120;
        r = qt::run(job);
        if (r.status != 0) {
            printf("FAIL: zip exited %d: %s\n", r.status, r.err.c_str());
            return 1;
        }
        zip_s = std::min(zip_s, r.seconds);

        bare_s = std::min(bare_s, bare_loop(files, dir.file("bare.zip"), &bare_size));
    }
    uint64_t archive_size = qt::read_file(archive).size();
    uint64_t zip_size = qt::read_file(zip_archive).size();
    qt::RunResult test = qt::run_program("/usr/bin/unzip", {"-tq", archive});

    printf("\n%-28s %10s %10s %12s %10s\n", "corpus collection", "seconds", "MiB/s", "archive MiB",
           "peak KiB");
    printf("%-28s %10.2f %10.1f %12.1f %10ld\n", "quelvane", quelvane_s, mib_per_s(total, quelvane_s),
           archive_size / 1048576.0, quelvane_kb);
    printf("%-28s %10.2f %10.1f %12.1f %10s\n", "zip -r -6", zip_s, mib_per_s(total, zip_s),
           zip_size / 1048576.0, "-");
    printf("%-28s %10.2f %10.1f %12.1f %10s\n", "bare streaming ZIP loop", bare_s,
           mib_per_s(total, bare_s), bare_size / 1048576.0, "-");
    printf("\n");

    bool ok = true;
    ok &= report(test.status == 0, "the collected archive passes unzip -t");
    ok &= report(quelvane_s < zip_s, "quelvane is faster than zip -r -6 (" +
                                         std::to_string(zip_s / quelvane_s) + "x)");
    ok &= report(quelvane_s <= 1.05 * bare_s, "quelvane takes " + std::to_string(quelvane_s / bare_s) +
                                                  " x the bare loop's time (at most 1.05)");
    ok &= report(quelvane_kb < MEMORY_LIMIT_KB,
                 "peak memory " + std::to_string(quelvane_kb) + " KiB is under 8 MiB");

    // --fast on the same corpus, paired with the default run by run, beside zip -1 and gzip -1.
    double default_s = 1e9, fast_s = 1e9, zip1_s = 1e9, gzip1_s = 1e9;
    long fast_kb = 0;
    uint64_t default_size = 0, fast_size = 0;
    const std::string fast_archive = dir.file("fast.zip");
    for (int round = 0; round < ROUNDS; ++round) {
        qt::RunResult plain = qt::run_quelvane(dir, {"-L", "A", "-f", config, "-a", "bench.zip", "-o", archive});
        qt::RunResult fast = qt::run_quelvane(dir, {"-L", "A", "-f", config, "-a", "bench.zip", "-o", fast_archive, "--fast"});
        if (plain.status != 0 || fast.status != 0) {
            printf("FAIL: quelvane --fast exited %d: %s\n", fast.status, fast.err.c_str());
            return 1;
        }
        default_s = std::min(default_s, plain.seconds);
        fast_s = std::min(fast_s, fast.seconds);
        fast_kb = std::max(fast_kb, fast.maxrss_kb);
        unlink(zip_archive.c_str());
        qt::RunSpec job;
        job.program = "/bin/sh";
        job.args = {"-c", "zip -q -r -1 zip.zip corpus"};
        job.cwd = dir.path();
        job.timeout_seconds = 120;
        zip1_s = std::min(zip1_s, qt::run(job).seconds);
        job.args = {"-c", "gzip -1 -c corpus/*.log > corpus.gz"};
        gzip1_s = std::min(gzip1_s, qt::run(job).seconds);
    }
    default_size = qt::read_file(archive).size();
    fast_size = qt::read_file(fast_archive).size();
    printf("\n%-28s %10s %10s %12s %10s\n", "corpus, deflate engines", "seconds", "MiB/s", "archive MiB", "peak KiB");
    printf("%-28s %10.2f %10.1f %12.1f %10s\n", "quelvane (zlib level 6)", default_s, mib_per_s(total, default_s),
           default_size / 1048576.0, "-");
    printf("%-28s %10.2f %10.1f %12.1f %10ld\n", "quelvane --fast", fast_s, mib_per_s(total, fast_s),
           fast_size / 1048576.0, fast_kb);
    printf("%-28s %10.2f %10.1f %12.1f %10s\n", "zip -r -1", zip1_s, mib_per_s(total, zip1_s),
           qt::read_file(zip_archive).size() / 1048576.0, "-");
    printf("%-28s %10.2f %10.1f %12.1f %10s\n", "gzip -1", gzip1_s, mib_per_s(total, gzip1_s),
           qt::read_file(dir.file("corpus.gz")).size() / 1048576.0, "-");
    ok &= report(qt::run_program("/usr/bin/unzip", {"-tq", fast_archive}).status == 0, "the --fast archive passes unzip -t");
    ok &= report(default_s / fast_s >= 8, "--fast runs " + std::to_string(default_s / fast_s) + " x the default's throughput (at least 8)");
    ok &= report(fast_size <= 1.35 * default_size, "--fast makes " + std::to_string(double(fast_size) / default_size) +
                                                       " x the default's size (at most 1.35)");
    ok &= report(zip1_s / fast_s >= 3 && gzip1_s / fast_s >= 3, "--fast runs " + std::to_string(zip1_s / fast_s) + " x zip -1 and " +
                                                                   std::to_string(gzip1_s / fast_s) + " x gzip -1 (at least 3)");
    ok &= report(fast_kb < MEMORY_LIMIT_KB, "--fast: peak memory " + std::to_string(fast_kb) + " KiB is under 8 MiB");

    // The trust options on the same corpus, each beside a plain run of its round.
    std::string secrets;
    for (int i = 0; i < 100; ++i)
        secrets += "secret" + std::to_string(i) + "=" + std::to_string(0x9e3779b97f4a7c15ULL * (i + 1)) + "Zq\n";
    qt::write_file(dir.file("secrets"), secrets, 0600);
    if (qt::run_program("/usr/bin/openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=bench",
                                             "-keyout", dir.file("key.pem"), "-out", dir.file("cert.pem")}).status != 0)
        return 2;
    const struct { const char *option; double share; } TRUST[] = {
        {"--scrub=secrets", 0.85}, {"--manifest", 0.95}, {"--recipient=cert.pem", 0}};
    printf("\n%-28s %10s %10s %10s\n", "corpus with", "seconds", "of plain", "peak KiB");
    for (const auto &t : TRUST) {
        double plain_s = 1e9, option_s = 1e9;
        long option_kb = 0;
        for (int round = 0; round < ROUNDS; ++round) {
            qt::RunResult plain = qt::run_quelvane(dir, {"-L", "A", "-f", config, "-a", "bench.zip", "-o", archive});
            qt::RunResult r = qt::run_quelvane(dir, {"-L", "A", "-f", config, "-a", "bench.zip", "-o", archive, t.option});
            if (plain.status != 0 || r.status != 0) {
                printf("FAIL: quelvane %s exited %d: %s\n", t.option, r.status, r.err.c_str());
                return 1;
            }
            plain_s = std::min(plain_s, plain.seconds);
            option_s = std::min(option_s, r.seconds);
            option_kb = std::max(option_kb, r.maxrss_kb);
        }
        printf("%-28s %10.2f %9.0f%% %10ld\n", t.option, option_s, 100 * plain_s / option_s, option_kb);
        if (t.share > 0)
            ok &= report(plain_s / option_s >= t.share, std::string(t.option) + " keeps " +
                                                            std::to_string(plain_s / option_s) + " of the plain throughput (at least " +
                                                            std::to_string(t.share) + ")");
        ok &= report(option_kb < MEMORY_LIMIT_KB,
                     std::string(t.option) + ": peak memory " + std::to_string(option_kb) + " KiB is under 8 MiB");
    }

    // The scrubber's locked memory grows with the secrets' total length.
    printf("\n%-28s %10s\n", "secrets of 32 bytes", "locked KiB");
    for (int count : {100, 1000, 10000}) {
        std::string many;
        for (int i = 0; i < count; ++i) {
            char value[40];
            snprintf(value, sizeof value, "%016llx%016llx", 0x9e3779b97f4a7c15ULL * (i + 1), 0xc2b2ae3d27d4eb4fULL * (i + 7));
            many += "s" + std::to_string(i) + "=" + value + "\n";
        }
        qt::write_file(dir.file("many"), many, 0600);
        Scrubber scrub;
        const bool loaded = scrub.load(dir.file("many")) == Result::ok;
        const size_t kib = scrub.memory() / 1024;
        printf("%-28d %10zu\n", count, kib);
        if (count == 1000)
            ok &= report(loaded && kib <= 8 * 1024, "1000 secrets lock " + std::to_string(kib) + " KiB (at most 8 MiB)");
    }

    // Many short commands: the cost of a fork, a shell and a member each.
    std::string commands = dir.file("commands.conf");
    std::string lines;
    for (int i = 0; i < COMMAND_COUNT; ++i)
        lines += "cmd A,-,y,n commands/" + std::to_string(i) + " /bin/echo command " + std::to_string(i) + "\n";
    qt::write_file(commands, lines);
    double commands_s = 1e9;
    long commands_kb = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        qt::RunResult r = qt::run_quelvane(
            dir, {"-L", "A", "-f", commands, "-a", "commands.zip", "-o", dir.file("commands.zip")});
        if (r.status != 0) {
            printf("FAIL: quelvane exited %d on the commands: %s\n", r.status, r.err.c_str());
            return 1;
        }
        commands_s = std::min(commands_s, r.seconds);
        commands_kb = std::max(commands_kb, r.maxrss_kb);
    }
    qt::RunResult listed = qt::run_program("/usr/bin/unzip", {"-tq", dir.file("commands.zip")});
    printf("\n%d short commands: %.2f s, %.1f ms a command, %.0f commands/s, peak %ld KiB\n\n",
           COMMAND_COUNT, commands_s, 1000 * commands_s / COMMAND_COUNT, COMMAND_COUNT / commands_s,
           commands_kb);
    ok &= report(listed.status == 0, "the commands' archive passes unzip -t");
    // A command that waits out the poll's second on its way out shows here.
    ok &= report(commands_s < COMMAND_COUNT * 0.05, "every short command ends without waiting (under 50 ms each)");
    ok &= report(commands_kb < MEMORY_LIMIT_KB,
                 "peak memory " + std::to_string(commands_kb) + " KiB is under 8 MiB");
    return ok ? 0 : 1;
}
