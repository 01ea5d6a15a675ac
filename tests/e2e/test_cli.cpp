// The front end, run for real: command-line refusals, each output mode, the
// early stops with their status, the password prompts, lock and signals.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "deflater.h"
#include "testsupport.h"

namespace {

using Args = std::vector<std::string>;

std::string usage(const std::string &name)
{
    return "       " + name + " [-l] [-v] [-r] [[-q] -{y|n}] [-e [-P encryption-password]] \\\n"
           "                [-L <dataset letters>] -d usb-device\n       " + name + " -h\n";
}

Args req(Args extra)  // -f, -a and -o first
{
    extra.insert(extra.begin(), {"-f", "c", "-a", "x", "-o", "o"});
    return extra;
}

const char NO_F[] = "Missing required -f flag\n";
const char PROGRESS_FD[] = "Invalid file descriptor passed to --progress-fd: it must be open and above 2.\n";
const char BROWSER_PASSWORD[] = "Encryption password must be provided with -P or -I in this usage\n";

// Rows that break two rules expect the first rule's message (then the usage).
const struct { Args args; std::string message; int status; } REFUSALS[] = {
    {{}, "", 0},
    {{"-h"}, "", 0},
    {{"-hv"}, "", 0},
    {{"-h", "-v"}, "", 1},
    {{"-r"}, "Option -r is an unknown option\n", 1},
    {{"--bogus", "-v"}, "Option --bogus is an unknown option\n", 1},
    {{"--deadline"}, "Option --deadline requires an argument\n", 1},
    {{"--gentle=1"}, "Option --gentle=1 takes no argument\n", 1},
    {req({"--deadline=0"}), "Invalid --deadline '0': seconds from 1 to 86400\n", 1},
    {req({"--max-size=4095"}), "Invalid --max-size '4095': bytes, at least 4096, with K, M or G to scale\n", 1},
    {req({"--max-size=2X"}), "Invalid --max-size '2X': bytes, at least 4096, with K, M or G to scale\n", 1},
    {req({"--progress-fd=2"}), PROGRESS_FD, 1},
    {req({"--progress-fd=57"}), PROGRESS_FD, 1},
    {req({"-e", "-I", "3", "--progress-fd=3"}), "Invalid file descriptor passed to --progress-fd: -I reads the password from it.\n", 1},
    {{"-f", "c", "-a", "x", "-o", "-", "--progress-fd=9"}, "Invalid file descriptor passed to --progress-fd: it is the archive's output.\n", 1},
    {req({"--keepalive=0"}), "Invalid --keepalive '0': seconds from 1 to 3600\n", 1},
    {req({"--level=10"}), "Invalid --level '10': a deflate level from 0 to 9\n", 1},
    {req({"-C", "--level=0"}), "-C cannot be used with --level or --fast\n", 1},
    {req({"--fast", "--level=3"}), "--fast and --level cannot be used together\n", 1},
    {req({"-e", "-P", "p", "--pbkdf2=10000001"}), "Invalid --pbkdf2 '10000001': iterations from 1 to 10000000\n", 1},
    {req({"--pbkdf2"}), "--pbkdf2 requires -e flag\n", 1},
    {req({"-e", "-P", "p", "--recipient=c"}), "--recipient and -e cannot be used together\n", 1},
    {req({"--scrub="}), "Option --scrub may not be empty\n", 1},
    {req({"--checksum="}), "Option --checksum may not be empty\n", 1},
    {req({"-e", "-P", "p", "--pbkdf2="}), "Option --pbkdf2 may not be empty\n", 1},
    {req({"--max-size=1M", "--manifest"}), "--max-size cannot be used with --manifest or --recipient\n", 1},
    {{"-b", "-b", "-Z"}, "The -b flag has already been specified.\n", 1},
    {{"-v", "-o"}, "Option -o requires an argument\n", 1},
    {{"-a", "/x"}, "archive-name may not contain '/': '/x'\n", 1},
    {{"-a", "a\r\nSet-Cookie: b.zip"}, "archive-name may not contain control characters\n", 1},
    {{"-a", "...zip"}, "archive-name may not name the parent directory: '...zip'\n", 1},
    {req({"-a", "y"}), "", 1},
    {req({"-f", "y"}), "", 1},
    {req({"-o", "y"}), "", 1},
    {req({"-L", "i1"}), "", 1},
    {{"-v", "-v", "-u", "a", "-u", "b", "-p", "a", "-p", "b"}, NO_F, 1},
    {{"-p", "-b", "-b"}, NO_F, 1},
    {{"-u", "-y", "-y"}, NO_F, 1},
    {req({"-e", "-I", "0"}), "FD 0 not allowed with -I.\n", 1},
    {{"-I", "57"}, "Invalid file descriptor passed to -I.\n", 1},
    {req({"-P", std::string(63, 'p')}), "-P requires -e flag\n", 1},
    {req({"-e", "-P", std::string(64, 'p')}), "Maximum encryption password length is 63 characters.\n", 1},
    {req({"-e", "-P", ""}), "The encryption password may not be empty.\n", 1},
    {{"-f", "c", "-y", "-n"}, "Missing required -a flag\n", 1},
    {req({"-n", "-P", "p", "-y"}), "-y and -n cannot be used together\n", 1},
    {req({"-I", "3", "-P", "p"}), "-P requires -e flag\n", 1},
    {req({"-I", "3"}), "-I requires -e flag\n", 1},
    {{"-f", "c", "-a", "x", "-e", "-I", "3", "-P", "p"}, "-I and -P cannot be used together\n", 1},
    {{"-f", "c", "-a", "x", "-b", "-e"}, "At least one output mode must be specified\n", 1},
    {{"-e", "-f", "c", "-a", "x", "-o", "-", "-d", "x"},
     "Internal error.  USB Device Mode and BUI Download Mode specified simultaneously.\n", 1},
    {{"-e", "-f", "c", "-a", "x", "-o", "-"}, BROWSER_PASSWORD, 1},
    {req({"-b", "-u", "x", "-e"}), BROWSER_PASSWORD, 1},
};

TEST(CommandLine, RefusalPrintsItsMessageThenTheUsage)
{
    qt::TempDir dir;
    for (const auto &r : REFUSALS) {
        SCOPED_TRACE(::testing::PrintToString(r.args));
        qt::RunSpec child;
        child.fds = {{3, "pw"}};
        child.in_child = [] { close(0), dup2(1, 9); };  // -I 0 refused before its fstat; 9 shares the output
        qt::RunResult got = qt::run_quelvane(dir, r.args, child);
        EXPECT_EQ(got.err, r.message + usage("quelvane"));
        EXPECT_EQ(got.out, "");
        EXPECT_EQ(got.status, r.status);
    }
}

// --help and --version answer on standard output and exit 0, whatever else is given.
TEST(CommandLine, HelpAndVersion)
{
    qt::TempDir dir;
    qt::RunResult help = qt::run_quelvane(dir, {"-v", "--help", "-y"});
    EXPECT_EQ(std::to_string(help.status) + help.err + help.out.substr(0, help.out.find('\n')),
              "0Usage: quelvane -f config -a archive-name -o output [option]...");
    qt::RunResult version = qt::run_quelvane(dir, {"--version"});
    EXPECT_EQ(std::to_string(version.status) + version.out + version.err, "0quelvane " QUELVANE_VERSION "\n" + engines_description());
}

// Its commands run only with -L i or -L b; the second writes, what deflate cannot shrink, until it is stopped.
const char CONFIG[] = "# kept byte for byte\ncmd i,30,y,n slow /bin/sleep 5\ncmd b,30,y,n endless /bin/cat /dev/urandom\n";
const std::string FILE_LINES = "Collecting data into out.zip\nData collection complete\n";
const std::string HEADER = "Cache-Control: public\nPragma: public\nContent-Disposition: attachment; "
                           "filename=t.zip\nContent-Type: application/octet-stream; name=t.zip\n\n";
const std::string MISSING = "Unable to open config file: q.conf\nq.conf: No such file or directory\n"
                            "Error reading config file: q.conf\n";
const std::string STOPPED = "Data capture interrupted by user.  Attempting to remove archive.\n";

// out: all of standard output, or in download mode what precedes the archive there (or
// "full" and "null", devices). Rows of status 6 run without the configuration file. reader:
// a command reading the archive, which goes, or "closed" for no standard output at all.
struct Case { std::string out; Args args; std::string console, err = ""; int status = 0; std::string password = "",
              input = ""; int signo = 0; rlim_t file_limit = RLIM_INFINITY; std::string reader = ""; };
const Case RUNS[] = {
    {"out.zip", {}, FILE_LINES},
    {"out.zip", {"-q"}, "Collecting data into out.zip\n"},
    {"-", {}, ""},
    {"-", {"-b"}, HEADER},
    {"-", {"-b", "-u", "x"}, ""},
    {"out.zip", {"-e", "-P", "pw"}, "Output data will be encrypted.\n" + FILE_LINES, "", 0, "pw"},
    {"-", {"-e", "-b", "-I", "7"}, HEADER, "", 0, "x\n"},  // the newline counts
    {"no/out.zip", {}, "", "Unable to open output file: no/out.zip\n", 1},
    {"out.zip", {"-v"}, "Collecting data into out.zip\nSending README File\nExiting with error: 2\n",
     "Error writing data file: File too large\nError while sending README file to zip archive\n", 2, "", "", 0,
     100},  // standard output and error stay below the limit
    {"out.zip", {}, "", MISSING, 6},
    {"out.zip", {"-e"}, "Enter encryption password: \nConfirm encryption password: \nOutput data will be encrypted.\n",
     MISSING, 6, "", "pw\npw\n"},
    {"out.zip", {"-d", "sdb1"}, "Testing writability of USB device...FAILURE\n",
     "Unable to determine USB device mount point from 'out.zip'\n", 1},
    {"./out.zip", {"-d", "sdb1"}, "Testing writability of USB device...SUCCESS\nCollecting data into ./out.zip\n"
     "Data collection complete\n"},
    {"out.zip", {"-L", "i"}, "Collecting data into out.zip\n", STOPPED, 5, "", "", SIGINT},
    {"-", {"-L", "i"}, "", STOPPED, 5, "", "", SIGTERM},
    {"null", {"-L", "i"}, "Collecting data into null\n", STOPPED, 5, "", "", SIGINT},
    // Output failures: the sink's message, then the stage that failed (which one, timing
    // decides). A reader that goes is noticed at once, in a silent command at the next keepalive.
    {"-", {"-L", "b"}, "", "Error writing data file: Broken pipe\n", 2, "", "", 0, RLIM_INFINITY, "head -c 1000 >/dev/null"},
    {"-", {"-L", "i", "--keepalive=1"}, "", "Error writing data file: Broken pipe\n", 2, "", "", 0, RLIM_INFINITY,
     "timeout 0.5 cat >/dev/null"},
    {"full", {"-L", "b"}, "Collecting data into full\n", "Error writing data file: No space left on device\n", 2},
    {"-", {}, "", "Standard output is closed: nowhere to send the archive\n", 2, "", "", 0, RLIM_INFINITY, "closed"},
    // A reader that never reads: the deadline ends the wait, or an interrupt does.
    {"-", {"-L", "b", "--deadline=3"}, "", "Error writing data file: the reader stalled\n", 2, "", "", 0, RLIM_INFINITY, "sleep 10"},
    {"-", {"-L", "b"}, "", STOPPED, 5, "", "", SIGTERM, RLIM_INFINITY, "sleep 10"},
};

TEST(Run, OutputModesEarlyStopsAndSignals)
{
    auto outcome = [](const qt::RunResult &r) { return std::to_string(r.status) + " " + r.err; };
    for (const Case &c : RUNS) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        qt::TempDir dir;
        qt::Collect asked{c.status == 6 ? "" : CONFIG, c.args, c.out, c.password};
        asked.status = c.status;
        asked.job.stdin_data = c.input;
        asked.job.fds = {{7, c.password}};  // for -I 7
        asked.job.in_child = [&c] {
            struct rlimit small = {c.file_limit, c.file_limit};
            setrlimit(RLIMIT_FSIZE, &small);
            signal(SIGXFSZ, SIG_IGN);
            if (c.status == 6)
                unlink("q.conf");
            mknod("full", S_IFCHR | 0666, makedev(1, 7)), mknod("null", S_IFCHR | 0666, makedev(1, 3));
            int pipe_fds[2];
            if (c.reader == "closed") {
                close(1);
            } else if (!c.reader.empty() && pipe(pipe_fds) == 0) {  // the reader a grandchild of ours, never the tool's child
                if (fork() == 0) {
                    if (fork() == 0)
                        dup2(pipe_fds[0], 0), close(pipe_fds[1]), execl("/bin/sh", "sh", "-c", c.reader.c_str(), nullptr);
                    _exit(0);
                }
                wait(nullptr), dup2(pipe_fds[1], 1), close(pipe_fds[0]), close(pipe_fds[1]);
            }
        };
        // Interrupted in a command: while it holds the lock, a run of its name is refused and one of
        // another name runs; the second signal comes while it closes the archive and must not kill it.
        // Files a crashed run left in the lock directory are gone by then; hidden ones stay.
        qt::RunResult same, other, help;
        const std::string lock = dir.file("home/quelvane_tmp/quelvane.quelvane");
        bool stale_seen = true;
        if (c.signo != 0) {
            ASSERT_EQ(system(("mkdir -p " + lock + " && touch " + lock + "/stale " + lock + "/.hidden").c_str()), 0);
            asked.job.during = [&](pid_t pid) {
                // Into the command: the tool holds its lock and has a child (before exec, the copy
                // of us that sets up a reader briefly has one of its own).
                const std::string children = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
                for (int i = 0; i < 500 && (!qt::file_exists(lock + "/.lock") || qt::read_file(children).empty()); i++)
                    usleep(10000);
                stale_seen = qt::file_exists(lock + "/stale");
                qt::RunSpec as_tool;
                as_tool.argv0 = "/some/where/tool.bin";
                same = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "x", "-o", "o"});
                other = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "x", "-o", "o"}, as_tool);
                help = qt::run_quelvane(dir, {"-h"}, as_tool);
                kill(pid, c.signo);
                usleep(300000);  // within the command's grace period
                kill(pid, c.signo);
            };
        }
        const qt::Collection got = qt::collect(dir, asked);
        EXPECT_EQ(c.out == "-" ? got.header : got.run.out, c.console);
        EXPECT_EQ(got.run.err.substr(0, c.reader.empty() && c.out != "full" ? std::string::npos : c.err.size()), c.err);
        EXPECT_LT(got.run.seconds, qt::emulated() ? 12 : 4) << "the slow command ran to its end";
        EXPECT_EQ(qt::left_running(dir.path()), "") << "the command's group outlived the run";
        EXPECT_TRUE(c.signo != 0 || !qt::file_exists(lock)) << "the lock outlived the run";
        struct stat full, null;
        EXPECT_TRUE(stat(dir.file("full").c_str(), &full) == 0 && S_ISCHR(full.st_mode) &&
                    stat(dir.file("null").c_str(), &null) == 0 && S_ISCHR(null.st_mode));
        if (c.status == 0 || (c.out == "-" && c.signo != 0 && c.reader.empty()))  // an interrupted download still ends its archive, and says why
            qt::expect_members(got, c.signo == 0 ? qt::Members{} : qt::Members{{"t/slow/@bin@sleep_5.out", ""},
                                                   {"t/slow/@bin@sleep_5.err", "QUELVANE MSG: User Interrupt\n"}});
        EXPECT_EQ(qt::file_exists(dir.file("out.zip")), c.status == 0 && c.out != "-");
        EXPECT_EQ(qt::run_program("/usr/bin/find", {dir.path(), "-name", "*testwrite*"}).out, "");
        if (c.signo != 0) {
            EXPECT_EQ(outcome(same), "3 An instance of quelvane is already running.\nOnly run one quelvane at a time\n");
            EXPECT_EQ(outcome(other) + other.out, "0 Collecting data into o\nData collection complete\n");
            EXPECT_EQ(outcome(help), "0 " + usage("tool"));
            EXPECT_FALSE(stale_seen);
            EXPECT_TRUE(qt::file_exists(lock + "/.hidden"));
        }
    }
}

// A password typed at a terminal: echo off while typing, on again after; no archive sent to one.
const std::string ENTER = "Enter encryption password: ", CONFIRM = "Confirm encryption password: ";
// lines: typed at each prompt; shown: all the terminal shows, so nothing typed is echoed.
const struct { Args lines; std::string shown, err; int status; std::string out = "out.zip"; } TYPED[] = {
    {{"pa ss\n", "pa ss\n"}, ENTER + "\r\n" + CONFIRM + "\r\nOutput data will be encrypted.\r\n"
                             "Collecting data into out.zip\r\nData collection complete\r\n", "", 0},
    {{"secret\n", "secreT\n"}, ENTER + "\r\n" + CONFIRM + "\r\n", "Passwords do not match\n", 1},
    {{"\n"}, ENTER + "\r\n", "Password may not be empty.\n", 1},
    {{std::string(70, 'k') + "\n"}, ENTER + "\r\n", "Maximum password length is 63 characters.\n", 1},
    {{"half"}, ENTER + "\r\n", "", 1},  // then SIGTERM
    {{}, "", "Refusing to write the archive to a terminal\n", 1, "-"},
};

TEST(Run, PasswordTypedAtATerminal)
{
    for (const auto &t : TYPED) {
        SCOPED_TRACE(t.shown + t.err);
        qt::TempDir dir;
        ASSERT_TRUE(qt::write_file(dir.file("q.conf"), CONFIG));
        int master = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
        const std::string name = ptsname(master);  // becomes the child's controlling terminal
        int held = open(name.c_str(), O_RDWR | O_NOCTTY);  // keeps the output readable after the end
        std::string seen;
        auto shows = [&](const std::string &text) {  // reads until text appears, ten seconds at most
            for (int i = 0; i < 1000 && seen.find(text) == std::string::npos; i++) {
                struct pollfd p = {master, POLLIN, 0};
                char buffer[256];
                ssize_t n = poll(&p, 1, 10) > 0 ? read(master, buffer, sizeof buffer) : 0;
                seen.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            return seen.find(text) != std::string::npos;
        };
        auto echo_on = [master] { termios tio{}; return tcgetattr(master, &tio) == 0 && (tio.c_lflag & ECHO); };
        qt::RunSpec child;
        child.in_child = [name] { setsid(); int tty = open(name.c_str(), O_RDWR); dup2(tty, 0); dup2(tty, 1); };
        child.during = [&](pid_t pid) {
            for (size_t i = 0; i < t.lines.size() && shows(i == 0 ? ENTER : CONFIRM); i++) {
                EXPECT_FALSE(echo_on());
                EXPECT_EQ(write(master, t.lines[i].data(), t.lines[i].size()), ssize_t(t.lines[i].size()));
            }
            usleep(100000);  // into its read
            if (!t.lines.empty() && t.lines.back().back() != '\n')
                kill(pid, SIGTERM);
        };
        qt::RunResult r = qt::run_quelvane(dir, {t.out == "-" ? "-v" : "-e", "-f", "q.conf", "-a", "t.zip", "-o", t.out}, child);
        EXPECT_TRUE(shows(t.shown) && seen == t.shown) << seen;
        EXPECT_EQ(std::to_string(r.status) + " " + r.err, std::to_string(t.status) + " " + t.err);
        EXPECT_TRUE(echo_on());
        if (t.status == 0) {
            ASSERT_EQ(qt::openssl_decrypt(dir.file("out.zip"), "pa ss", dir.file("plain.zip")), "");
            const qt::Archive zip = qt::read_archive(dir.file("plain.zip"));
            EXPECT_EQ(zip.problems + zip.data("t/CONFIG"), CONFIG);
        }
        close(held);
        close(master);
    }
}

}  // namespace
