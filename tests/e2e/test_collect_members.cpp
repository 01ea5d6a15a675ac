// What a configuration turns into: the members, their names, order and
// contents, dataset selection, file failures and the error count, in every
// output mode, against the real binary.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <ostream>

#include "collect_fixture.h"

using collect::Collected;
using collect::flat;
using collect::script;

namespace {

uint32_t dos_datetime(time_t t)
{
    struct tm local;
    localtime_r(&t, &local);
    return static_cast<uint32_t>((local.tm_year - 80) << 25 | (local.tm_mon + 1) << 21 |
                                 local.tm_mday << 16 | local.tm_hour << 11 | local.tm_min << 5 |
                                 local.tm_sec / 2);
}

// 1 January 1980, 00:00: what a collected file's ".err" member declares.
constexpr uint32_t DOS_EPOCH = 0x00210000;

struct OutputMode {
    const char *name;
    bool download;
    bool encrypted;
};

std::ostream &operator<<(std::ostream &out, const OutputMode &m) { return out << m.name; }

class MixedConfiguration : public ::testing::TestWithParam<OutputMode> {};

}  // namespace

// Commands, a per-domain command, a literal file and a pattern, in file
// order after README and CONFIG, named by entry and path, with their
// contents; to a file or standard output, plain or encrypted.
TEST_P(MixedConfiguration, YieldsTheExpectedMembers)
{
    const OutputMode &mode = GetParam();
    qt::TempDir dir;
    std::string ifc = script(dir, "ifc", "echo \"interface $1\"\n");
    std::string both = script(dir, "both", "echo to-out; echo to-err >&2\n");
    std::string hosts = dir.file("hosts");
    ASSERT_TRUE(qt::write_file(hosts, "127.0.0.1 localhost\n"));
    ASSERT_EQ(mkdir(dir.file("logs").c_str(), 0755), 0);
    ASSERT_TRUE(qt::write_file(dir.file("logs/b.log"), "second log\n"));
    ASSERT_TRUE(qt::write_file(dir.file("logs/a.log"), "first log\n"));
    ASSERT_TRUE(qt::write_file(dir.file("logs/notes.txt"), "not a log\n"));
    struct utimbuf when = {1000000000, 1000000000};
    ASSERT_EQ(utime(hosts.c_str(), &when), 0);

    std::string config = "# system state\n"
                         "cmd i,-,y,n system/uname /bin/uname -s\n"
                         "cut i,-,y,n system/ifconfig " + ifc + " eth%d\n"
                         "file i,-,y,y etc " + hosts + "\n"
                         "\n"
                         "log i,-,y,n logs " + dir.file("logs/*.log") + "\n"
                         "cmd i,-,y,n both " + both + "\n";
    std::vector<std::string> args = {"-v", "-L", "i"};
    if (mode.encrypted)
        args.insert(args.end(), {"-e", "-P", "pass word"});
    Collected c = mode.download ? collect::download(dir, config, args) : collect::collect(dir, config, args);
    if (mode.encrypted) {
        ASSERT_EQ(c.bytes.compare(0, 8, "Salted__"), 0);
        std::string plain = dir.file("plain.zip");
        ASSERT_EQ(qt::openssl_decrypt(c.path, "pass word", plain), "");
        c.path = plain;
        c.bytes = qt::read_file(plain);
        c.zip = qt::read_zip(c.bytes);
    }

    EXPECT_EQ(c.run.status, 0);
    std::string progress = "Sending README File\n"
                           "Sending CONFIG File\n"
                           "Starting Command: /bin/uname -s\n"
                           "Command '/bin/uname' exited normally\n"
                           "Starting Command: " + ifc + " eth0\n"
                           "Command '" + ifc + "' exited normally\n"
                           "Collecting file: " + hosts + " - Status: ok\n"
                           "Collecting file: " + dir.file("logs/a.log") + " - Status: ok\n"
                           "Collecting file: " + dir.file("logs/b.log") + " - Status: ok\n"
                           "Starting Command: " + both + "\n"
                           "Command '" + both + "' exited normally\n"
                           "Completing ZIP archive\n";
    if (mode.download) {
        EXPECT_EQ(c.run.err, progress + "Finished with 0 collection errors\n");
    } else {
        EXPECT_EQ(c.run.err, "");
        EXPECT_EQ(c.run.out, std::string(mode.encrypted ? "Output data will be encrypted.\n" : "") +
                                 "Collecting data into " + c.path.substr(0, c.path.rfind('/')) +
                                 "/out.zip\n" + progress +
                                 "Data collection complete\nFinished with 0 collection errors\n");
    }

    std::vector<std::string> expected = {
        "t/README",
        "t/CONFIG",
        "t/system/uname/@bin@uname_-s.out",
        "t/system/ifconfig/" + flat(ifc) + "_eth0.out",
        "t/etc/" + flat(hosts),
        "t/logs/" + flat(dir.file("logs/a.log")),
        "t/logs/" + flat(dir.file("logs/b.log")),
        "t/both/" + flat(both) + ".out",
        "t/both/" + flat(both) + ".err",
    };
    ASSERT_EQ(c.zip.names(), expected) << c.zip.error;
    EXPECT_EQ(c.data("t/README"), collect::readme("i"));
    EXPECT_EQ(c.data("t/CONFIG"), config);
    EXPECT_EQ(c.data(expected[2]), "Linux\n");
    EXPECT_EQ(c.data(expected[3]), "interface eth0\n");
    EXPECT_EQ(c.data(expected[4]), "127.0.0.1 localhost\n");
    EXPECT_EQ(c.data(expected[5]), "first log\n");
    EXPECT_EQ(c.data(expected[6]), "second log\n");
    EXPECT_EQ(c.data(expected[7]), "to-out\n");
    EXPECT_EQ(c.data(expected[8]), "to-err\n");
    // A collected file carries its own modification time.
    EXPECT_EQ(c.zip.find(expected[4])->dos_datetime, dos_datetime(1000000000));
    collect::expect_readable(c);
}

INSTANTIATE_TEST_SUITE_P(Collect, MixedConfiguration,
                         ::testing::Values(OutputMode{"File", false, false},
                                           OutputMode{"EncryptedFile", false, true},
                                           OutputMode{"Download", true, false},
                                           OutputMode{"EncryptedDownload", true, true}),
                         [](const auto &info) { return std::string(info.param.name); });

// Files that cannot be collected: which are counted, what the console and
// the ".err" members say, and what the readers make of them.
TEST(Collect, FileFailuresAndTheErrorCount)
{
    qt::TempDir dir;
    ASSERT_EQ(mkdir(dir.file("adir").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir.file("links").c_str(), 0755), 0);
    // A match whose file is gone by the time it is read.
    ASSERT_EQ(symlink(dir.file("deleted").c_str(), dir.file("links/gone.log").c_str()), 0);
    std::string adir = dir.file("adir");
    std::string missing = dir.file("missing");
    std::string gone = dir.file("links/gone.log");
    std::string config = "file i,-,y,y dir " + adir + "\n" +
                         "file i,-,y,y missing " + missing + "\n" +
                         "log i,-,y,n none " + dir.file("nothing/*.log") + "\n" +
                         "log i,-,y,n links " + dir.file("links/*.log") + "\n" +
                         // Opens, then fails to read: counted.
                         "file i,-,y,y mem /proc/self/mem\n" +
                         "file i,-,y,y ok /etc/hostname\n";
    Collected c = collect::collect(dir, config, {"-v", "-L", "i"});

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.err, "");
    EXPECT_EQ(c.run.out,
              "Collecting data into " + c.path + "\n"
              "Sending README File\n"
              "Sending CONFIG File\n"
              "Collecting file: " + adir + " - Status: No file status\n"
              "Error for file: " + adir + ": Not a file\n"
              "Collecting file: " + missing + " - Status: No file status\n"
              "Error for file: " + missing + ": No such file\n"
              "Collecting file: " + gone + " - Status: No file status\n"
              "Error for file: " + gone + ": No such file\n"
              "Collecting file: /proc/self/mem - Status: FAIL\n"
              " - Status: FAIL reading file, errno=5\n"
              "Collecting file: /etc/hostname - Status: ok\n"
              "Completing ZIP archive\n"
              "Data collection complete\n"
              "Finished with 1 collection errors\n");

    std::vector<std::string> expected = {
        "t/README",
        "t/CONFIG",
        "t/dir/" + flat(adir) + ".err",
        "t/missing/" + flat(missing) + ".err",
        "t/links/" + flat(gone) + ".err",
        "t/mem/@proc@self@mem",
        "t/mem/@proc@self@mem.err",
        "t/ok/@etc@hostname",
    };
    ASSERT_EQ(c.zip.names(), expected) << c.zip.error;
    EXPECT_EQ(c.data(expected[2]), "Error for file: " + adir + ": Not a file\n");
    EXPECT_EQ(c.data(expected[3]), "Error for file: " + missing + ": No such file\n");
    EXPECT_EQ(c.data(expected[4]), "Error for file: " + gone + ": No such file\n");
    EXPECT_EQ(c.data(expected[5]), "");
    EXPECT_EQ(c.data(expected[6]), "Unable to read file: /proc/self/mem: Input/output error\n");
    EXPECT_EQ(c.data(expected[7]), qt::read_file("/etc/hostname"));
    // The ".err" of a collected file declares size 0 and 1 January 1980,
    // whatever it holds.
    for (int i : {2, 3, 4, 6}) {
        EXPECT_EQ(c.zip.entries[i].declared_size, 0u) << expected[i];
        EXPECT_EQ(c.zip.entries[i].dos_datetime, DOS_EPOCH) << expected[i];
    }
    collect::expect_readable(c, {expected[2], expected[3], expected[4], expected[6]});
}

// Forbidden files are reported like missing ones and not counted.
TEST(Collect, ForbiddenFilesAreNotCounted)
{
    qt::TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    std::string secret = dir.file("secret");
    std::string closed = dir.file("closed");
    // Mode 0 keeps out the owner too, when the tests do not run as root.
    ASSERT_TRUE(qt::write_file(secret, "hidden\n", 0));
    ASSERT_EQ(mkdir(closed.c_str(), 0700), 0);
    ASSERT_TRUE(qt::write_file(closed + "/inside", "hidden\n", 0644));
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    ASSERT_EQ(mkdir(dir.file("home").c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir.file("home").c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0777), 0);

    qt::RunSpec spec;
    // Root reads everything: run as nobody to meet the permission checks.
    if (geteuid() == 0)
        spec.in_child = [] {
            if (setgid(65534) != 0 || setuid(65534) != 0)
                _exit(125);
        };
    std::string config = "file i,-,y,y secret " + secret + "\n" +
                         "file i,-,y,y closed " + closed + "/inside\n";
    Collected c = collect::collect(dir, config, {"-v", "-L", "i"}, spec);

    EXPECT_EQ(c.run.status, 0) << c.run.err;
    EXPECT_EQ(c.run.out,
              "Collecting data into " + c.path + "\n"
              "Sending README File\n"
              "Sending CONFIG File\n"
              "Collecting file: " + secret + " - Status: FAIL\n"
              "Unable to open file: " + secret + ": Permission denied\n"
              "Collecting file: " + closed + "/inside - Status: No file status\n"
              "Error for file: " + closed + "/inside: Permission denied\n"
              "Completing ZIP archive\n"
              "Data collection complete\n"
              "Finished with 0 collection errors\n");
    std::vector<std::string> expected = {"t/README", "t/CONFIG", "t/secret/" + flat(secret) + ".err",
                                         "t/closed/" + flat(closed) + "@inside.err"};
    ASSERT_EQ(c.zip.names(), expected) << c.zip.error;
    EXPECT_EQ(c.data(expected[2]), "Unable to open file: " + secret + ": Permission denied\n");
    EXPECT_EQ(c.data(expected[3]), "Error for file: " + closed + "/inside: Permission denied\n");
    collect::expect_readable(c, {expected[2], expected[3]});
}

// An entry is collected only when its letters meet the run's; without -L
// nothing but README and CONFIG.
TEST(Collect, DatasetSelection)
{
    qt::TempDir dir;
    std::string config = "cmd a,-,y,n only-a /bin/echo a\n"
                         "cmd b,-,y,n only-b /bin/echo b\n"
                         "cmd ab,-,y,n a-and-b /bin/echo ab\n"
                         "cmd A,-,y,n every /bin/echo every\n"
                         "file z,-,y,y only-z /etc/hostname\n";
    struct Case {
        std::vector<std::string> args;
        std::string letters;  // as the README shows them
        std::vector<std::string> members;
    };
    const std::string a = "t/only-a/@bin@echo_a.out", b = "t/only-b/@bin@echo_b.out",
                      ab = "t/a-and-b/@bin@echo_ab.out", every = "t/every/@bin@echo_every.out",
                      z = "t/only-z/@etc@hostname";
    const Case cases[] = {
        {{"-L", "a"}, "a", {a, ab, every}},
        {{"-L", "b"}, "b", {b, ab, every}},
        {{"-L", "ab"}, "ab", {a, b, ab, every}},
        {{"-L", "A"}, "A", {a, b, ab, every, z}},
        {{"-L", "Z"}, "Z", {every, z}},
        {{"-L", "c"}, "c", {every}},
        {{}, "i", {}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE("letters " + test.letters);
        qt::TempDir run_dir;
        Collected c = collect::collect(run_dir, config, test.args);
        EXPECT_EQ(c.run.status, 0);
        std::vector<std::string> expected = {"t/README", "t/CONFIG"};
        expected.insert(expected.end(), test.members.begin(), test.members.end());
        EXPECT_EQ(c.zip.names(), expected) << c.zip.error;
        EXPECT_EQ(c.data("t/README"), collect::readme(test.letters));
        collect::expect_readable(c);
    }
}

// With the service processor's software reported down, entries marked "n"
// are skipped and the README says so.
TEST(Collect, SoftwareDownSkipsMarkedEntries)
{
    qt::TempDir dir;
    std::string config = "cmd i,-,n,n skipped /bin/echo skipped\n"
                         "cmd i,-,y,n kept /bin/echo kept\n"
                         "file i,-,n,y skipped-file /etc/hostname\n"
                         "file i,-,y,y kept-file /etc/hostname\n";
    qt::RunSpec spec;
    spec.env = {"QUELVANE_INJECT_SPSWDOWN=1"};
    Collected c = collect::collect(dir, config, {"-L", "i"}, spec);

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.err, "Injected SPSWDOWN: 1\n");
    std::vector<std::string> expected = {"t/README", "t/CONFIG", "t/kept/@bin@echo_kept.out",
                                         "t/kept-file/@etc@hostname"};
    EXPECT_EQ(c.zip.names(), expected) << c.zip.error;
    EXPECT_EQ(c.data("t/README"), collect::readme("i", true));
    collect::expect_readable(c);
}
