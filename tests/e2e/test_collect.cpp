// Whole runs: members, names, order, contents, console lines and error counts in every
// output mode; dataset selection; commands past their time-out or flooding; interrupts.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <ctime>
#include <set>
#include <sstream>

#include "testsupport.h"

namespace {

using Members = std::vector<std::pair<std::string, std::string>>;  // name, contents

struct Collected {
    qt::RunResult run;
    std::string path;  // the archive, also when it came on standard output
    qt::ZipArchive zip;
};

// quelvane -f q.conf -a t.zip -o out args: every member name begins "t/".
Collected collect(const qt::TempDir &dir, const std::string &config, const std::string &out,
                  const std::vector<std::string> &args, const qt::RunSpec &job = qt::RunSpec())
{
    Collected c;
    EXPECT_TRUE(qt::write_file(dir.file("q.conf"), config));
    c.path = dir.file(out == "-" ? "stdout.zip" : out);
    std::vector<std::string> all = {"-f", "q.conf", "-a", "t.zip", "-o", out == "-" ? out : c.path};
    all.insert(all.end(), args.begin(), args.end());
    c.run = qt::run_quelvane(dir, all, job);
    EXPECT_TRUE(out != "-" || qt::write_file(c.path, c.run.out));
    c.zip = qt::read_zip(qt::read_file(c.path));
    return c;
}

// README, CONFIG, then exactly these members in order, whole for our reader and the
// real ones; a collected file's ".err" (flagged) declares size 0 and 1 January 1980.
void expect_members(const Collected &c, const std::string &config, const Members &rest,
                    const std::set<std::string> &flagged = {}, const std::string &letters = "i", bool down = false)
{
    Members members = {{"t/README", "Archive Name: t.zip\nConfig File: q.conf\nVersion: 1.1\nLOG-ONLY MODE: no\n"
                                    "Log Sets: " + letters + "\nSP SW DOWN: " + (down ? "yes" : "no") +
                                    "\nMax Domains: 1\n"}, {"t/CONFIG", config}};
    members.insert(members.end(), rest.begin(), rest.end());
    ASSERT_EQ(c.zip.entries.size(), members.size()) << testing::PrintToString(c.zip.names()) << c.zip.error;
    for (size_t i = 0; i < members.size(); ++i) {
        const qt::ZipEntry &entry = c.zip.entries[i];
        EXPECT_EQ(entry.name, members[i].first);
        EXPECT_TRUE(entry.data == members[i].second) << entry.name << ": " << entry.data.substr(0, 300);
        EXPECT_TRUE(flagged.count(entry.name) == 0 || entry.dos_datetime == 0x00210000u) << entry.name;
    }
    EXPECT_EQ(c.zip.error, "");
    EXPECT_EQ(qt::check_real_readers(c.path, flagged), "");
}

// Whether the process in the pid file still runs (a zombie does not); killed either way.
bool running(const std::string &pid_file)
{
    pid_t pid = atoi(qt::read_file(pid_file).c_str());
    std::string stat = pid > 0 ? qt::read_file("/proc/" + std::to_string(pid) + "/stat") : "";
    if (pid > 0)
        kill(pid, SIGKILL);
    size_t state = stat.rfind(')') + 2;
    return state < stat.size() && stat[state] != 'Z';
}

}  // namespace

TEST(Collect, MixedConfigurationInEveryOutputMode)
{
    qt::TempDir dir;
    std::string ifc = qt::script(dir, "ifc", "echo \"interface $1\"\n");
    std::string one = qt::script(dir, "one", "echo partial; echo 'went wrong' >&2; exit 1\n");
    std::string missing = dir.file("not-installed"), hosts = dir.file("hosts"), adir = dir.file("adir");
    std::string a = dir.file("logs/a.log"), b = dir.file("logs/b.log"), gone = dir.file("links/gone.log");
    for (const char *sub : {"adir", "logs", "links"})
        ASSERT_EQ(mkdir(dir.file(sub).c_str(), 0755), 0);
    ASSERT_TRUE(qt::write_file(hosts, "127.0.0.1 localhost\n") && qt::write_file(b, "second\n") &&
                qt::write_file(a, "first\n") && qt::write_file(dir.file("logs/c.txt"), "no log\n"));
    ASSERT_EQ(symlink(dir.file("deleted").c_str(), gone.c_str()), 0);  // matched, then gone
    const time_t when = 1000000000;  // a collected file keeps its own time
    struct utimbuf times = {when, when};
    struct tm t;
    ASSERT_TRUE(utime(hosts.c_str(), &times) == 0 && localtime_r(&when, &t) != nullptr);
    const uint32_t dos_when = static_cast<uint32_t>((t.tm_year - 80) << 25 | (t.tm_mon + 1) << 21 |
                                                    t.tm_mday << 16 | t.tm_hour << 11 | t.tm_min << 5 | t.tm_sec / 2);
    const std::string config = "# commands, files, patterns\ncut i,-,y,n system/ifconfig " + ifc + " eth%d\n" +
                               "file i,-,y,y etc " + hosts + "\n\nlog i,-,y,n logs " + dir.file("logs/*.log") +
                               "\nlog i,-,y,n none " + dir.file("nothing/*.log") + "\ncmd i,-,y,n one " + one +
                               "\ncmd i,-,y,n missing " + missing + " --flag\nfile i,-,y,y dir " + adir +
                               "\nlog i,-,y,n links " + dir.file("links/*.log") + "\nfile i,-,y,y mem /proc/self/mem\n";
    const Members members = {
        {"t/system/ifconfig/" + qt::flat(ifc) + "_eth0.out", "interface eth0\n"},
        {"t/etc/" + qt::flat(hosts), "127.0.0.1 localhost\n"},
        {"t/logs/" + qt::flat(a), "first\n"}, {"t/logs/" + qt::flat(b), "second\n"},
        {"t/one/" + qt::flat(one) + ".out", "partial\n"},
        {"t/one/" + qt::flat(one) + ".err", "went wrong\nQUELVANE MSG: Child exited with 1: Operation not permitted\n"},
        {"t/missing/" + qt::flat(missing) + "_--flag.err",
         "QUELVANE MSG: " + missing + " does not exist on this platform\n"},
        {"t/dir/" + qt::flat(adir) + ".err", "Error for file: " + adir + ": Not a file\n"},
        {"t/links/" + qt::flat(gone) + ".err", "Error for file: " + gone + ": No such file\n"},
        {"t/mem/@proc@self@mem", ""},
        {"t/mem/@proc@self@mem.err", "Unable to read file: /proc/self/mem: Input/output error\n"}};
    const std::set<std::string> flagged = {members[7].first, members[8].first, members[10].first};
    // The missing program and the unreadable file count; exit 1, the directory and the vanished match do not.
    const std::string progress =
        "Sending README File\nSending CONFIG File\nStarting Command: " + ifc + " eth0\nCommand '" + ifc +
        "' exited normally\nCollecting file: " + hosts + " - Status: ok\nCollecting file: " + a +
        " - Status: ok\nCollecting file: " + b + " - Status: ok\nStarting Command: " + one + "\nCommand '" + one +
        "' exited with 1: Operation not permitted\nStarting Command: " + missing + " --flag\nCollecting file: " +
        adir + " - Status: No file status\nError for file: " + adir + ": Not a file\nCollecting file: " + gone +
        " - Status: No file status\nError for file: " + gone + ": No such file\nCollecting file: /proc/self/mem"
        " - Status: FAIL\n - Status: FAIL reading file, errno=5\nCompleting ZIP archive\n";
    const std::string finished = "Finished with 2 collection errors\n";
    const std::pair<std::string, bool> modes[] = {{"f.zip", false}, {"e.zip", true}, {"-", false}, {"-", true}};
    for (const auto &[out, encrypted] : modes) {
        SCOPED_TRACE(out + (encrypted ? " encrypted" : ""));
        std::vector<std::string> args = {"-v", "-L", "i", "-e", "-P", "pass word"};
        Collected c = collect(dir, config, out, {args.begin(), args.begin() + (encrypted ? 6 : 3)});
        EXPECT_EQ(c.run.status, 0);
        EXPECT_EQ(out == "-" ? c.run.err : c.run.out + c.run.err,
                  out == "-" ? progress + finished
                             : (encrypted ? "Output data will be encrypted.\n" : std::string()) +
                                   "Collecting data into " + c.path + "\n" + progress + "Data collection complete\n" +
                                   finished);
        if (encrypted) {
            ASSERT_EQ(qt::read_file(c.path).substr(0, 8), "Salted__");
            ASSERT_EQ(qt::openssl_decrypt(c.path, "pass word", dir.file("plain.zip")), "");
            c.zip = qt::read_zip(qt::read_file(c.path = dir.file("plain.zip")));
        }
        expect_members(c, config, members, flagged);
        EXPECT_TRUE(c.zip.entries.size() > 3 && c.zip.entries[3].dos_datetime == dos_when);
    }
}

// Entries are collected only when their letters meet -L's, never without -L; with the
// software reported down, entries marked "n" are skipped.
TEST(Collect, DatasetSelection)
{
    const std::string config = "cmd a,-,y,n a /bin/echo a\ncmd b,-,n,n b /bin/echo b\ncmd ab,-,y,n ab /bin/echo ab\n"
                               "cmd A,-,y,n all /bin/echo all\nfile z,-,n,y z /etc/hostname\n";
    const Members::value_type a = {"t/a/@bin@echo_a.out", "a\n"}, b = {"t/b/@bin@echo_b.out", "b\n"},
                              ab = {"t/ab/@bin@echo_ab.out", "ab\n"}, all = {"t/all/@bin@echo_all.out", "all\n"},
                              z = {"t/z/@etc@hostname", qt::read_file("/etc/hostname")};
    const struct { std::vector<std::string> args; std::string letters; bool down; Members members; } cases[] = {
        {{"-L", "a"}, "a", false, {a, ab, all}},     {{"-L", "b"}, "b", false, {b, ab, all}},
        {{"-L", "ab"}, "ab", false, {a, b, ab, all}}, {{"-L", "A"}, "A", false, {a, b, ab, all, z}},
        {{"-L", "Z"}, "Z", false, {all, z}},          {{"-L", "c"}, "c", false, {all}},
        {{}, "i", false, {}},                         {{"-L", "A"}, "A", true, {a, ab, all}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.letters + (test.down ? " down" : ""));
        qt::TempDir dir;
        qt::RunSpec job;
        if (test.down)
            job.env = {"QUELVANE_INJECT_SPSWDOWN=1"};
        Collected c = collect(dir, config, "out.zip", test.args, job);
        EXPECT_EQ(c.run.status, 0);
        EXPECT_EQ(c.run.err, test.down ? "Injected SPSWDOWN: 1\n" : "");
        expect_members(c, config, test.members, {}, test.letters, test.down);
    }
}

// One run, time-outs of 1 s: a command pouring out zeros past its time-out with a
// background sleep in its group, one ignoring SIGTERM, one leaving a child on its pipes;
// then 400 KB on standard error and 100 MB (20 MB emulated) on standard output, in flat memory. Standard
// error past the cap keeps our own lines after it (time-out, exit) and no more.
TEST(Commands, TimeOutsGroupsAndFloods)
{
    qt::TempDir dir;
    const std::string stamp = "date +%s.%N >> " + dir.file("stamps") + "\n", noise = dir.file("noise");
    const std::string past_cap = "head -c 300000 /dev/zero | tr '\\0' ";  // then a letter, then >&2
    qt::script(dir, "slow", stamp + "sleep 30 &\necho $! > " + dir.file("sleep.pid") + "\n" + past_cap + "n >&2\ncat /dev/zero\n");
    qt::script(dir, "deaf", stamp + "trap '' TERM\necho $$ > " + dir.file("deaf.pid") + "\nwhile :; do sleep 0.2; done\n");
    qt::script(dir, "leaves", stamp + "sleep 30 &\necho $! > " + dir.file("child.pid") +
                              "\necho started; " + past_cap + "w >&2; exit 3\n");
    qt::script(dir, "flood", stamp + "head -c 409600 /dev/urandom > " + noise + "\ndd if=" + noise +
                             " bs=1024 status=none >&2\nseq 1 20000000 | head -c $1\n");  // the cap met exactly
    // 100 MB of output; 20 MB under an emulator, where deflate runs some twenty times slower.
    const std::string flood = qt::emulated() ? "20971520" : "104857600";
    std::string config, console = "Collecting data into " + dir.file("out.zip") + "\nSending README File\n"
                                  "Sending CONFIG File\n";
    for (std::string name : {"slow", "deaf", "leaves", "flood"}) {
        const std::string arg = name == "flood" ? " " + flood : "";
        config += "cmd i," + std::string(arg.empty() ? "1" : "60") + ",y,n " + name + " " + dir.file(name) + arg +
                  "\n";
        console += "Starting Command: " + dir.file(name) + arg + "\nCommand '" + dir.file(name) +
                   (name == "slow" || name == "deaf" ? "' timed out\n"
                    : name == "leaves"                  ? "' exited with 3: No such process\n"
                                                        : "' exited normally\n");
    }
    Collected c = collect(dir, config, "out.zip", {"-v", "-L", "i"});
    const bool sleep_runs = running(dir.file("sleep.pid")), deaf_runs = running(dir.file("deaf.pid"));
    running(dir.file("child.pid"));
    EXPECT_FALSE(sleep_runs) << "the background sleep outlived its group";
    EXPECT_TRUE(deaf_runs) << "never SIGKILL: the command ignoring SIGTERM stays";
    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.out + c.run.err,
              console + "Completing ZIP archive\nData collection complete\nFinished with 2 collection errors\n");
    std::vector<double> at;  // each command's start: time-out, 2 s grace, then the next
    std::istringstream stamps(qt::read_file(dir.file("stamps")));
    for (double t; stamps >> t;)
        at.push_back(t);
    ASSERT_EQ(at.size(), 4u);
    // An emulator starting the next command beside busy neighbours takes longer.
    const double most = qt::emulated() ? 6.5 : 4.8;
    EXPECT_TRUE(at[1] - at[0] > 2.8 && at[1] - at[0] < most && at[2] - at[1] > 2.8 && at[2] - at[1] < most)
        << at[1] - at[0] << " s, " << at[2] - at[1] << " s";
    EXPECT_LT(at[3] - at[2], 1.0) << "the child holding the pipes held up the run";

    const std::string term = "QUELVANE MSG: Command Timeout: Exit Signal: 15\n", written = qt::read_file(noise);
    ASSERT_EQ(written.size(), 409600u);
    auto named = [&](std::string name, const char *tail) { return "t/" + name + "/" + qt::flat(dir.file(name)) + tail; };
    const qt::ZipEntry *zeros = c.zip.find(named("slow", ".out"));
    expect_members(c, config, {
        {named("slow", ".out"), std::string(zeros != nullptr ? std::max<size_t>(1, zeros->data.size()) : 1, '\0')},
        // Our own lines follow the capture even when it filled the chain.
        {named("slow", ".err"), std::string(262144, 'n') + term}, {named("deaf", ".out"), ""},
        {named("deaf", ".err"), term}, {named("leaves", ".out"), "started\n"},
        {named("leaves", ".err"), std::string(262144, 'w') + "QUELVANE MSG: Child exited with 3: No such process\n"},
        {named("flood", ("_" + flood + ".out").c_str()),
         qt::run_program("/bin/sh", {"-c", "seq 1 20000000 | head -c " + flood}).out},
        {named("flood", ("_" + flood + ".err").c_str()), written.substr(0, 262144)}});

    qt::TempDir small;  // the same flood, 1 MB of it, for the peak memory
    Collected base = collect(small, "cmd i,60,y,n f " + dir.file("flood") + " 1048576\n", "out.zip", {"-L", "i"});
    ASSERT_EQ(base.run.status, 0);
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(c.run.maxrss_kb, 2 * base.run.maxrss_kb);  // shadow memory blurs small differences
#else
    EXPECT_LT(c.run.maxrss_kb, base.run.maxrss_kb + 1024);
#endif
}

// An interrupt while a command runs: SIGTERM to its group, no further entry, the archive
// completed (seen in download mode) and removed (file); exit 5.
TEST(Commands, InterruptStopsTheRunAndTheCommandGroup)
{
    for (int signo : {SIGINT, SIGTERM}) {
        const std::string out = signo == SIGINT ? "out.zip" : "-";
        SCOPED_TRACE(out);
        qt::TempDir dir;
        const std::string started = dir.file("started"), got_term = dir.file("got-term");
        std::string waits = qt::script(dir, "waits", "trap 'echo term > " + got_term + "; exit 0' TERM\nexec 2>&-\n"
                                                 "echo waiting; touch " + started + "\nwhile :; do sleep 0.1; done\n");
        qt::RunSpec job;
        job.during = [&](pid_t pid) {
            for (int i = 0; i < 1000 && !qt::file_exists(started); ++i)
                usleep(10000);
            kill(pid, signo);
        };
        const std::string config = "cmd i,30,y,n waits " + waits + "\ncmd i,-,y,n next /bin/echo next\n";
        Collected c = collect(dir, config, out, {"-v", "-L", "i"}, job);
        EXPECT_EQ(c.run.status, 5);
        EXPECT_EQ(qt::read_file(got_term), "term\n");
        const std::string progress = "Sending README File\nSending CONFIG File\nStarting Command: " + waits +
                                     "\nCommand '" + waits + "' interrupted by user\n";
        const std::string removing = "Data capture interrupted by user.  Attempting to remove archive.\n";
        if (out == "-") {
            EXPECT_EQ(c.run.err, progress + removing + "Interrupted by user\n");
            expect_members(c, config, {{"t/waits/" + qt::flat(waits) + ".out", "waiting\n"},
                                       {"t/waits/" + qt::flat(waits) + ".err", "QUELVANE MSG: User Interrupt\n"}});
        } else {
            EXPECT_EQ(c.run.out + c.run.err, "Collecting data into " + c.path + "\n" + progress +
                                                 "Interrupted by user\n" + removing);
            EXPECT_FALSE(qt::file_exists(c.path)) << "the interrupted archive was kept";
        }
    }
}

// Download mode holds nothing back while a command runs: the header and every finished
// member reach the reader before the slow command that follows them ends.
TEST(Commands, FinishedMembersReachTheReaderAtOnce)
{
    qt::TempDir dir;
    std::string early;
    qt::RunSpec job;
    job.during = [&](pid_t pid) {
        usleep(1500000);  // the sleep below has begun, and has 1.5 s to go
        early = qt::read_file("/proc/" + std::to_string(pid) + "/fd/1");
    };
    Collected c = collect(dir, "cmd i,-,y,n one /bin/echo first\ncmd i,-,y,n two /bin/sleep 3\n", "-",
                          {"-b", "-L", "i"}, job);
    ASSERT_EQ(c.run.status, 0);
    const size_t header = c.run.out.find("\n\n") + 2;  // the download header's end
    const qt::ZipArchive zip = qt::read_zip(c.run.out.substr(header));
    ASSERT_EQ(zip.entries.size(), 4u) << zip.error;
    // Everything up to the second command's local header, and nothing of its data yet.
    const qt::ZipEntry &second = zip.entries[3];
    EXPECT_EQ(early.size(), header + second.offset + 30 + second.name.size());
    EXPECT_EQ(early, c.run.out.substr(0, early.size()));
}
