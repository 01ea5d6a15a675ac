// Whole runs: members, names, order, contents, console lines and error counts in every
// output mode; dataset selection and bad configuration lines; commands past their
// time-out or flooding; nothing held back from a download.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <sstream>

#include "deflater.h"
#include "testsupport.h"

namespace {

// Whether the process in the pid file still runs (a zombie does not); killed either way.
bool running(const std::string &pid_file)
{
    const pid_t pid = atoi(qt::read_file(pid_file).c_str());
    const std::string stat = pid > 0 ? qt::read_file("/proc/" + std::to_string(pid) + "/stat") : "";
    if (pid > 0)
        kill(pid, SIGKILL);
    const size_t state = stat.rfind(')') + 2;
    return state < stat.size() && stat[state] != 'Z';
}

}  // namespace

TEST(Collect, MixedConfigurationInEveryOutputMode)
{
    qt::TempDir dir;
    const std::string ifc = qt::script(dir, "ifc", "echo \"interface $1\"\n");
    const std::string one = qt::script(dir, "one", "echo partial; echo 'went wrong' >&2; exit 1\n");
    const std::string missing = dir.file("not-installed"), hosts = dir.file("hosts"), adir = dir.file("adir");
    const std::string a = dir.file("logs/a.log"), b = dir.file("logs/b.log"), gone = dir.file("links/gone.log");
    for (const char *sub : {"adir", "logs", "links"})
        ASSERT_EQ(mkdir(dir.file(sub).c_str(), 0755), 0);
    ASSERT_TRUE(qt::write_file(hosts, "127.0.0.1 localhost\n") && qt::write_file(b, "second\n") &&
                qt::write_file(a, "first\n") && qt::write_file(dir.file("logs/c.txt"), "no log\n"));
    ASSERT_EQ(symlink(dir.file("deleted").c_str(), gone.c_str()), 0);  // matched, then gone
    const time_t when = 1000000000;  // a collected file keeps its own time
    struct utimbuf times = {when, when};
    struct tm t;
    ASSERT_TRUE(utime(hosts.c_str(), &times) == 0 && localtime_r(&when, &t) != nullptr);
    const uint32_t dos_when = static_cast<uint32_t>((t.tm_year - 80) << 25 | (t.tm_mon + 1) << 21 | t.tm_mday << 16 |
                                                    t.tm_hour << 11 | t.tm_min << 5 | t.tm_sec / 2);
    qt::Collect asked;
    asked.config = "# commands, files, patterns\ncut i,-,y,n system/ifconfig " + ifc + " eth%d\nfile i,-,y,y etc " +
                   hosts + "\n\nlog i,-,y,n logs " + dir.file("logs/*.log") + "\nlog i,-,y,n none " +
                   dir.file("nothing/*.log") + "\ncmd i,-,y,n one " + one + "\ncmd i,-,y,n missing " + missing +
                   " --flag\nfile i,-,y,y dir " + adir + "\nlog i,-,y,n links " + dir.file("links/*.log") +
                   "\nfile i,-,y,y mem /proc/self/mem\nfile i,-,y,y os /proc/sys/kernel/ostype\n";
    const qt::Members members = {
        {"t/system/ifconfig/" + qt::flat(ifc) + "_eth0.out", "interface eth0\n"},
        {"t/etc/" + qt::flat(hosts), "127.0.0.1 localhost\n"},
        {"t/logs/" + qt::flat(a), "first\n"}, {"t/logs/" + qt::flat(b), "second\n"},
        {"t/one/" + qt::flat(one) + ".out", "partial\n"},
        {"t/one/" + qt::flat(one) + ".err", "went wrong\nQUELVANE MSG: Child exited with 1: Operation not permitted\n"},
        {"t/missing/" + qt::flat(missing) + "_--flag.err", "QUELVANE MSG: " + missing + " does not exist on this platform\n"},
        {"t/dir/" + qt::flat(adir) + ".err", "Error for file: " + adir + ": Not a file\n"},
        {"t/links/" + qt::flat(gone) + ".err", "Error for file: " + gone + ": No such file\n"},
        {"t/mem/@proc@self@mem", ""},
        {"t/mem/@proc@self@mem.err", "Unable to read file: /proc/self/mem: Input/output error\n"},
        {"t/os/@proc@sys@kernel@ostype", "Linux\n"}};  // declares its stat size, 0
    asked.flagged = {members[7].first, members[8].first, members[10].first, members[11].first};
    // The missing program and the unreadable file count; exit 1, the directory and the vanished match do not.
    const std::string progress =
        "Sending README File\nSending CONFIG File\nStarting Command: " + ifc + " eth0\nCommand '" + ifc +
        "' exited normally\nCollecting file: " + hosts + " - Status: ok\nCollecting file: " + a +
        " - Status: ok\nCollecting file: " + b + " - Status: ok\nStarting Command: " + one + "\nCommand '" + one +
        "' exited with 1: Operation not permitted\nStarting Command: " + missing + " --flag\nCollecting file: " + adir +
        " - Status: No file status\nError for file: " + adir + ": Not a file\nCollecting file: " + gone +
        " - Status: No file status\nError for file: " + gone + ": No such file\nCollecting file: /proc/self/mem"
        " - Status: FAIL\n - Status: FAIL reading file, errno=5\nCollecting file: /proc/sys/kernel/ostype"
        " - Status: ok\nCompleting ZIP archive\n";
    // Every engine and level, plain, and every encryption, each read by the stock openssl
    // command, make the same members in every mode; the checksum of what was delivered
    // (download header excluded) is what sha256sum -c reads and the progress channel's
    // last line says. A download's goes to standard error, a remote run's second stream.
    ASSERT_TRUE(qt::make_certificate(dir));
    struct Variant { std::string engine; std::vector<std::string> encryption = {}, decrypt = {}; };
    std::vector<Variant> variants = {{""}, {"--fast"}};
    for (int level = 0; level <= 9; ++level)
        variants.push_back({"--level=" + std::to_string(level)});
    const std::vector<std::string> enc = {"enc", "-d", "-aes-128-cbc", "-pass", "pass:pass word"};
    const struct { std::vector<std::string> options, how; } PASSWORDS[] = {
        {{}, {"-md", "md5"}}, {{"--pbkdf2"}, {"-pbkdf2", "-iter", "100000"}}, {{"--pbkdf2=2000"}, {"-pbkdf2", "-iter", "2000"}}};
    for (const auto &p : PASSWORDS) {
        variants.push_back({"", {"-e", "-P", "pass word"}, enc});
        variants.back().encryption.insert(variants.back().encryption.end(), p.options.begin(), p.options.end());
        variants.back().decrypt.insert(variants.back().decrypt.end(), p.how.begin(), p.how.end());
    }
    variants.push_back({"", {"--recipient=" + dir.file("support.pem")}, {"cms", "-decrypt", "-binary", "-inform", "DER", "-recip",
                                                                       dir.file("support.pem"), "-inkey", dir.file("support.key")}});
    asked.progress = true;
    for (const Variant &v : variants)
        for (const std::string out : {"t.zip", "-"}) {
            SCOPED_TRACE(v.engine + testing::PrintToString(v.encryption) + " " + out);
            asked.out = out;
            asked.decrypt = v.decrypt;
            asked.args = {"-v", "-L", "i", "--checksum=" + std::string(out == "-" ? "/dev/stderr" : "t.sha256")};
            if (out == "-")
                asked.args.push_back("-b");
            if (!v.engine.empty())
                asked.args.push_back(v.engine);
            asked.args.insert(asked.args.end(), v.encryption.begin(), v.encryption.end());
            const qt::Collection c = qt::collect(dir, asked);
            const std::string console = out == "-" ? "" : std::string(v.encryption.size() > 1 ? "Output data will be encrypted.\n" : "") +
                                                              "Collecting data into " + out + "\n";
            const std::string sum = qt::sha256(c.sent) + "  t.zip\n";
            // Where --fast makes do with zlib, -v says why.
            std::string why;
            const std::string fallback = v.engine == "--fast" && fast_compression(&why).engine != Engine::isal
                                             ? "--fast: deflating with zlib level 1: " + why + "\n" : "";
            EXPECT_EQ(out == "-" ? c.run.err : c.run.out + c.run.err,
                      out == "-" ? fallback + progress + sum + "Finished with 2 collection errors\n"
                                 : console + progress + "Data collection complete\nFinished with 2 collection errors\n" + fallback);
            qt::expect_members(c, members);
            EXPECT_TRUE(c.zip.members.size() > 3 && c.zip.members[3].dos_datetime == dos_when);
            EXPECT_EQ(c.progress.back(), out == "-" ? "SHA256 " + qt::sha256(c.sent) : "OK " + std::to_string(c.sent.size()));
            EXPECT_TRUE(out == "-" || (qt::read_file(dir.file("t.sha256")) == sum &&
                                       qt::run_program("/bin/sh", {"-c", "cd " + dir.path() + " && sha256sum -c t.sha256"}).status == 0));
        }
}

// Entries are collected only when their letters meet -L's, never without -L; with the
// software reported down, entries marked "n" are passed over. Rejected lines are
// reported with their numbers and skipped, the run goes on; -l drops commands and files
// unchecked. A configuration others may change is refused.
TEST(Collect, SelectionAndConfigurationLines)
{
    const std::vector<std::string> lines = {
        "cmd a,-,y,n a /bin/echo a", "cmd b,-,n,n b /bin/echo b", "cmd ab,-,y,n ab /bin/echo ab",
        "cmd A,-,y,n all /bin/echo all", "file z,-,n,y z /etc/hostname", "cmd i,-,Y,n n /bin/true",
        "CMD i,0x10,y,n hex /bin/echo x%d", "file i,-,y,n n etc/hosts", "cmd i,-,y,n n", "  # a comment", "",
        "cmd garbage", "log garbage", std::string(2000, 'z')};
    qt::Collect asked;
    for (const std::string &line : lines)
        asked.config += line + "\n";
    asked.config.pop_back();  // no final newline
    // A long line counts per 1023-byte piece.
    const std::string pieces = "Error on line q.conf:14: " + std::string(1023, 'z') + "\nError on line q.conf:15: " +
                               std::string(977, 'z') + "\n";
    std::string reported[2] = {"", "Error on line q.conf:13: log garbage\n" + pieces};  // without and with -l
    for (int n : {6, 8, 9, 12, 13})
        reported[0] += "Error on line q.conf:" + std::to_string(n) + ": " + lines[n - 1] + "\n";
    reported[0] += pieces;
    const qt::Members::value_type a = {"t/a/@bin@echo_a.out", "a\n"}, b = {"t/b/@bin@echo_b.out", "b\n"},
                              ab = {"t/ab/@bin@echo_ab.out", "ab\n"}, all = {"t/all/@bin@echo_all.out", "all\n"},
                              z = {"t/z/@etc@hostname", qt::read_file("/etc/hostname")}, hex = {"t/hex/@bin@echo_x0.out", "x0\n"};
    const struct { std::string letters; bool down, log_only; qt::Members members; } cases[] = {
        {"a", false, false, {a, ab, all}}, {"b", false, false, {b, ab, all}}, {"ab", false, false, {a, b, ab, all}},
        {"A", false, false, {a, b, ab, all, z, hex}}, {"Z", false, false, {all, z}}, {"c", false, false, {all}},
        {"", false, false, {}}, {"A", true, false, {a, ab, all, hex}}, {"i", false, false, {all, hex}}, {"A", false, true, {}}};
    for (const auto &test : cases) {
        SCOPED_TRACE(test.letters + (test.down ? " down" : "") + (test.log_only ? " -l" : ""));
        qt::TempDir dir;
        asked.args = test.letters.empty() ? std::vector<std::string>{} : std::vector<std::string>{"-L", test.letters};
        if (test.log_only)
            asked.args.push_back("-l");
        asked.job.env = test.down ? std::vector<std::string>{"QUELVANE_INJECT_SPSWDOWN=1"} : std::vector<std::string>{};
        const qt::Collection c = qt::collect(dir, asked);
        EXPECT_EQ(c.run.err, (test.down ? "Injected SPSWDOWN: 1\n" : "") + reported[test.log_only]);
        qt::expect_members(c, test.members, qt::readme(test.letters.empty() ? "i" : test.letters, test.down, test.log_only));
        // --dry-run names the members the run made, in its order (each line's third field).
        std::vector<std::string> dry_args = {"-f", "q.conf", "-a", "t.zip", "--dry-run"}, named, listed;
        dry_args.insert(dry_args.end(), asked.args.begin(), asked.args.end());
        qt::RunSpec job;
        job.env = asked.job.env;
        const qt::RunResult dry = qt::run_quelvane(dir, dry_args, job);
        std::istringstream lines(dry.out);
        for (std::string kind, timeout, name, origin; lines >> kind >> timeout >> name && std::getline(lines, origin);)
            listed.push_back(name);
        for (const auto &member : test.members)
            named.push_back(member.first);
        EXPECT_EQ(dry.status, 0);
        EXPECT_EQ(listed, named);
    }
    qt::TempDir dir;
    const struct { unsigned mode; uid_t owner; std::string said; } refusals[] = {
        {0666, 0, "Config file q.conf is writable by other users; refusing to run it\n"},
        {0600, 12345, "Config file q.conf belongs to user 12345, neither root nor the caller; refusing to run it\n"},
        {0, 0, "q.conf: Is a directory\n"}};  // last: a directory in its place
    asked.status = 6;
    for (const auto &r : refusals) {
        asked.job.in_child = [&] {
            r.mode == 0 ? (unlink("q.conf"), mkdir("q.conf", 0755)) : (chmod("q.conf", r.mode), chown("q.conf", r.owner, 0));
        };
        const qt::Collection c = qt::collect(dir, asked);
        EXPECT_EQ(c.run.err, r.said + "Error reading config file: q.conf\n");
        EXPECT_FALSE(qt::file_exists(dir.file("out.zip")));
    }
}

// One run, time-outs of 1 s: a command pouring out zeros past its time-out with a
// background sleep in its group, one ignoring SIGTERM, one leaving a child on its pipes;
// then 400 KB on standard error and 100 MB (20 MB emulated) on standard output, in flat
// memory. Standard error past the cap keeps our own lines after it and no more.
TEST(Commands, TimeOutsGroupsAndFloods)
{
    qt::TempDir dir;
    const std::string stamp = "date +%s.%N >> " + dir.file("stamps") + "\n", noise = dir.file("noise");
    const std::string past_cap = "head -c 300000 /dev/zero | tr '\\0' ";  // then a letter, then >&2
    qt::script(dir, "slow", stamp + "sleep 30 &\necho $! > " + dir.file("sleep.pid") + "\n" + past_cap + "n >&2\ncat /dev/zero\n");
    qt::script(dir, "deaf", stamp + "trap '' TERM\necho $$ > " + dir.file("deaf.pid") + "\nwhile :; do sleep 0.2; done\n");
    qt::script(dir, "leaves", stamp + "sleep 30 &\necho $! > " + dir.file("child.pid") + "\necho started; " + past_cap +
                                  "w >&2; exit 3\n");
    qt::script(dir, "flood", stamp + "head -c 409600 /dev/urandom > " + noise + "\ndd if=" + noise +
                                 " bs=1024 status=none >&2\nseq 1 20000000 | head -c $1\n");  // the cap met exactly
    // Deflate runs some twenty times slower under an emulator.
    const std::string flood = qt::emulated() ? "20971520" : "104857600";
    qt::Collect asked;
    asked.args = {"-v", "-L", "i"};
    std::string console = "Collecting data into out.zip\nSending README File\nSending CONFIG File\n";
    for (std::string name : {"slow", "deaf", "leaves", "flood"}) {
        const std::string arg = name == "flood" ? " " + flood : "";
        asked.config += "cmd i," + std::string(arg.empty() ? "1" : "60") + ",y,n " + name + " " + dir.file(name) + arg + "\n";
        console += "Starting Command: " + dir.file(name) + arg + "\nCommand '" + dir.file(name) +
                   (name == "slow" || name == "deaf" ? "' timed out\n"
                    : name == "leaves"                  ? "' exited with 3: No such process\n"
                                                        : "' exited normally\n");
    }
    const qt::Collection c = qt::collect(dir, asked);
    const bool sleep_runs = running(dir.file("sleep.pid")), deaf_runs = running(dir.file("deaf.pid"));
    running(dir.file("child.pid"));
    EXPECT_FALSE(sleep_runs) << "the background sleep outlived its group";
    EXPECT_TRUE(deaf_runs) << "never SIGKILL: the command ignoring SIGTERM stays";
    EXPECT_EQ(c.run.out + c.run.err, console + "Completing ZIP archive\nData collection complete\nFinished with 2 collection errors\n");
    std::vector<double> at;  // each command's start: the time-out, the grace until its shell is reaped, the next
    std::istringstream stamps(qt::read_file(dir.file("stamps")));
    for (double t; stamps >> t;)
        at.push_back(t);
    ASSERT_EQ(at.size(), 4u);
    // An emulator starting the next command beside busy neighbours takes longer.
    const double most = qt::emulated() ? 3.0 : 1.5;
    EXPECT_TRUE(at[1] - at[0] > 0.9 && at[1] - at[0] < most && at[2] - at[1] > 0.9 && at[2] - at[1] < most)
        << at[1] - at[0] << " s, " << at[2] - at[1] << " s";
    EXPECT_LT(at[3] - at[2], 1.0) << "the child holding the pipes held up the run";
    const std::string term = "QUELVANE MSG: Command Timeout: Exit Signal: 15\n", written = qt::read_file(noise);
    ASSERT_EQ(written.size(), 409600u);
    auto named = [&](std::string name, std::string tail) { return "t/" + name + "/" + qt::flat(dir.file(name)) + tail; };
    const qt::Member *zeros = c.zip.find(named("slow", ".out"));
    qt::expect_members(c, {
        {named("slow", ".out"), std::string(zeros != nullptr ? std::max<size_t>(1, zeros->data.size()) : 1, '\0')},
        // Our own lines follow the capture even when it filled the buffer.
        {named("slow", ".err"), std::string(262144, 'n') + term}, {named("deaf", ".out"), ""},
        {named("deaf", ".err"), term}, {named("leaves", ".out"), "started\n"},
        {named("leaves", ".err"), std::string(262144, 'w') + "QUELVANE MSG: Child exited with 3: No such process\n"},
        {named("flood", "_" + flood + ".out"), qt::run_program("/bin/sh", {"-c", "seq 1 20000000 | head -c " + flood}).out},
        {named("flood", "_" + flood + ".err"), written.substr(0, 262144)}});
    qt::TempDir small;  // the same flood, 1 MB of it, for the peak memory
    const qt::Collection base = qt::collect(small, {"cmd i,60,y,n f " + dir.file("flood") + " 1048576\n", {"-L", "i"}});
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(c.run.maxrss_kb, 2 * base.run.maxrss_kb);  // shadow memory blurs small differences
#else
    EXPECT_LT(c.run.maxrss_kb, base.run.maxrss_kb + 1024);
#endif
}

// Download mode holds nothing back while a command runs: the header and every finished
// member reach the reader before the slow command that follows them ends; encrypted, every
// whole cipher block of them.
TEST(Commands, FinishedMembersReachTheReaderAtOnce)
{
    for (const std::string password : {"", "pw"}) {
        qt::TempDir dir;
        std::string early;
        qt::Collect asked{"cmd i,-,y,n one /bin/echo first\ncmd i,-,y,n two /bin/sleep 3\n", {"-b", "-L", "i"}, "-", password};
        if (!password.empty())
            asked.args.insert(asked.args.end(), {"-e", "-P", password});
        asked.job.during = [&](pid_t pid) {
            usleep(1500000);  // the sleep below has begun, and has 1.5 s to go
            early = qt::read_file("/proc/" + std::to_string(pid) + "/fd/1");
        };
        const qt::Collection c = qt::collect(dir, asked);
        ASSERT_EQ(c.zip.members.size(), 4u);
        // Everything up to the second command's local header, and nothing of its data yet.
        const qt::Member &second = c.zip.members[3];
        const size_t ready = second.offset + 30 + second.name.size();
        EXPECT_EQ(early.size(), c.header.size() + (password.empty() ? ready : 16 + ready / 16 * 16));
        EXPECT_EQ(early, c.run.out.substr(0, early.size()));
    }
}
