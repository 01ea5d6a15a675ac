// Dataset letters, configuration lines and reading a configuration file.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "quelvane_config_file.h"
#include "quelvane_util.h"
#include "testsupport.h"

namespace {

TEST(ConfigDatasets, LettersFoldIntoBits) {
    const struct {
        const char *letters;
        uint32_t initial;
        int result;
        uint32_t expected;
    } cases[] = {
        {"A", 0, 0, 0xFFFFFFFFu},
        {"a", 0, 0, 1u << 0},
        {"Bb", 0, 0, 1u << 1},
        {"Zz", 0, 0, 1u << 25},
        {"aA", 0, 0, 0xFFFFFFFFu},
        {"b", 1u << 0, 0, (1u << 0) | (1u << 1)},  // adds, never clears
        {"", 0x5u, 0, 0x5u},
        {"i1", 0, -1, 1u << 8},  // bits before the bad character stay
        {"a b", 0, -1, 1u << 0},
        {"@", 0, -1, 0},  // the neighbours of "A" and "Z"
        {"[", 0, -1, 0},
        {"\xc3\xa4", 0, -1, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("letters \"") + c.letters + "\"");
        uint32_t set = c.initial;
        EXPECT_EQ(quelvane_config_parse_datasets(c.letters, &set), c.result);
        EXPECT_EQ(set, c.expected);
    }
}

// The fields of an entry in one line: kind, datasets, time-out, the two y/n
// flags, [member name], path, {argv}, and "%d" when it uses the domain.
std::string describe(const ConfigEntry &e) {
    static const char *const kinds[] = {"cmd", "file", "log", "cut"};
    char head[64];
    snprintf(head, sizeof head, "%s %#x %d %c%c", e.type < 4 ? kinds[e.type] : "?", e.datasets,
             e.timeout, e.collect_when_spswdown ? 'y' : 'n', e.literal_path ? 'y' : 'n');
    std::string text = std::string(head) + " [" + e.member_name + "] " + e.path + " {";
    for (size_t i = 0; i < e.argv.size(); i++) text += (i ? "," : "") + e.argv[i];
    return text + "}" + (e.uses_domain ? " %d" : "");
}

const char *const REJECTED = nullptr;
const char *const NOTHING = "";

struct LineCase {
    int log_only;
    const char *prefix;
    const char *line;
    const char *expected;  // REJECTED, NOTHING, or the entry described
};

const LineCase kLines[] = {
    // The sample lines.
    {0, "", "cmd i,30,y,n system/uptime /usr/bin/uptime",
     "cmd 0x100 30 yn [system/uptime] /usr/bin/uptime {/usr/bin/uptime}"},
    {0, "", "file ab,-,n,y etc/hosts /etc/hosts", "file 0x3 15 ny [etc/hosts] /etc/hosts {}"},
    {0, "", "log A,-,y,n logs /var/log/messages*",
     "log 0xffffffff 15 yn [logs] /var/log/messages* {}"},
    {0, "", "cut i,60,n,n domains/ifconfig /sbin/ifconfig eth%d",
     "cut 0x100 60 nn [domains/ifconfig] /sbin/ifconfig {/sbin/ifconfig,eth%d} %d"},
    // Keywords ignore case; the y/n flags do not.
    {0, "", "CMD i,-,y,n n /bin/true", "cmd 0x100 15 yn [n] /bin/true {/bin/true}"},
    {0, "", "FiLe i,-,y,n n /x", "file 0x100 15 yn [n] /x {}"},
    {0, "", "cmd i,-,Y,n n /bin/true", REJECTED},
    {0, "", "cmd i,-,y,N n /bin/true", REJECTED},
    {0, "", "cmd i,-,yes,n n /bin/true", REJECTED},
    {0, "", "cmds i,-,y,n n /bin/true", REJECTED},
    // Time-outs: automatic base, trailing text ignored, 0 and overflow refused.
    {0, "", "cmd i,0,y,n n /bin/true", REJECTED},
    {0, "", "cmd i,0x10,y,n n /bin/true", "cmd 0x100 16 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i,010,y,n n /bin/true", "cmd 0x100 8 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i,-5,y,n n /bin/true", "cmd 0x100 -5 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i,30s,y,n n /bin/true", "cmd 0x100 30 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i,2147483647,y,n n /bin/true",
     "cmd 0x100 2147483647 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i,2147483648,y,n n /bin/true", REJECTED},
    {0, "", "cmd i,-2147483649,y,n n /bin/true", REJECTED},
    {0, "", "cmd i,99999999999999999999999,y,n n /bin/true", REJECTED},
    {0, "", "cmd i,soon,y,n n /bin/true", REJECTED},
    // Exactly four sub-fields; empty ones collapse away.
    {0, "", "cmd i,-,y,n,y n /bin/true", REJECTED},
    {0, "", "cmd i,-,y n /bin/true", REJECTED},
    {0, "", "cmd i,-,,n n /bin/true", REJECTED},
    {0, "", "cmd i,-,y,,n n /bin/true", "cmd 0x100 15 yn [n] /bin/true {/bin/true}"},
    {0, "", "cmd i1,-,y,n n /bin/true", REJECTED},
    // Paths, arguments, separators and comments.
    {0, "", "file i,-,y,n n etc/hosts", REJECTED},
    {0, "", "cmd i,-,y,n n bin/true", REJECTED},
    {0, "", "file i,-,y,n n /etc/a /etc/b", REJECTED},
    {0, "", "log i,-,y,n n /var/a /var/b", REJECTED},
    {0, "", "cmd i,-,y,n n", REJECTED},
    {0, "", "cmd i,-,y,n", REJECTED},
    {0, "", "cmd", REJECTED},
    {0, "", "cmd\ti,-,y,n\t n  /bin/echo \t a   b\n", "cmd 0x100 15 yn [n] /bin/echo {/bin/echo,a,b}"},
    {0, "", "cmd i,-,y,n n /bin/echo a#b c", "cmd 0x100 15 yn [n] /bin/echo {/bin/echo,a}"},
    {0, "", "cmd i,-,y,n n #/bin/true", REJECTED},
    {0, "", "", NOTHING},
    {0, "", " \t \n", NOTHING},
    {0, "", "# cmd i,-,y,n n /bin/true", NOTHING},
    // "%d" counts only in the arguments.
    {0, "", "cmd i,-,y,n n /bin/echo x%d", "cmd 0x100 15 yn [n] /bin/echo {/bin/echo,x%d} %d"},
    {0, "", "cmd i,-,y,n n /bin/x%d", "cmd 0x100 15 yn [n] /bin/x%d {/bin/x%d}"},
    {0, "", "cut i,-,y,n n /bin/echo a b%d", "cut 0x100 15 yn [n] /bin/echo {/bin/echo,a,b%d} %d"},
    {0, "", "file i,-,y,n n /var/%d", "file 0x100 15 yn [n] /var/%d {}"},
    // Name cleaning and the prefix.
    {0, "", "log i,-,y,n ./x /l", "log 0x100 15 yn [x] /l {}"},
    {0, "", "log i,-,y,n ../x /l", "log 0x100 15 yn [x] /l {}"},
    {0, "", "log i,-,y,n /x /l", "log 0x100 15 yn [x] /l {}"},
    {0, "", "log i,-,y,n x/// /l", "log 0x100 15 yn [x] /l {}"},
    {0, "", "log i,-,y,n .//./a/../b// /l", "log 0x100 15 yn [a/../b] /l {}"},
    {0, "", "log i,-,y,n ./../ /l", "log 0x100 15 yn [] /l {}"},
    {0, "", "log i,-,y,n ... /l", "log 0x100 15 yn [] /l {}"},
    {0, "pre", "log i,-,y,n x /l", "log 0x100 15 yn [pre/x] /l {}"},
    {0, "pre/dir", "log i,-,y,n ./x/ /l", "log 0x100 15 yn [pre/dir/x] /l {}"},
    {0, "pre", "log i,-,y,n ./ /l", "log 0x100 15 yn [pre] /l {}"},
    // Log-only runs drop cmd and file lines unchecked, and only those.
    {1, "", "cmd garbage", NOTHING},
    {1, "", "FILE garbage", NOTHING},
    {1, "", "log garbage", REJECTED},
    {1, "", "bogus i,-,y,n n /bin/true", REJECTED},
    {1, "", "cut i,-,y,n n /bin/true", "cut 0x100 15 yn [n] /bin/true {/bin/true}"},
    {1, "", "log i,-,y,n n /var/log/x", "log 0x100 15 yn [n] /var/log/x {}"},
};

// Restores the run flag even when an assertion leaves the test early.
struct LogOnlyRestore {
    int saved = log_only_mode;
    ~LogOnlyRestore() { log_only_mode = saved; }
};

TEST(ConfigParseLine, AcceptsAndRejectsLines) {
    LogOnlyRestore restore;
    for (const auto &c : kLines) {
        SCOPED_TRACE(std::string("line \"") + c.line + "\" prefix \"" + c.prefix +
                     "\" log-only " + std::to_string(c.log_only));
        log_only_mode = c.log_only;
        ConfigList list;
        int uses_domain = 0;
        const int result = quelvane_config_parse_line(&list, c.line, c.prefix, &uses_domain);
        EXPECT_EQ(result, c.expected == REJECTED ? -1 : 0);
        if (c.expected == REJECTED || *c.expected == '\0') {
            EXPECT_EQ(list.head, nullptr);
            EXPECT_EQ(uses_domain, 0);
            continue;
        }
        ASSERT_NE(list.head, nullptr);
        EXPECT_EQ(list.head, list.tail);
        EXPECT_EQ(describe(*list.head), c.expected);
        EXPECT_EQ(uses_domain, list.head->uses_domain);
        EXPECT_TRUE(list.head->command.empty());
    }
}

TEST(ConfigParseLine, ListKeepsFileOrderAndTheDomainFlagStays) {
    ConfigList list;
    int uses_domain = 0;
    for (const char *line : {"cut i,-,y,n one /bin/echo %d", "file i,-,y,n two /etc/hosts",
                             "cmd i,-,y,n three /bin/true"}) {
        ASSERT_EQ(quelvane_config_parse_line(&list, line, "", &uses_domain), 0);
    }
    EXPECT_EQ(uses_domain, 1);  // later lines without "%d" leave it set
    std::string names;
    for (const ConfigEntry *e = list.head; e != nullptr; e = e->next) names += e->member_name + " ";
    EXPECT_EQ(names, "one two three ");
    EXPECT_EQ(list.tail->member_name, "three");
    EXPECT_EQ(quelvane_config_free_list(&list), 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
}

TEST(ConfigParseLine, NullArgumentsFail) {
    ConfigList list;
    int flag = 0;
    uint32_t set = 7;
    const char *line = "cmd i,-,y,n n /bin/true";
    EXPECT_EQ(quelvane_config_parse_line(nullptr, line, "", &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, nullptr, "", &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, line, nullptr, &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, line, "", nullptr), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, "/dev/null", "", nullptr), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, nullptr, "", &flag), -1);
    EXPECT_EQ(quelvane_config_parse_datasets(nullptr, &set), -1);
    EXPECT_EQ(quelvane_config_parse_datasets("a", nullptr), -1);
    EXPECT_EQ(quelvane_config_free_list(nullptr), -1);
    EXPECT_EQ(quelvane_config_free_entry(nullptr), -1);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(set, 7u);
}

// What one call wrote to descriptor 2.
template <typename Call>
std::string stderr_of(const qt::TempDir &dir, Call call) {
    const std::string path = dir.file("stderr");
    fflush(stderr);
    const int saved = dup(2);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
    call();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    return qt::read_file(path);
}

TEST(ConfigReadFile, ReportsRejectedLinesAndPiecesWithTheirNumbers) {
    qt::TempDir dir;
    const std::string conf = dir.file("quelvane.conf");
    const std::string long_line(2000, 'z');  // read as pieces 5 and 6
    ASSERT_TRUE(qt::write_file(conf, "# collection for tests\n"
                                     "cmd i,-,y,n first /bin/true\n"
                                     "bogus line here\n"
                                     "\n" +
                                         long_line + "\n" +
                                         "file i,-,y,n rel etc/hosts\n"
                                         "cut i,-,y,n second /bin/echo %d\n"
                                         "cmd i,0,y,n n /bin/true"));  // no newline at the end
    ConfigList list;
    int uses_domain = 0;
    int result = -2;
    const std::string err = stderr_of(dir, [&] {
        result = quelvane_config_read_file(&list, conf.c_str(), "pre", &uses_domain);
    });
    EXPECT_EQ(result, 0);
    const std::string at = "Error on line " + conf + ":";
    EXPECT_EQ(err, at + "3: bogus line here\n" +                     //
                       at + "5: " + std::string(1023, 'z') + "\n" +  // newline added
                       at + "6: " + std::string(977, 'z') + "\n" +   //
                       at + "7: file i,-,y,n rel etc/hosts\n" +      //
                       at + "9: cmd i,0,y,n n /bin/true\n");
    ASSERT_NE(list.head, nullptr);
    EXPECT_EQ(list.head->member_name, "pre/first");
    ASSERT_NE(list.head->next, nullptr);
    EXPECT_EQ(list.head->next->member_name, "pre/second");
    EXPECT_EQ(list.head->next, list.tail);
    EXPECT_EQ(uses_domain, 1);
}

TEST(ConfigReadFile, UnopenableOrUnreadableFileFails) {
    qt::TempDir dir;
    const std::string missing = dir.file("missing.conf");
    ConfigList list;
    int uses_domain = 0;
    EXPECT_EQ(stderr_of(dir,
                        [&] {
                            EXPECT_EQ(quelvane_config_read_file(&list, missing.c_str(), "",
                                                                &uses_domain),
                                      -1);
                        }),
              "Unable to open config file: " + missing + "\n" + missing +
                  ": No such file or directory\n");
    // A directory opens for reading but every read fails: not an empty list.
    EXPECT_EQ(stderr_of(dir,
                        [&] {
                            EXPECT_EQ(quelvane_config_read_file(&list, dir.path().c_str(), "",
                                                                &uses_domain),
                                      -1);
                        }),
              dir.path() + ": Is a directory\n");
    EXPECT_EQ(list.head, nullptr);
}

}  // namespace
