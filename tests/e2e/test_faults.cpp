// Faults and attacks: a planted lock directory, device nodes as output, readers that go
// away and size limits, closed descriptors, what a command inherits, the ZIP limits,
// configuration files others may change, and interrupts at random moments.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <random>
#include <sstream>
#include <thread>

#include "testsupport.h"

namespace {

// quelvane -f q.conf -a t.zip -o OUT -L i EXTRA for an archive too large to read into
// memory: the run alone.
qt::RunResult run_large(const qt::TempDir &dir, const std::string &config, std::vector<std::string> extra = {},
                        qt::RunSpec job = qt::RunSpec())
{
    qt::write_file(dir.file("q.conf"), config);
    const bool download = job.in_child != nullptr;  // standard output made the archive's pipe
    extra.insert(extra.begin(), {"-f", "q.conf", "-a", "t.zip", "-o", download ? "-" : "out.zip", "-L", "i"});
    job.timeout_seconds = 600;  // gigabytes to deflate on a machine that may be busy
    return qt::run_quelvane(dir, extra, job);
}

bool lock_free(const qt::TempDir &dir)
{
    return !qt::file_exists(dir.file("home/quelvane_tmp/quelvane.quelvane"));
}

}  // namespace

// A link or a file planted where the shared lock directory goes is refused: nothing in
// the directory it points at is created or deleted.
TEST(Faults, PlantedLockDirectoryIsRefused)
{
    qt::TempDir dir;
    const std::string name = "qvlock" + std::to_string(getpid()), planted = "/tmp/" + name + ".quelvane";
    ASSERT_EQ(mkdir(dir.file("victim").c_str(), 0755), 0);
    ASSERT_TRUE(qt::write_file(dir.file("victim/passwd"), "root\n") && qt::write_file(dir.file("q.conf"), ""));
    for (bool link : {true, false}) {
        ASSERT_TRUE(link ? symlink(dir.file("victim").c_str(), planted.c_str()) == 0
                         : qt::write_file(planted, "planted\n"));
        qt::RunSpec job;
        job.argv0 = dir.file(name);  // QUELVANE_HOME unset: the lock lies in /tmp
        job.args = {"-f", dir.file("q.conf"), "-a", "t.zip", "-o", dir.file("out.zip")};
        qt::RunResult r = qt::run(job);
        unlink(planted.c_str());
        EXPECT_EQ(r.status, 3);
        EXPECT_EQ(r.err, "Refusing lock directory " + planted + ": not a real directory.\nOnly run one " + name +
                             " at a time\n");
        EXPECT_TRUE(qt::file_exists(dir.file("victim/passwd")));
        EXPECT_FALSE(qt::file_exists(dir.file("victim/.lock")));
    }
}

// A command sees descriptors 0-2 only (not the lock, the archive nor what we inherited),
// keeps the default SIGPIPE its pipelines rely on, and with --gentle runs, as the tool
// does, at nice 19 in the idle I/O class; -P leaves the command line.
TEST(Faults, WhatACommandInherits)
{
    qt::TempDir dir;
    std::string loop = qt::script(dir, "loop", "while :; do echo y; done | head -n 1\n");
    // The tool is the parent of the command's shell.
    const std::string tool = "/proc/$(cut -d' ' -f4 /proc/$PPID/stat)";
    std::string cmdline = qt::script(dir, "cmdline", "tr '\\0' ' ' < " + tool + "/cmdline\n");
    std::string prio = qt::script(dir, "prio", "for p in " + tool + " /proc/$$; do echo $(cut -d' ' -f19 $p/stat) "
                                               "$(ionice -p ${p#/proc/}); done\n");
    const std::string config = "cmd i,5,y,n fds /bin/ls /proc/self/fd\ncmd i,5,y,n loop " + loop +
                               "\ncmd i,5,y,n argv " + cmdline + "\ncmd i,5,y,n prio " + prio + "\n";
    qt::Collect asked{config, {"-L", "i", "-e", "-P", "secret", "--gentle"}, "out.zip", "secret"};
    asked.job.fds = {{7, "inherited"}};
    const qt::Archive zip = qt::collect(dir, asked).zip;
    EXPECT_EQ(zip.data("t/fds/@bin@ls_@proc@self@fd.out"), "0\n1\n2\n3\n");  // 3: ls reading the directory
    EXPECT_EQ(zip.find("t/loop/" + qt::flat(loop) + ".err"), nullptr) << "the pipeline into head ran to its time-out";
    EXPECT_EQ(zip.data("t/prio/" + qt::flat(prio) + ".out"), "19 idle\n19 idle\n");
    // An emulator shows its own copy of the command line.
    const std::string argv = zip.data("t/argv/" + qt::flat(cmdline) + ".out");
    EXPECT_TRUE(qt::emulated() || (argv.find("secret") == std::string::npos && argv.find("-P xxxxxx") != std::string::npos));
}

// No count or offset wraps: 70,000 members take ZIP64 records; and a log that grows
// while it is read is read up to the size it declares.
TEST(Faults, ManyMembersAndAGrowingLog)
{
    qt::TempDir dir;
    ASSERT_EQ(mkdir(dir.file("many").c_str(), 0755), 0);
    for (int i = 0; i < 70000; ++i)
        ASSERT_TRUE(qt::write_file(dir.file("many/" + std::to_string(i)), ""));
    const std::string chunk(1 << 16, 'l');
    ASSERT_TRUE(qt::write_file(dir.file("grows.log"), chunk));
    pid_t writer = fork();  // appends for as long as the run lasts, up to 256 MB
    if (writer == 0) {
        int fd = open(dir.file("grows.log").c_str(), O_WRONLY | O_APPEND);
        for (int i = 0; i < 4096 && write(fd, chunk.data(), chunk.size()) > 0; ++i) {
        }
        _exit(0);
    }
    const qt::Collection c =
        qt::collect(dir, {"log i,-,y,y grows " + dir.file("grows.log") + "\nfile i,-,y,n many " + dir.file("many/*") + "\n", {"-L", "i"}});
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    ASSERT_EQ(c.zip.members.size(), 70003u);
    const qt::Member &log = c.zip.members[2];
    EXPECT_EQ(log.data.size(), log.declared);
    EXPECT_EQ(log.data.find_first_not_of('l'), std::string::npos);
}

// No size field wraps: a command printing 4.5 GiB is cut just below 4 GiB, and its ".err"
// says so. The sanitizer and emulated builds leave this run out.
TEST(Faults, HugeOutputIsCut)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "checked by the normal build";
#endif
    if (qt::emulated())
        GTEST_SKIP() << "minutes under an emulator; checked by the native build";
    qt::TempDir dir;
    std::string huge = qt::script(dir, "huge", "head -c 4831838208 /dev/zero\n");  // 4.5 GiB
    const qt::RunResult r = run_large(dir, "cmd i,600,y,n huge " + huge + "\n");
    ASSERT_EQ(r.status, 0) << r.err;
    const qt::Archive zip = qt::read_archive(dir.file("out.zip"));
    EXPECT_EQ(zip.problems, "");
    ASSERT_EQ(zip.members.size(), 4u);
    EXPECT_EQ(zip.members[2].size, 4290772992u);
    EXPECT_EQ(zip.members[3].data, "QUELVANE MSG: Data cut at 4290772992 bytes, the largest member an archive holds\n");
}

// SIGINT, SIGTERM or SIGHUP at random moments of real runs in both output modes: always
// status 0 or 5, no file left after 5, the lock free, no process of the run left, and
// every archive that is kept (or was sent) valid.
TEST(Faults, InterruptsAtRandomMoments)
{
    qt::TempDir data;
    ASSERT_TRUE(qt::write_file(data.file("log"), std::string(1 << 20, 'x')));
    const std::string config = "cmd i,5,y,n a /bin/echo a\ncmd i,5,y,n s /bin/sleep 0.2\nfile i,-,y,y f " +
                               data.file("log") + "\ncmd i,5,y,n d /bin/dd if=/dev/urandom bs=64k count=8\n"
                               "log i,-,y,n l " + data.file("*") + "\ncmd i,5,y,n e /bin/echo e\n";
    std::mt19937 random(static_cast<unsigned>(time(nullptr)));
    std::vector<std::pair<int, int>> moments;  // signal, microseconds after the lock is taken
    // Fewer under an emulator, where each run costs several times as much.
    for (int i = 0; i < (qt::emulated() ? 20 : 60); ++i)
        moments.push_back({std::vector<int>{SIGINT, SIGTERM, SIGHUP}[random() % 3], static_cast<int>(random() % 600000)});
    std::atomic<size_t> next{0};
    auto work = [&] {
        for (size_t i; (i = next++) < moments.size();) {
            const bool download = i % 2 == 1;
            SCOPED_TRACE("signal " + std::to_string(moments[i].first) + " at " + std::to_string(moments[i].second) +
                         " us, " + (download ? "download" : "file"));
            qt::TempDir dir;
            qt::Collect asked{config, {"-L", "i"}, download ? "-" : "out.zip"};
            asked.status = -1;
            asked.job.during = [&](pid_t pid) {
                for (int n = 0; n < 2000 && lock_free(dir); ++n)
                    usleep(1000);
                usleep(static_cast<useconds_t>(moments[i].second));
                kill(pid, moments[i].first);
            };
            const qt::Collection c = qt::collect(dir, asked);
            EXPECT_TRUE(c.run.status == 0 || c.run.status == 5) << c.run.status << " " << c.run.err;
            EXPECT_TRUE(lock_free(dir));
            EXPECT_EQ(qt::left_running(dir.path()), "");
            EXPECT_FALSE(!download && c.run.status == 5 && qt::file_exists(dir.file("out.zip")));
            if (download || c.run.status == 0) {
                EXPECT_EQ(c.zip.problems, "");
                EXPECT_GE(c.zip.members.size(), 2u);
            }
        }
    };
    std::vector<std::thread> workers;
    for (int w = 0; w < 6; ++w)
        workers.emplace_back(work);
    for (std::thread &t : workers)
        t.join();
}

// On a 32-bit target: sparse files just over 2 GiB and over 4 GiB, the first whole, the
// second cut where a member ends (its ".err", declaring size 0, says so), neither refused.
// Stored (-C), so that the emulated target reads them in seconds; readers check every byte.
TEST(Faults, FilesPast2And4GiBOn32Bits)
{
    if (sizeof(void *) > 4)
        GTEST_SKIP() << "for 32-bit builds";
    qt::TempDir dir;
    const off_t past_2 = (off_t{2} << 30) + 4096, past_4 = (off_t{4} << 30) + 4096;
    for (const auto &[name, size] : {std::pair<const char *, off_t>{"two", past_2}, {"four", past_4}}) {
        int fd = open(dir.file(name).c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_TRUE(fd >= 0 && ftruncate(fd, size) == 0 && pwrite(fd, name, 3, size - 3) == 3 && close(fd) == 0);
    }
    const qt::RunResult r =
        run_large(dir, "file i,-,y,y two " + dir.file("two") + "\nfile i,-,y,y four " + dir.file("four") + "\n", {"-C"});
    ASSERT_EQ(r.status, 0) << r.err;
    const qt::Archive zip = qt::read_archive(dir.file("out.zip"), {"t/four/" + qt::flat(dir.file("four")) + ".err"});
    EXPECT_EQ(zip.problems, "");
    // README, CONFIG, the 2 GiB file whole, the 4 GiB one cut, and the cut's ".err" (declaring size 0).
    ASSERT_EQ(zip.members.size(), 5u);
    EXPECT_EQ(std::to_string(zip.members[2].size) + " " + std::to_string(zip.members[3].size) + " " +
                  std::to_string(zip.members[4].declared), std::to_string(past_2) + " 4290772992 0");
}

// In file mode the archive and its directory entry are on the device before the run
// says "Data collection complete": the operator pulls the stick at that line.
TEST(Faults, ArchiveIsOnTheDeviceBeforeCompleteIsSaid)
{
    if (qt::emulated())
        GTEST_SKIP() << "strace follows the emulator, not the tool";
    qt::TempDir dir;
    qt::RunSpec job;
    job.program = "/usr/bin/strace";
    job.env = {"ASAN_OPTIONS=detect_leaks=0"};  // the leak checker will not run under a tracer
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,5,y,n a /bin/echo a\n"));
    EXPECT_EQ(qt::run_quelvane(dir, {"-e", "trace=fsync,fdatasync,write", "-o", dir.file("trace"), qt::quelvane_binary(),
                                     "-f", "q.conf", "-a", "t.zip", "-o", dir.file("out.zip"), "-L", "i"}, job).status, 0);
    std::string calls;  // the calls in order, each reduced to its name (and the last line's text)
    std::istringstream trace(qt::read_file(dir.file("trace")));
    for (std::string line; std::getline(trace, line);)
        calls += line.substr(0, line.find('(')) + (line.find("complete") != std::string::npos ? " complete" : "") + "\n";
    EXPECT_NE(calls.find("fsync\nfsync\nwrite complete\n"), std::string::npos) << calls;
}

// The deadline is checked inside a file too: one too large to read in time is cut where
// the deadline found it, its ".err" says so, and the rest of the archive follows.
TEST(Faults, TheDeadlineCutsAFileBeingRead)
{
    qt::TempDir dir;
    const int sparse = open(dir.file("sparse").c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_TRUE(sparse >= 0 && ftruncate(sparse, off_t{3} << 30) == 0 && close(sparse) == 0);
    // Stored, so that the file is cut by time, not by deflate's pace.
    const qt::RunResult r = run_large(dir, "file i,-,y,y f " + dir.file("sparse") + "\n", {"-C", "--deadline=1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_LT(r.seconds, qt::emulated() ? 3.0 : 2.0);
    const qt::RunResult note = qt::run_program("/usr/bin/unzip", {"-p", dir.file("out.zip"), "t/f/*.err"});
    EXPECT_EQ(note.out.substr(0, 26), "QUELVANE MSG: Data cut at ");
    EXPECT_NE(note.out.find(" bytes, the run's deadline\n"), std::string::npos) << note.out;
    EXPECT_EQ(qt::run_program("/usr/bin/unzip", {"-tq", dir.file("out.zip")}).status, 0);
}

// Three loops of back-to-back starters on one home: never two collections at once
// (each holds a directory that only one can make), and every refusal the busy one.
TEST(Faults, TheLockHoldsForAnyNumberOfStarters)
{
    qt::TempDir dir;
    const std::string inside = dir.file("inside");
    const std::string probe = qt::script(dir, "probe", "mkdir " + inside + " 2>/dev/null || echo overlap >> " +
                                                           dir.file("overlaps") + "\nsleep 0.01\nrmdir " + inside + "\n");
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,5,y,n p " + probe + "\n"));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(qt::emulated() ? 10 : 30);
    std::atomic<int> collected{0}, busy{0};
    std::vector<std::thread> loops;
    for (int loop = 0; loop < 3; ++loop)
        loops.emplace_back([&, loop] {
            const std::string out = "out" + std::to_string(loop) + ".zip";
            while (std::chrono::steady_clock::now() < end) {
                const qt::RunResult r = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t", "-o", out, "-L", "i", "-q"});
                if (r.status == 0)
                    ++collected;
                else if (r.status == 3 && r.err == "An instance of quelvane is already running.\nOnly run one quelvane at a time\n")
                    ++busy;
                else
                    ADD_FAILURE() << r.status << " " << r.err;
            }
        });
    for (std::thread &t : loops)
        t.join();
    EXPECT_EQ(qt::read_file(dir.file("overlaps")), "");
    EXPECT_GT(collected, 10);
    EXPECT_GT(busy, 0);
}
