// Configuration: dataset letters, lines, the file reader, names, patterns, signal actions.
#include <gtest/gtest.h>
#include <unistd.h>
#include <cerrno>
#include "quelvane_config_file.h"
#include "quelvane_util.h"
#include "testsupport.h"

namespace {

TEST(ConfigDatasets, LettersFoldIntoBits) {
    const struct { const char *letters; uint32_t bits; int result; uint32_t after; } cases[] = {
        {"A", 0, 0, ~0u}, {"a", 0, 0, 1}, {"Bb", 0, 0, 2}, {"Zz", 4, 0, 4 | 1u << 25},
        {"i1", 0, -1, 1u << 8}, {"", 5, 0, 5}, {"@", 0, -1, 0}, {"{", 0, -1, 0}};
    for (auto c : cases) {
        EXPECT_EQ(quelvane_config_parse_datasets(c.letters, &c.bits), c.result) << c.letters;
        EXPECT_EQ(c.bits, c.after) << c.letters;
    }
}

// kind datasets time-out y/n-flags [member name] path {argv}, then " %d" when it uses the domain.
std::string describe(const ConfigEntry &e) {
    auto s = std::to_string(e.type) + " " + std::to_string(e.datasets) + " " + std::to_string(e.timeout) +
             " " + "ny"[!!e.collect_when_spswdown] + "ny"[!!e.literal_path] + " [" + e.member_name + "] " +
             e.path + " {";
    for (size_t i = 0; i < e.argv.size(); i++) s += (i ? "," : "") + e.argv[i];
    return s + "}" + (e.uses_domain ? " %d" : "");
}
const char *const R = "rejected";  // kinds: 0 cmd, 1 file, 2 log, 3 cut; 256 is dataset "i"
const struct { int log_only; const char *prefix, *line, *expected; } kLines[] = {
    {0, "", "CMD i,0x10,y,n s/up /bin/up a", "0 256 16 yn [s/up] /bin/up {/bin/up,a}"},
    {0, "", "FiLe ab,010,,n,y etc/hosts /etc/%d", "1 3 8 ny [etc/hosts] /etc/%d {}"},  // ",," collapses
    {0, "", "cmd i,-,Y,n n /t", R}, {0, "", "cmds i,-,y,n n /t", R}, {0, "", "cmd i1,-,y,n n /t", R},
    {0, "", "cmd i,0,y,n n /t", R}, {0, "", "cmd i,2147483648,y,n n /t", R}, {0, "", "cmd i,-,y,n n", R},
    {0, "", "cmd i,-,y,n,y n /t", R}, {0, "", "cmd i,-,y n /t", R}, {0, "", "file i,-,y,n n etc/hosts", R},
    {0, "", "file i,-,y,n n /a /b", R}, {0, "", " \t \n", ""}, {0, "", "# cmd i,-,y,n n /t", ""},
    {1, "", "cmd garbage", ""}, {1, "", "log garbage", R}, {1, "", "bogus i,-,y,n n /t", R},
    {0, "", "cmd\ti,-,y,n\t n  /bin/x%d \t a#b c\n", "0 256 15 yn [n] /bin/x%d {/bin/x%d,a}"},
    {0, "", "cut i,-5,y,n n /bin/echo a b%d", "3 256 -5 yn [n] /bin/echo {/bin/echo,a,b%d} %d"},
    {0, "", "log i,-,y,n .//./a/.../b// /l", "2 256 15 yn [a/.../b] /l {}"},
    {0, "", "log i,-,y,n ../up/a/../../x /l", R}, {0, "", "log i,-,y,n ../up/.. /l", R},
    {0, "", "log i,-,y,n ../up /l", "2 256 15 yn [up] /l {}"},
    {0, "", "log i,-,y,n ./../ /l", "2 256 15 yn [] /l {}"},
    {0, "pre", "log i,-,y,n ./ /l", "2 256 15 yn [pre] /l {}"},
    {0, "pre", "log i,-,y,n ./x/ /l", "2 256 15 yn [pre/x] /l {}"},
    {1, "", "cut i,-,y,n n /t", "3 256 15 yn [n] /t {/t}"},
};

TEST(ConfigParseLine, AcceptsAndRejectsLines) {
    const int saved = log_only_mode;
    for (const auto &c : kLines) {
        log_only_mode = c.log_only;
        ConfigList list;
        int domain = 0;
        const int result = quelvane_config_parse_line(&list, c.line, c.prefix, &domain);
        EXPECT_EQ((result ? R : "") + (list.head ? describe(*list.head) : ""), c.expected) << c.line;
        EXPECT_EQ(domain, list.head && list.head->uses_domain) << c.line;
    }
    log_only_mode = saved;
}

TEST(ConfigFiles, PatternsExpandInOrderAndRejectedLinesAreReportedWithTheirNumbers) {
    qt::TempDir dir;
    for (const char *name : {"b.log", "a.log", "c.log", "x.txt"}) qt::write_file(dir.file(name), "");
    ConfigEntry e;
    e.type = ENTRY_LOG, e.path = dir.file("*.log");
    std::string got;
    int r = config_glob_next(&e);
    for (; r == 0 && got.size() < 99; r = config_glob_next(nullptr)) got += e.path.substr(dir.path().size());
    EXPECT_EQ(got + std::to_string(r), "/a.log/b.log/c.log-1");
    e.path = dir.file("*.none");  // no match: -1, and the pattern stays
    EXPECT_EQ((r = config_glob_next(&e), std::to_string(r) + " " + e.path), "-1 " + dir.file("*.none"));
    const std::string conf = dir.file("q.conf"), none = dir.file("none"), at = "Error on line " + conf;
    ASSERT_TRUE(qt::write_file(conf, "# c\ncut i,-,y,n a /bin/echo %d\nbogus\n\n" + std::string(2000, 'z') +
                                         "\ncmd i,-,y,n b /t\ncmd i,0,y,n n /t"));  // no final newline
    ConfigList list;
    int domain = 0, result = -2;
    auto read = [&](const std::string &path) {  // standard error, then the result
        const std::string err = qt::capture_stderr(
            [&] { result = quelvane_config_read_file(&list, path.c_str(), "pre", &domain); });
        return err + std::to_string(result);
    };
    EXPECT_EQ(read(conf), at + ":3: bogus\n" + at + ":5: " + std::string(1023, 'z') + "\n" + at +
                              ":6: " + std::string(977, 'z') + "\n" + at + ":8: cmd i,0,y,n n /t\n0");
    ASSERT_TRUE(list.head != nullptr && list.head->next == list.tail);  // "b" lacks "%d"; the flag stays
    EXPECT_EQ(list.head->member_name + " " + list.tail->member_name + std::to_string(domain), "pre/a pre/b1");
    EXPECT_EQ(read(none),
              "Unable to open config file: " + none + "\n" + none + ": No such file or directory\n-1");
    EXPECT_EQ(read(dir.path()), dir.path() + ": Is a directory\n-1");  // not an empty configuration
}

TEST(ConfigNames, CommandStringsAndMemberNames) {
    const struct { const char *member; std::vector<std::string> argv; int index; const char *suffix, *command,
                   *name; } cases[] = {
        {"system/ifconfig", {"/sbin/ifconfig", "eth%d"}, 1, ".out", "/sbin/ifconfig eth1",
         "system/ifconfig/@sbin@ifconfig_eth1.out"},
        {"d", {"/bin/echo", "%d%d", "%%d"}, 12, nullptr, "/bin/echo 1212 %12", "d/@bin@echo_1212_%12"},
        {"my d", {"/x%d/r", "a\tb"}, -4, ".err", "/x-4/r a\tb", "my_d/@x-4@r_a_b.err"},
    };
    ConfigEntry e;
    for (const auto &c : cases) {
        e.member_name = c.member, e.argv = c.argv, e.path = c.argv[0];
        EXPECT_EQ(quelvane_config_command_string(&e, c.index), c.command);
        EXPECT_EQ(quelvane_config_output_name(&e, c.suffix, c.index), c.name);
    }
    ZipMember m;  // left-overs of a previous member must not survive
    m.source_path = "/stale", m.source_file = stdin;
    ASSERT_EQ(quelvane_zip_stderr_member(&e, &m, 2), 0);
    EXPECT_EQ(std::tie(m.name, m.version_needed, m.flags, m.method, m.kind, m.source_path, m.source_file),
              std::make_tuple("my_d/@x2@r_a_b.err", 20, 8, 8, MEMBER_GENERATED, "", nullptr));
    e.type = ENTRY_FILE, e.member_name = "etc", e.path = "/etc/hosts";
    EXPECT_EQ(quelvane_config_path_name(&e, nullptr), "etc/@etc@hosts");
    e.path = "/etc/my\thosts";  // blanks stay in a collected file's name
    EXPECT_EQ(quelvane_config_path_name(&e, ".err"), "etc/@etc@my\thosts.err");
}

// Runs in a forked child so the test process keeps its handlers; the status names the failed check.
[[noreturn]] void signal_checks() {
    int fds[2];
    if (quelvane_signal_setup() != 0 || pipe(fds) != 0) _exit(1);
    if (fork() == 0) _exit(usleep(100000));  // its exit raises SIGCHLD during the first read
    const pid_t feeder = fork();  // its late second byte ends a read the alarm did not break
    if (feeder == 0) _exit(usleep(300000) + write(fds[1], "x", 1) + sleep(2) + write(fds[1], "y", 1));
    char c = 0;
    if (read(fds[0], &c, 1) != 1 || c != 'x' || child_exited != 1) _exit(2);
    ualarm(100000, 0);
    if (read(fds[0], &c, 1) != -1 || errno != EINTR || command_timed_out != 1) _exit(3);
    kill(feeder, SIGKILL);
    for (int first : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
        interrupted_by_user = 0;
        if (quelvane_signal_setup() != 0 || raise(first) != 0 || interrupted_by_user != 1) _exit(4);
        for (int again : {SIGINT, SIGHUP, SIGQUIT, SIGTERM})  // now ignored: never counted, never fatal
            if (signal(again, SIG_IGN) != SIG_IGN) _exit(5);
    }
    _exit(0);
}

TEST(ConfigSignals, ChildExitRestartsAReadAlarmBreaksItFirstInterruptCounts) {
    EXPECT_EXIT(signal_checks(), ::testing::ExitedWithCode(0), "");
}

}  // namespace

// --gentle waits while a pressure file's "some avg10" reaches the threshold, and never for
// text it cannot read.
TEST(GentlePressure, SomeAverageOverTenSeconds) {
    const struct { const char *text; bool high; } CASES[] = {
        {"some avg10=55.00 avg60=1.00 avg300=0.00 total=1\nfull avg10=0.00 avg60=0.00 avg300=0.00 total=0\n", true},
        {"some avg10=40.00 avg60=90.00 avg300=90.00 total=1\n", true},
        {"some avg10=39.99 avg60=90.00 avg300=90.00 total=1\n", false},
        {"full avg10=99.00 avg60=0.00 avg300=0.00 total=1\n", false},
        {"some avg10= avg60=1.00\n", false},
        {"", false},
        {nullptr, false},
    };
    for (const auto &c : CASES)
        EXPECT_EQ(pressure_high(c.text, 40.0), c.high) << (c.text ? c.text : "null");
}

// A secret is replaced wherever the pieces of data split it; the longest secret wins
// where two start together; a part of one at the very end is kept as it stands.
TEST(Scrub, EverySplitGivesTheWholeTextsResult) {
    qt::TempDir dir;
    ASSERT_TRUE(qt::write_file(dir.file("secrets"), "long=secretvalue\nshort=secret\n", 0600));
    ASSERT_EQ(scrub_load(dir.file("secrets").c_str()), 0);
    const std::string text = "xsecretvaluey secret zsecretvalu", expected =
        "x[REDACTED:long]y [REDACTED:short] z[REDACTED:short]valu";
    for (size_t i = 0; i <= text.size(); ++i) {
        for (size_t j = i; j <= text.size(); ++j) {
            std::vector<unsigned char> out;
            scrub_reset();
            const unsigned char *bytes = reinterpret_cast<const unsigned char *>(text.data());
            scrub_feed(bytes, i, false, &out);
            scrub_feed(bytes + i, j - i, false, &out);
            scrub_feed(bytes + j, text.size() - j, true, &out);
            ASSERT_EQ(std::string(out.begin(), out.end()), expected) << i << " " << j;
        }
    }
    EXPECT_EQ(scrub_text("secret"), "[REDACTED:short]");
    scrub_wipe();
    EXPECT_FALSE(scrub_active());
    EXPECT_EQ(scrub_text("secret"), "secret");
}
