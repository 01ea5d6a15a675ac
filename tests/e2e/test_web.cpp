// The browser download path through a real lighttpd serving examples/web: curl and a
// headless Chromium save the archive under its suggested name, the first bytes come at
// once, a client that goes away ends the run with status 2 and nothing left behind, and
// the operator's page shows each entry's progress while its download runs.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "testsupport.h"

namespace {

std::string host_name()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return name;
}

// lighttpd serving examples/web from dir; downloads go to got, saved under the name the tool gives.
class WebServer {
public:
    const std::string saved = "controller-" + host_name() + ".zip", got;

    explicit WebServer(const qt::TempDir &dir, const std::string &tool = qt::quelvane_binary())
        : got(dir.file("got")), dir_(dir), port_(qt::free_port())
    {
        mkdir(got.c_str(), 0755);
        for (const char *cgi : {"quelvane.cgi", "quelvane-encrypted.cgi", "progress.cgi", "quelvane-cgi.sh"})
            qt::script(dir, cgi, qt::read_file(std::string(QUELVANE_SOURCE_DIR "/examples/web/") + cgi));
        qt::write_file(dir.file("index.html"), qt::read_file(QUELVANE_SOURCE_DIR "/examples/web/index.html"));
        // The plain CGI under a shell that outlives the server's signals and notes the tool's status.
        qt::script(dir, "status.cgi", "trap '' TERM HUP PIPE\nsh ./quelvane.cgi\necho $? > " + dir.file("status") + "\n");
        qt::write_file(dir.file("password"), "secret\n", 0600);
        const std::string config =
            "server.document-root = \"" + dir.path() + "\"\nserver.bind = \"127.0.0.1\"\nserver.port = " +
            std::to_string(port_) + "\nserver.errorlog = \"" + dir.file("error.log") +
            "\"\nserver.modules += ( \"mod_cgi\", \"mod_setenv\" )\ncgi.assign = ( \".cgi\" => \"\" )\n"
            "mimetype.assign = ( \".html\" => \"text/html\" )\n"
            "server.stream-response-body = 2\nsetenv.add-environment = ( \"QUELVANE\" => \"" + tool +
            "\", \"QUELVANE_DEADLINE\" => \"4\", \"QUELVANE_CONF\" => \"" + dir.file("q.conf") + "\", \"QUELVANE_HOME\" => \"" + dir.path() +
            "\", \"QUELVANE_PASSWORD_FILE\" => \"" + dir.file("password") + "\", \"QUELVANE_PROGRESS_DIR\" => \"" +
            dir.file("progress") + "\", \"" +
            qt::RUN_MARK.substr(0, qt::RUN_MARK.size() - 1) + "\" => \"" + dir.path() + "\" )\n";
        qt::write_file(dir.file("lighttpd.conf"), config);
        pid_ = fork();
        if (pid_ == 0) {
            int log = open(dir.file("server.log").c_str(), O_WRONLY | O_CREAT, 0644);
            dup2(log, 1);
            dup2(log, 2);
            execl("/usr/sbin/lighttpd", "lighttpd", "-D", "-f", dir.file("lighttpd.conf").c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 100 && qt::run_program("/usr/bin/curl", {"-s", url("none")}).status != 0; ++i)
            usleep(50000);
    }
    ~WebServer()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    std::string url(const std::string &cgi) const
    {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + cgi;
    }

private:
    const qt::TempDir &dir_;
    int port_;
    pid_t pid_ = -1;
};

// The operator's page in a headless Chromium, its button clicked (or, with "-",
// page itself downloaded): the lines browser_download.py prints.
std::vector<std::string> browse(const WebServer &server, const std::string &button, const std::string &page = "index.html")
{
    // In a UTF-8 locale, as an operator's browser is: under C, Chromium saves a non-ASCII name as "download".
    const qt::RunResult browser = qt::run_program("/usr/bin/env", {"LC_ALL=C.UTF-8", "/usr/bin/python3", QUELVANE_SOURCE_DIR "/tests/e2e/browser_download.py",
                                                  std::to_string(qt::free_port()), server.url(page), server.got, button});
    EXPECT_EQ(browser.status, 0) << browser.err;
    return qt::split_lines(browser.out);
}

}  // namespace

TEST(Web, DownloadsThroughARealServer)
{
    if (qt::emulated())
        GTEST_SKIP() << "the server runs the native tool";
    qt::TempDir dir;
    WebServer server(dir);
    const std::string &saved = server.saved, &got = server.got;
    // A slow first command: the download header and the first members come at once.
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,5,y,n slow /bin/sleep 1\ncmd A,5,y,n a /bin/echo first\n"));
    qt::RunResult curl = qt::run_program(
        "/bin/sh", {"-c", "cd " + got + " && curl -sS -d '' -OJ -w '%{time_starttransfer}' " + server.url("quelvane.cgi")});
    ASSERT_EQ(curl.status, 0) << curl.err;
    EXPECT_LT(std::stod(curl.out), 0.5) << "seconds to the first byte";
    qt::Archive zip = qt::read_archive(got + "/" + saved);
    EXPECT_EQ(zip.problems, "");
    EXPECT_EQ(zip.members.size(), 4u);

    // Only a POST starts a collection.
    for (const char *method : {"GET", "HEAD"})
        EXPECT_EQ(qt::run_program("/usr/bin/curl", {"-s", "-o", "/dev/null", "-w", "%{http_code}", "-X", method,
                                                    server.url("quelvane.cgi")}).out, "405") << method;

    // Encrypted, the password on a descriptor; the newline the file ends in counts.
    curl = qt::run_program("/bin/sh", {"-c", "cd " + got + " && curl -sS -d '' -OJ " + server.url("quelvane-encrypted.cgi")});
    ASSERT_EQ(curl.status, 0) << curl.err;
    EXPECT_EQ(qt::openssl_decrypt(got + "/" + saved + ".enc", "secret\n", dir.file("opened.zip")), "");
    EXPECT_EQ(qt::read_archive(dir.file("opened.zip")).problems, "");

    // The tool's own header (-b): curl and Chromium save a name with blanks, ';', quotes or
    // UTF-8 whole (Chromium writes '"' as '_'; curl takes a quoted name up to its first '"',
    // so a name with quotes is for browsers only).
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,5,y,n a /bin/echo named\n"));
    mkdir(dir.file("named").c_str(), 0755);
    qt::script(dir, "named.cgi", "exec \"$QUELVANE\" -b -L A -f q.conf -a \"$(cat name)\" -o -\n");
    const std::string utf8 = "donn\xc3\xa9" "es \xc3\xa9.zip";
    const struct { std::string name, browser; bool curl; } NAMES[] = {
        {"ctl one.zip", "ctl one.zip", true}, {"ctl;x.zip", "ctl;x.zip", true}, {utf8, utf8, true},
        {"ctl\"x\".zip", "ctl_x_.zip", false}};
    for (const auto &n : NAMES) {
        ASSERT_TRUE(qt::write_file(dir.file("name"), n.name));
        curl = qt::run_program("/bin/sh", {"-c", "cd " + dir.file("named") + " && rm -f -- * && curl -sS -d '' -OJ " + server.url("named.cgi")});
        EXPECT_EQ(curl.status, 0) << curl.err;
        if (n.curl) {
            EXPECT_EQ(qt::read_archive(dir.file("named/" + n.name)).problems, "") << n.name;
        }
        EXPECT_EQ(browse(server, "-", "named.cgi"), std::vector<std::string>{n.browser + " completed"});
        EXPECT_EQ(qt::read_archive(got + "/" + n.browser).problems, "") << n.name;
    }

    // The client goes away mid-download: status 2 within a few seconds, the command
    // stopped, the lock free; then the next download works.
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,30,y,n flood /bin/dd if=/dev/urandom bs=64k count=100000\n"));
    EXPECT_EQ(qt::run_program("/usr/bin/curl", {"-sS", "-d", "", "-o", "/dev/null", "--max-time", "1", server.url("status.cgi")}).status, 28);
    for (int i = 0; i < 100 && !qt::file_exists(dir.file("status")); ++i)
        usleep(100000);
    EXPECT_EQ(qt::read_file(dir.file("status")), "2\n");
    EXPECT_EQ(qt::left_running(dir.path()), "");
    EXPECT_FALSE(qt::file_exists(dir.file("quelvane_tmp/quelvane.quelvane")));
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,5,y,n a /bin/echo again\n"));
    EXPECT_EQ(qt::run_program("/usr/bin/curl", {"-sS", "-d", "", "-o", dir.file("again.zip"), server.url("quelvane.cgi")}).status, 0);
    EXPECT_EQ(qt::read_archive(dir.file("again.zip")).problems, "");

    // A run whose progress file exists, and a progress directory anyone may write to:
    // the download goes on, without progress, and touches nothing there.
    mkdir(dir.file("progress").c_str(), 0700);
    ASSERT_TRUE(qt::write_file(dir.file("progress/taken.progress"), "planted\n"));
    for (const char *run : {"taken", "open"}) {
        chmod(dir.file("progress").c_str(), run == std::string("open") ? 0777 : 0700);
        EXPECT_EQ(qt::run_program("/usr/bin/curl", {"-sS", "-d", "", "-o", dir.file("again.zip"), server.url("quelvane.cgi?run=") + run}).status, 0);
        EXPECT_EQ(qt::read_archive(dir.file("again.zip")).problems, "") << run;
    }
    EXPECT_EQ(qt::read_file(dir.file("progress/taken.progress")), "planted\n");
    EXPECT_FALSE(qt::file_exists(dir.file("progress/open.progress")));
    chmod(dir.file("progress").c_str(), 0700);

    // A browser that stops reading but stays: the deadline (4 s here) ends the run, the
    // lock is free and the next operator's download works.
    unlink(dir.file("status").c_str());
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,30,y,n flood /bin/dd if=/dev/urandom bs=64k count=100000\n"));
    const qt::RunResult stalled = qt::run_program("/usr/bin/python3", {"-c", R"(import os, socket, sys, time
s = socket.create_connection(('127.0.0.1', int(sys.argv[1])))
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
s.sendall(b'POST /status.cgi HTTP/1.0\r\nContent-Length: 0\r\n\r\n')
s.recv(1000)
for _ in range(150):
    if os.path.exists(sys.argv[2]):
        break
    time.sleep(0.1)
print(open(sys.argv[2]).read() if os.path.exists(sys.argv[2]) else 'still running', end='')
)", server.url("").substr(17, server.url("").size() - 18), dir.file("status")});
    EXPECT_EQ(stalled.out, "2\n") << stalled.err;
    EXPECT_EQ(qt::left_running(dir.path()), "");
    EXPECT_FALSE(qt::file_exists(dir.file("quelvane_tmp/quelvane.quelvane")));
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,5,y,n a /bin/echo again\n"));
    EXPECT_EQ(qt::run_program("/usr/bin/curl", {"-sS", "-d", "", "-o", dir.file("again.zip"), server.url("quelvane.cgi")}).status, 0);
    EXPECT_EQ(qt::read_archive(dir.file("again.zip")).problems, "");

    // The operator's page follows the download entry by entry, and a second operator's
    // page shows the same run, again after a reload; each row's result decides its look, and the end names
    // the file saved and counts what went wrong.
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd A,5,y,n step1 /bin/sleep 0.4\ncmd A,5,y,n step2 /bin/sleep 0.4\n"
                                                   "cmd A,5,y,n fails /bin/false\ncmd A,30,y,n slow /bin/sleep 10\n"
                                                   "cmd A,5,y,n after /bin/echo after\n"));
    const std::vector<std::string> page = browse(server, "start");
    ASSERT_EQ(page.size(), 6u) << testing::PrintToString(page);
    EXPECT_EQ(page[5], saved + " completed");
    // The bar moved through entries one by one while the archive was still coming.
    std::istringstream values(page[0].substr(page[0].find(':') + 1));
    std::vector<int> seen{std::istream_iterator<int>(values), std::istream_iterator<int>()};
    EXPECT_GE(seen.size(), 3u) << page[0];
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()) && std::adjacent_find(seen.begin(), seen.end()) == seen.end())
        << page[0];
    EXPECT_EQ(page[1].substr(0, 33), "second tab, reloaded: Collecting ") << page[1];
    EXPECT_EQ(page[1].substr(page[1].size() - 6), ", true");
    const std::string archive = qt::read_file(got + "/" + saved);
    EXPECT_EQ(page[2], "status: Archive complete: " + saved + ", " + std::to_string(archive.size()) +
                           " bytes; 2 ok, 1 errors, 1 time-outs, 1 skipped");
    EXPECT_EQ(page[3] + " / " + page[4], "hint:  / rows: ok ok error timeout skipped");
    EXPECT_EQ(qt::read_archive(got + "/" + saved).problems, "");
    rename((got + "/page.png").c_str(), (qt::quelvane_binary().substr(0, qt::quelvane_binary().rfind('/')) + "/web-page.png").c_str());

    // A tool that cannot be started is reported at once, with what to do.
    qt::TempDir other;
    WebServer broken(other, other.file("not-installed"));
    const std::vector<std::string> failed = browse(broken, "start");
    ASSERT_EQ(failed.size(), 6u) << testing::PrintToString(failed);
    EXPECT_EQ(failed[2] + " / " + failed[3], "status: Collection failed with status 127: not-installed / hint: "
                                             "The tool is not installed where the CGI program looks (QUELVANE).");
}
