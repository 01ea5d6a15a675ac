// Whole runs: what each output mode writes, the status lines, and the exit
// status with the archive kept or removed.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testsupport.h"

namespace {

const char CONFIG_TEXT[] =
    "# a small collection\n"
    "cmd i,-,y,n sys/greeting /bin/echo hello world\n"
    "cmd b,-,y,n other /bin/echo not selected\n";

std::string readme(const std::string &archive_name, const std::string &config, const char *log_only,
                   const std::string &letters, const char *sp_sw_down)
{
    return "Archive Name: " + archive_name + "\nConfig File: " + config +
           "\nVersion: 1.1\nLOG-ONLY MODE: " + log_only + "\nLog Sets: " + letters +
           "\nSP SW DOWN: " + sp_sw_down + "\nMax Domains: 1\n";
}

const std::string HEADER_FOR_X_ZIP =
    "Cache-Control: public\nPragma: public\nContent-Disposition: attachment; filename=x.zip\n"
    "Content-Type: application/octet-stream; name=x.zip\n\n";

// A directory holding the configuration file used by most runs.
struct RunDir {
    qt::TempDir dir;
    std::string conf = dir.file("q.conf");
    RunDir() { EXPECT_TRUE(qt::write_file(conf, CONFIG_TEXT)); }
};

// Checks an archive made from CONFIG_TEXT: README and CONFIG come first,
// under the prefix, and every real reader takes it.
void expect_archive(const std::string &bytes, const std::string &scratch, const std::string &prefix,
                    const std::string &readme_text, const std::string &config_text,
                    bool greeting_collected)
{
    qt::ZipArchive zip = qt::read_zip(bytes);
    EXPECT_EQ(zip.error, "");
    std::vector<std::string> names = {prefix + "README", prefix + "CONFIG"};
    if (greeting_collected)
        names.push_back(prefix + "sys/greeting/@bin@echo_hello_world.out");
    EXPECT_EQ(zip.names(), names);
    if (zip.entries.size() >= 2) {
        EXPECT_EQ(zip.entries[0].data, readme_text);
        EXPECT_EQ(zip.entries[1].data, config_text);
    }
    if (greeting_collected && zip.entries.size() == 3) {
        EXPECT_EQ(zip.entries[2].data, "hello world\n");
    }
    ASSERT_TRUE(qt::write_file(scratch, bytes));
    EXPECT_EQ(qt::check_real_readers(scratch), "");
}

TEST(FileOutput, ArchiveStatusLinesAndReaders)
{
    RunDir s;
    // An older, longer file of the same name is replaced, not overwritten in place.
    ASSERT_TRUE(qt::write_file(s.dir.file("out.zip"), std::string(100000, 'J')));
    qt::RunResult r = qt::run_quelvane(s.dir, {"-L", "i", "-f", s.conf, "-a", "x.zip", "-o", "out.zip"});
    EXPECT_EQ(r.out, "Collecting data into out.zip\nData collection complete\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    expect_archive(qt::read_file(s.dir.file("out.zip")), s.dir.file("copy.zip"), "x/",
                   readme("x.zip", s.conf, "no", "i", "no"), CONFIG_TEXT, true);
    struct stat st;
    ASSERT_EQ(stat(s.dir.file("out.zip").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST(FileOutput, ArchiveBaseAndReadmeFields)
{
    struct Case {
        const char *what;
        std::vector<std::string> extra;
        std::vector<std::string> env;
        std::string archive;
        std::string prefix;
        const char *log_only;
        std::string letters;
        const char *sp_sw_down;
        std::string err;
        bool greeting;
    } cases[] = {
        {"without -L nothing is selected", {}, {}, "x.zip", "x/", "no", "i", "no", "", false},
        {"name without .zip", {"-L", "iz"}, {}, "plain", "plain/", "no", "iz", "no", "", true},
        {"cut at the first .zip", {"-L", "i"}, {}, "a.zip.b.zip", "a/", "no", "i", "no", "", true},
        {"cut before .zip.e", {"-L", "i"}, {}, "c.zip.e", "c/", "no", "i", "no", "", true},
        {"empty base", {"-L", "i"}, {}, ".zip", "", "no", "i", "no", "", true},
        {"log-only drops commands", {"-l", "-L", "A"}, {}, "x.zip", "x/", "yes", "A", "no", "", false},
        {"injected down", {"-L", "i"}, {"QUELVANE_INJECT_SPSWDOWN=3"}, "x.zip", "x/", "no", "i", "yes",
         "Injected SPSWDOWN: 3\n", true},
        {"injected non-number", {"-L", "i"}, {"QUELVANE_INJECT_SPSWDOWN=many"}, "x.zip", "x/", "no", "i",
         "no", "Injected SPSWDOWN: 0\n", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RunDir s;
        std::vector<std::string> args = {"-f", s.conf, "-a", c.archive, "-o", "out.zip"};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        qt::RunSpec spec;
        spec.env = c.env;
        qt::RunResult r = qt::run_quelvane(s.dir, args, spec);
        EXPECT_EQ(r.out, "Collecting data into out.zip\nData collection complete\n");
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.status, 0);
        expect_archive(qt::read_file(s.dir.file("out.zip")), s.dir.file("copy.zip"), c.prefix,
                       readme(c.archive, s.conf, c.log_only, c.letters, c.sp_sw_down), CONFIG_TEXT,
                       c.greeting);
    }
}

TEST(FileOutput, QuietAndVerboseLines)
{
    struct Case {
        std::vector<std::string> extra;
        std::string out;
    } cases[] = {
        {{"-q"}, "Collecting data into out.zip\n"},
        {{"-q", "-v"}, "Collecting data into out.zip\n"},
        {{"-v", "-q"}, "Collecting data into out.zip\n"},
        {{"-v"},
         "Collecting data into out.zip\nSending README File\nSending CONFIG File\n"
         "Completing ZIP archive\nData collection complete\nFinished with 0 collection errors\n"},
        {{"-v", "-L", "i"},
         "Collecting data into out.zip\nSending README File\nSending CONFIG File\n"
         "Starting Command: /bin/echo hello world\nCommand '/bin/echo' exited normally\n"
         "Completing ZIP archive\nData collection complete\nFinished with 0 collection errors\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.extra.size() > 1 ? c.extra[0] + c.extra[1] : c.extra[0]);
        RunDir s;
        std::vector<std::string> args = {"-f", s.conf, "-a", "x.zip", "-o", "out.zip"};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        qt::RunResult r = qt::run_quelvane(s.dir, args);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(qt::read_zip(qt::read_file(s.dir.file("out.zip"))).error, "");
    }
}

TEST(FileOutput, CollectionErrorsDoNotChangeTheStatus)
{
    RunDir s;
    ASSERT_TRUE(qt::write_file(s.conf, "cmd i,-,y,n gone /nonexistent/program\n"
                                       "cmd i,-,y,n sys/greeting /bin/echo hello world\n"));
    qt::RunResult r =
        qt::run_quelvane(s.dir, {"-v", "-L", "i", "-f", s.conf, "-a", "x.zip", "-o", "out.zip"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::string tail = "Data collection complete\nFinished with 1 collection errors\n";
    ASSERT_GE(r.out.size(), tail.size());
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    EXPECT_EQ(qt::check_real_readers(s.dir.file("out.zip")), "");
}

// Browser download: the archive on standard output, with the header when
// -b asks for it and -u does not refuse it.
TEST(DownloadOutput, HeaderAndArchiveOnStandardOutput)
{
    struct Case {
        std::vector<std::string> extra;
        bool header;
    } cases[] = {
        {{}, false},
        {{"-b"}, true},
        {{"-b", "-u", "any"}, false},
        {{"-q", "-b"}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.extra.empty() ? "plain" : c.extra.back());
        RunDir s;
        std::vector<std::string> args = {"-L", "i", "-f", s.conf, "-a", "x.zip", "-o", "-"};
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        qt::RunResult r = qt::run_quelvane(s.dir, args);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.status, 0);
        std::string bytes = r.out;
        if (c.header) {
            ASSERT_EQ(bytes.compare(0, HEADER_FOR_X_ZIP.size(), HEADER_FOR_X_ZIP), 0) << bytes.substr(0, 200);
            bytes.erase(0, HEADER_FOR_X_ZIP.size());
        }
        expect_archive(bytes, s.dir.file("copy.zip"), "x/", readme("x.zip", s.conf, "no", "i", "no"),
                       CONFIG_TEXT, true);
        // Nothing named "-" was made.
        EXPECT_FALSE(qt::file_exists(s.dir.file("-")));
    }
}

TEST(DownloadOutput, HeaderOnlyInDownloadMode)
{
    RunDir s;
    qt::RunResult r = qt::run_quelvane(s.dir, {"-b", "-f", s.conf, "-a", "x.zip", "-o", "out.zip"});
    EXPECT_EQ(r.out, "Collecting data into out.zip\nData collection complete\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(qt::read_zip(qt::read_file(s.dir.file("out.zip"))).error, "");
}

TEST(DownloadOutput, ProgressGoesToStandardError)
{
    RunDir s;
    qt::RunResult r = qt::run_quelvane(s.dir, {"-v", "-f", s.conf, "-a", "x.zip", "-o", "-"});
    EXPECT_EQ(r.err, "Sending README File\nSending CONFIG File\nCompleting ZIP archive\n"
                     "Finished with 0 collection errors\n");
    EXPECT_EQ(r.status, 0);
    expect_archive(r.out, s.dir.file("copy.zip"), "x/", readme("x.zip", s.conf, "no", "i", "no"),
                   CONFIG_TEXT, false);
}

TEST(EncryptedOutput, DecryptsToTheSameArchive)
{
    struct Case {
        const char *what;
        std::vector<std::string> extra;
        std::vector<std::pair<int, std::string>> fds;
        std::string password;
        bool download;
        std::string out_before;  // what precedes the archive (file mode: whole stdout)
    } cases[] = {
        {"file, -P", {"-P", "pw"}, {}, "pw", false,
         "Output data will be encrypted.\nCollecting data into out.zip\nData collection complete\n"},
        {"file, -P, quiet", {"-q", "-P", "pw"}, {}, "pw", false, "Collecting data into out.zip\n"},
        {"file, -I", {"-I", "3"}, {{3, "from fd\n"}}, "from fd\n", false,
         "Output data will be encrypted.\nCollecting data into out.zip\nData collection complete\n"},
        {"download, -P", {"-o", "-", "-P", "pw"}, {}, "pw", true, ""},
        {"download with header, -I", {"-b", "-o", "-", "-I", "7"}, {{7, "x"}}, "x", true,
         HEADER_FOR_X_ZIP},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RunDir s;
        std::vector<std::string> args = {"-e", "-L", "i", "-f", s.conf, "-a", "x.zip"};
        if (!c.download)
            args.insert(args.end(), {"-o", "out.zip"});
        args.insert(args.end(), c.extra.begin(), c.extra.end());
        qt::RunSpec spec;
        spec.fds = c.fds;
        qt::RunResult r = qt::run_quelvane(s.dir, args, spec);
        EXPECT_EQ(r.err, "");
        ASSERT_EQ(r.status, 0);
        std::string encrypted;
        if (c.download) {
            ASSERT_EQ(r.out.compare(0, c.out_before.size(), c.out_before), 0);
            encrypted = r.out.substr(c.out_before.size());
        } else {
            EXPECT_EQ(r.out, c.out_before);
            encrypted = qt::read_file(s.dir.file("out.zip"));
        }
        EXPECT_EQ(encrypted.compare(0, 8, "Salted__"), 0);
        ASSERT_TRUE(qt::write_file(s.dir.file("enc"), encrypted));
        ASSERT_EQ(qt::openssl_decrypt(s.dir.file("enc"), c.password, s.dir.file("plain.zip")), "");
        expect_archive(qt::read_file(s.dir.file("plain.zip")), s.dir.file("copy.zip"), "x/",
                       readme("x.zip", s.conf, "no", "i", "no"), CONFIG_TEXT, true);
    }
}

TEST(ExitStatus, OutputFileThatCannotBeOpened)
{
    RunDir s;
    qt::RunResult r =
        qt::run_quelvane(s.dir, {"-f", s.conf, "-a", "x.zip", "-o", "no/such/dir/out.zip"});
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Unable to open output file: no/such/dir/out.zip\n");
    EXPECT_EQ(r.status, 1);
}

TEST(ExitStatus, UnreadableConfiguration)
{
    RunDir s;
    const std::string missing = s.dir.file("missing.conf");
    qt::RunResult r = qt::run_quelvane(s.dir, {"-v", "-f", missing, "-a", "x.zip", "-o", "out.zip"});
    EXPECT_EQ(r.out, "Exiting with error: 6\n");
    EXPECT_EQ(r.err, "Unable to open config file: " + missing + "\n" + missing +
                         ": No such file or directory\nError reading config file: " + missing + "\n");
    EXPECT_EQ(r.status, 6);
    // The output is opened only after the configuration was read.
    EXPECT_FALSE(qt::file_exists(s.dir.file("out.zip")));
}

// A file system that refuses to grow the archive: the partial file goes.
// The limit holds for the captured standard output and error as well, so
// it stays above what they receive.
TEST(ExitStatus, OutputFailingWhileWriting)
{
    const std::string write_error = "Error writing data file: File too large\n";
    struct Case {
        const char *what;
        rlim_t limit;
        std::string config;
        std::string out;
        std::string err;
    } cases[] = {
        {"README", 100, CONFIG_TEXT,
         "Collecting data into out.zip\nSending README File\nExiting with error: 2\n",
         write_error + "Error while sending README file to zip archive\n"},
        {"walk", 4096, "cmd i,-,y,n big /usr/bin/head -c 300000 /dev/urandom\n",
         "Collecting data into out.zip\nSending README File\nSending CONFIG File\n"
         "Starting Command: /usr/bin/head -c 300000 /dev/urandom\nError with output\n"
         "Exiting with error: 2\n",
         write_error + "Error with output: File too large\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        RunDir s;
        ASSERT_TRUE(qt::write_file(s.conf, c.config));
        qt::RunSpec spec;
        rlim_t limit = c.limit;
        spec.in_child = [limit] {
            struct rlimit small = {limit, limit};
            setrlimit(RLIMIT_FSIZE, &small);
            signal(SIGXFSZ, SIG_IGN);
        };
        qt::RunResult r = qt::run_quelvane(
            s.dir, {"-v", "-L", "i", "-f", s.conf, "-a", "x.zip", "-o", "out.zip"}, spec);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
        EXPECT_FALSE(qt::file_exists(s.dir.file("out.zip")));
    }
}

// Waits until the archive has its first members, so the walk is under way.
void wait_for_archive(const std::string &path)
{
    struct stat st;
    for (int i = 0; i < 1000; i++) {
        if (stat(path.c_str(), &st) == 0 && st.st_size > 0)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

// The first interrupt stops the walk; the second must not kill the tool
// while it closes the archive.
TEST(ExitStatus, InterruptedWalkRemovesTheArchive)
{
    RunDir s;
    ASSERT_TRUE(qt::write_file(s.conf, "cmd i,30,y,n slow /bin/sleep 20\n"
                                       "cmd i,-,y,n after /bin/echo after\n"));
    const std::string out = s.dir.file("out.zip");
    qt::RunSpec spec;
    const std::string lock_dir = s.dir.file("home/quelvane_tmp/quelvane.quelvane");
    spec.during = [out, lock_dir](pid_t pid) {
        wait_for_archive(out);
        // Left in the lock directory during the run: cleared at release.
        qt::write_file(lock_dir + "/scratch", "x");
        kill(pid, SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        kill(pid, SIGINT);
        kill(pid, SIGTERM);
    };
    qt::RunResult r =
        qt::run_quelvane(s.dir, {"-v", "-L", "i", "-f", s.conf, "-a", "x.zip", "-o", "out.zip"}, spec);
    EXPECT_EQ(r.term_signal, 0);
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.err, "Data capture interrupted by user.  Attempting to remove archive.\n");
    EXPECT_EQ(r.out,
              "Collecting data into out.zip\nSending README File\nSending CONFIG File\n"
              "Starting Command: /bin/sleep 20\nCommand '/bin/sleep' interrupted by user\n"
              "Interrupted by user\n");
    EXPECT_FALSE(qt::file_exists(out));
    EXPECT_FALSE(qt::file_exists(lock_dir));
    EXPECT_LT(r.seconds, 15);
}

}  // namespace
