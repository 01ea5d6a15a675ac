// Dataset letters, configuration lines and reading a configuration file.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "quelvane_config_file.h"
#include "quelvane_util.h"

namespace {

struct DatasetCase {
    const char *letters;
    uint32_t initial;
    int result;
    uint32_t expected;
};

TEST(ConfigDatasets, LettersFoldIntoBits) {
    const DatasetCase cases[] = {
        {"A", 0, 0, 0xFFFFFFFFu},
        {"a", 0, 0, 1u << 0},
        {"Bb", 0, 0, 1u << 1},
        {"z", 0, 0, 1u << 25},
        {"Z", 0, 0, 1u << 25},
        {"aA", 0, 0, 0xFFFFFFFFu},
        {"ai", 0, 0, (1u << 0) | (1u << 8)},
        {"b", 1u << 0, 0, (1u << 0) | (1u << 1)},  // adds, never clears
        {"", 0x5u, 0, 0x5u},
        {"i1", 0, -1, 1u << 8},  // bits before the bad character stay
        {"a-b", 0, -1, 1u << 0},
        {" ", 0, -1, 0},
        {"\xc3\xa4", 0, -1, 0},
        {"@", 0, -1, 0},  // the character just below "A"
        {"[", 0, -1, 0},  // and just above "Z"
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("letters \"") + c.letters + "\"");
        uint32_t set = c.initial;
        EXPECT_EQ(quelvane_config_parse_datasets(c.letters, &set), c.result);
        EXPECT_EQ(set, c.expected);
    }
}

TEST(ConfigDatasets, NullArgumentsFail) {
    uint32_t set = 7;
    EXPECT_EQ(quelvane_config_parse_datasets(nullptr, &set), -1);
    EXPECT_EQ(set, 7u);
    EXPECT_EQ(quelvane_config_parse_datasets("a", nullptr), -1);
}

constexpr uint32_t kI = 1u << 8;

// One configuration line and what the parser must make of it.
struct LineCase {
    const char *line;
    const char *prefix;
    int log_only;
    int result;
    bool appended;
    // Fields of the appended entry.
    uint32_t type;
    uint32_t datasets;
    int32_t timeout;
    int spswdown;
    int literal;
    const char *member_name;
    const char *path;
    std::vector<std::string> argv;
    int uses_domain;
};

LineCase accept(const char *line, uint32_t type, uint32_t datasets, int32_t timeout,
                int spswdown, int literal, const char *member_name, const char *path,
                std::vector<std::string> argv, int uses_domain = 0) {
    return {line, "", 0, 0, true, type, datasets, timeout, spswdown, literal, member_name,
            path, std::move(argv), uses_domain};
}

LineCase reject(const char *line, int log_only = 0) {
    return {line, "", log_only, -1, false, 0, 0, 0, 0, 0, "", "", {}, 0};
}

LineCase nothing(const char *line, int log_only = 0) {
    return {line, "", log_only, 0, false, 0, 0, 0, 0, 0, "", "", {}, 0};
}

LineCase with_prefix(LineCase c, const char *prefix) {
    c.prefix = prefix;
    return c;
}

LineCase log_only(LineCase c) {
    c.log_only = 1;
    return c;
}

// Cases whose only interest is the member name of a file line.
LineCase named(const char *name_token, const char *prefix, const char *member_name) {
    static std::vector<std::string> lines;  // keeps the built texts alive
    lines.push_back(std::string("file i,-,n,y ") + name_token + " /etc/hosts");
    LineCase c = accept(lines.back().c_str(), ENTRY_FILE, kI, 15, 0, 1, member_name,
                        "/etc/hosts", {});
    c.prefix = prefix;
    return c;
}

std::vector<LineCase> line_cases() {
    return {
        // The sample lines.
        accept("cmd i,30,y,n system/uptime /usr/bin/uptime", ENTRY_CMD, kI, 30, 1, 0,
               "system/uptime", "/usr/bin/uptime", {"/usr/bin/uptime"}),
        accept("file ab,-,n,y etc/hosts /etc/hosts", ENTRY_FILE, 3, 15, 0, 1, "etc/hosts",
               "/etc/hosts", {}),
        accept("log A,-,y,n logs /var/log/messages*", ENTRY_LOG, 0xFFFFFFFFu, 15, 1, 0, "logs",
               "/var/log/messages*", {}),
        accept("cut i,60,n,n domains/ifconfig /sbin/ifconfig eth%d", ENTRY_CUT, kI, 60, 0, 0,
               "domains/ifconfig", "/sbin/ifconfig", {"/sbin/ifconfig", "eth%d"}, 1),

        // Keywords ignore case, y/n do not.
        accept("CMD i,-,y,n n /bin/true", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        accept("FiLe i,-,y,n n /x", ENTRY_FILE, kI, 15, 1, 0, "n", "/x", {}),
        accept("Cut i,-,y,n n /bin/true", ENTRY_CUT, kI, 15, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        reject("cmd i,-,Y,n n /bin/true"),
        reject("cmd i,-,y,N n /bin/true"),
        reject("cmd i,-,yes,n n /bin/true"),
        reject("cmds i,-,y,n n /bin/true"),
        reject("frob i,-,y,n n /bin/true"),

        // Time-outs.
        reject("cmd i,0,y,n n /bin/true"),
        accept("cmd i,0x10,y,n n /bin/true", ENTRY_CMD, kI, 16, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        accept("cmd i,010,y,n n /bin/true", ENTRY_CMD, kI, 8, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        accept("cmd i,-5,y,n n /bin/true", ENTRY_CMD, kI, -5, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        accept("cmd i,30s,y,n n /bin/true", ENTRY_CMD, kI, 30, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        accept("cmd i,2147483647,y,n n /bin/true", ENTRY_CMD, kI, 2147483647, 1, 0, "n",
               "/bin/true", {"/bin/true"}),
        reject("cmd i,2147483648,y,n n /bin/true"),
        reject("cmd i,-2147483649,y,n n /bin/true"),
        reject("cmd i,99999999999999999999999,y,n n /bin/true"),
        reject("cmd i,soon,y,n n /bin/true"),
        reject("cmd i,--,y,n n /bin/true"),

        // Exactly four sub-fields; empty ones collapse.
        reject("cmd i,-,y,n,y n /bin/true"),
        reject("cmd i,-,y n /bin/true"),
        reject("cmd i,-,,n n /bin/true"),
        accept("cmd i,-,y,,n n /bin/true", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/true",
               {"/bin/true"}),
        reject("cmd i1,-,y,n n /bin/true"),
        reject("cmd ,,,, n /bin/true"),

        // Paths and arguments.
        reject("file i,-,y,n n etc/hosts"),
        reject("cmd i,-,y,n n bin/true"),
        reject("file i,-,y,n n /etc/a /etc/b"),
        reject("log i,-,y,n n /var/log/a /var/log/b"),
        reject("cmd i,-,y,n n"),
        reject("cmd i,-,y,n"),
        reject("cmd"),
        accept("cmd\ti,-,y,n\t n  /bin/echo \t a   b\n", ENTRY_CMD, kI, 15, 1, 0, "n",
               "/bin/echo", {"/bin/echo", "a", "b"}),
        accept("cmd i,-,y,n n /bin/echo a#b c", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/echo",
               {"/bin/echo", "a"}),
        reject("cmd i,-,y,n n #/bin/true"),

        // Blank and comment lines.
        nothing(""),
        nothing(" \t \n"),
        nothing("# cmd i,-,y,n n /bin/true"),
        nothing("   # indented comment"),

        // "%d" counts only in arguments.
        accept("cmd i,-,y,n n /bin/echo x%d", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/echo",
               {"/bin/echo", "x%d"}, 1),
        accept("cmd i,-,y,n n /bin/x%d", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/x%d",
               {"/bin/x%d"}, 0),
        accept("cmd i,-,y,n n /bin/echo a b c%d", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/echo",
               {"/bin/echo", "a", "b", "c%d"}, 1),
        accept("cmd i,-,y,n n /bin/echo %i d", ENTRY_CMD, kI, 15, 1, 0, "n", "/bin/echo",
               {"/bin/echo", "%i", "d"}, 0),
        accept("file i,-,y,n n /var/%d", ENTRY_FILE, kI, 15, 1, 0, "n", "/var/%d", {}, 0),

        // Name cleaning and the prefix.
        named("./x", "", "x"),
        named("../x", "", "x"),
        named("/x", "", "x"),
        named("x///", "", "x"),
        named(".//./a/b//", "", "a/b"),
        named("x/../y", "", "x/../y"),
        named(".x", "", "x"),
        named("./../", "", ""),
        named("...", "", ""),
        named("x", "pre", "pre/x"),
        named("./x/", "pre/dir", "pre/dir/x"),
        named("./", "pre", "pre"),

        // Log-only runs drop cmd and file lines unchecked.
        log_only(nothing("cmd garbage")),
        log_only(nothing("FILE garbage")),
        log_only(nothing("cmd i,0,Y,n n rel")),
        log_only(reject("log garbage")),
        log_only(reject("bogus i,-,y,n n /bin/true")),
        log_only(accept("cut i,-,y,n n /bin/true", ENTRY_CUT, kI, 15, 1, 0, "n", "/bin/true",
                        {"/bin/true"})),
        log_only(accept("log i,-,y,n n /var/log/x", ENTRY_LOG, kI, 15, 1, 0, "n",
                        "/var/log/x", {})),
        log_only(nothing("# cmd")),
        with_prefix(accept("cut i,-,y,n ./d/ /bin/true", ENTRY_CUT, kI, 15, 1, 0, "p/d",
                           "/bin/true", {"/bin/true"}),
                    "p"),
    };
}

class LogOnlyGuard {
  public:
    explicit LogOnlyGuard(int value) : saved_(log_only_mode) { log_only_mode = value; }
    ~LogOnlyGuard() { log_only_mode = saved_; }

  private:
    int saved_;
};

TEST(ConfigParseLine, AcceptsAndRejectsLines) {
    for (const auto &c : line_cases()) {
        SCOPED_TRACE(std::string("line \"") + c.line + "\" prefix \"" + c.prefix +
                     "\" log_only " + std::to_string(c.log_only));
        LogOnlyGuard mode(c.log_only);
        ConfigList list;
        int uses_domain = 0;
        const std::string before = c.line;
        ASSERT_EQ(quelvane_config_parse_line(&list, c.line, c.prefix, &uses_domain), c.result);
        EXPECT_EQ(before, c.line);
        if (!c.appended) {
            EXPECT_EQ(list.head, nullptr);
            EXPECT_EQ(list.tail, nullptr);
            EXPECT_EQ(uses_domain, 0);
            continue;
        }
        ASSERT_NE(list.head, nullptr);
        const ConfigEntry &e = *list.head;
        EXPECT_EQ(list.tail, list.head);
        EXPECT_EQ(e.next, nullptr);
        EXPECT_EQ(e.type, c.type);
        EXPECT_EQ(e.datasets, c.datasets);
        EXPECT_EQ(e.timeout, c.timeout);
        EXPECT_EQ(e.collect_when_spswdown, c.spswdown);
        EXPECT_EQ(e.literal_path, c.literal);
        EXPECT_EQ(e.member_name, c.member_name);
        EXPECT_EQ(e.path, c.path);
        EXPECT_EQ(e.argv, c.argv);
        EXPECT_EQ(e.uses_domain, c.uses_domain);
        EXPECT_EQ(uses_domain, c.uses_domain);
        EXPECT_TRUE(e.command.empty());
    }
}

TEST(ConfigParseLine, DomainFlagIsNeverCleared) {
    ConfigList list;
    int uses_domain = 1;
    EXPECT_EQ(quelvane_config_parse_line(&list, "cmd i,-,y,n n /bin/true", "", &uses_domain), 0);
    EXPECT_EQ(uses_domain, 1);
    EXPECT_EQ(list.head->uses_domain, 0);
}

TEST(ConfigParseLine, NullArgumentsAreRejected) {
    ConfigList list;
    int flag = 0;
    const char *line = "cmd i,-,y,n n /bin/true";
    EXPECT_EQ(quelvane_config_parse_line(nullptr, line, "", &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, nullptr, "", &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, line, nullptr, &flag), -1);
    EXPECT_EQ(quelvane_config_parse_line(&list, line, "", nullptr), -1);
    EXPECT_EQ(list.head, nullptr);
}

TEST(ConfigList, KeepsFileOrderAndFreesEverything) {
    ConfigList list;
    int flag = 0;
    const char *lines[] = {"cmd i,-,y,n one /bin/true", "file i,-,y,n two /etc/hosts",
                           "cut i,-,y,n three /bin/echo %d"};
    for (const char *line : lines) ASSERT_EQ(quelvane_config_parse_line(&list, line, "", &flag), 0);
    std::vector<std::string> names;
    for (ConfigEntry *e = list.head; e != nullptr; e = e->next) names.push_back(e->member_name);
    EXPECT_EQ(names, (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_EQ(list.tail->member_name, "three");

    EXPECT_EQ(quelvane_config_free_list(&list), 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
    // A freed list can be filled again.
    ASSERT_EQ(quelvane_config_parse_line(&list, lines[0], "", &flag), 0);
    EXPECT_EQ(list.head, list.tail);

    EXPECT_EQ(quelvane_config_free_list(nullptr), -1);
    EXPECT_EQ(quelvane_config_free_entry(nullptr), -1);
    quelvane_config_append_entry(nullptr, nullptr);  // ignored
}

TEST(ConfigAttributes, FillsTheEntryFromOneField) {
    ConfigEntry entry;
    char field[] = "ab,0x20,n,y";
    ASSERT_EQ(quelvane_config_parse_attributes(&entry, field), 0);
    EXPECT_EQ(entry.datasets, 3u);
    EXPECT_EQ(entry.timeout, 32);
    EXPECT_EQ(entry.collect_when_spswdown, 0);
    EXPECT_EQ(entry.literal_path, 1);

    char bad[] = "a,1,y";
    EXPECT_EQ(quelvane_config_parse_attributes(&entry, bad), -1);
    EXPECT_EQ(quelvane_config_parse_attributes(nullptr, bad), -1);
    EXPECT_EQ(quelvane_config_parse_attributes(&entry, nullptr), -1);
}

// Temporary directory removed with its contents.
class ScratchDir {
  public:
    ScratchDir() {
        char pattern[] = "/tmp/quelvane-config-XXXXXX";
        const char *made = mkdtemp(pattern);
        if (made != nullptr) path_ = made;
    }
    ~ScratchDir() {
        if (!path_.empty()) {
            std::string command = "rm -rf '" + path_ + "'";
            if (system(command.c_str()) != 0) perror("rm");
        }
    }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

void write_file(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

// Standard error of one call, taken from descriptor 2 itself.
template <typename Call>
std::string capture_stderr(const ScratchDir &dir, Call call) {
    const std::string path = dir.path() + "/stderr";
    fflush(stderr);
    int saved = dup(2);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
    call();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> member_names(const ConfigList &list) {
    std::vector<std::string> names;
    for (ConfigEntry *e = list.head; e != nullptr; e = e->next) names.push_back(e->member_name);
    return names;
}

TEST(ConfigReadFile, ReportsRejectedLinesWithTheirNumbers) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string conf = dir.path() + "/quelvane.conf";
    write_file(conf,
               "# collection for tests\n"           // 1
               "cmd i,-,y,n first /bin/true\n"      // 2
               "bogus line here\n"                  // 3
               "\n"                                 // 4
               "file i,-,y,n rel etc/hosts\n"       // 5
               "cut i,-,y,n second /bin/echo %d\n"  // 6
               "cmd i,0,y,n n /bin/true");          // 7, no newline at the end
    ConfigList list;
    int uses_domain = 0;
    int result = -2;
    const std::string err = capture_stderr(dir, [&] {
        result = quelvane_config_read_file(&list, conf.c_str(), "pre", &uses_domain);
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(err, "Error on line " + conf + ":3: bogus line here\n" +
                       "Error on line " + conf + ":5: file i,-,y,n rel etc/hosts\n" +
                       "Error on line " + conf + ":7: cmd i,0,y,n n /bin/true\n");
    EXPECT_EQ(member_names(list), (std::vector<std::string>{"pre/first", "pre/second"}));
    EXPECT_EQ(uses_domain, 1);
}

TEST(ConfigReadFile, LongLinesAreReadInNumberedPieces) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string conf = dir.path() + "/long.conf";
    // 2000 characters: the first 1023 make a valid command line of their own,
    // the rest is a line that starts with no keyword.
    const std::string head = "cmd i,-,y,n n /bin/echo ";
    const std::string tail(2000 - head.size(), 'x');
    write_file(conf, head + tail + "\nbogus\n");

    ConfigList list;
    int uses_domain = 0;
    const std::string err = capture_stderr(dir, [&] {
        EXPECT_EQ(quelvane_config_read_file(&list, conf.c_str(), "", &uses_domain), 0);
    });
    const size_t first_piece = 1023 - head.size();
    EXPECT_EQ(err, "Error on line " + conf + ":2: " + std::string(tail.size() - first_piece, 'x') +
                       "\n" + "Error on line " + conf + ":3: bogus\n");
    ASSERT_NE(list.head, nullptr);
    ASSERT_EQ(list.head->argv.size(), 2u);
    EXPECT_EQ(list.head->argv[1], std::string(first_piece, 'x'));
    EXPECT_EQ(list.head->next, nullptr);
}

TEST(ConfigReadFile, BadLongLineIsReportedPieceByPiece) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string conf = dir.path() + "/bad.conf";
    const std::string line(2000, 'z');
    write_file(conf, line + "\n");

    ConfigList list;
    int uses_domain = 0;
    const std::string err = capture_stderr(dir, [&] {
        EXPECT_EQ(quelvane_config_read_file(&list, conf.c_str(), "", &uses_domain), 0);
    });
    // The first piece has no newline of its own, so one is added after it.
    EXPECT_EQ(err, "Error on line " + conf + ":1: " + std::string(1023, 'z') + "\n" +
                       "Error on line " + conf + ":2: " + std::string(2000 - 1023, 'z') + "\n");
    EXPECT_EQ(list.head, nullptr);
}

TEST(ConfigReadFile, UnopenableFileFailsWithTwoLines) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string conf = dir.path() + "/missing.conf";
    ConfigList list;
    int uses_domain = 0;
    const std::string err = capture_stderr(dir, [&] {
        EXPECT_EQ(quelvane_config_read_file(&list, conf.c_str(), "", &uses_domain), -1);
    });
    EXPECT_EQ(err, "Unable to open config file: " + conf + "\n" + conf +
                       ": No such file or directory\n");
    EXPECT_EQ(list.head, nullptr);
}

TEST(ConfigReadFile, UnreadableFileIsAnErrorNotAnEmptyList) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    ConfigList list;
    int uses_domain = 0;
    // A directory opens for reading but every read fails.
    const std::string err = capture_stderr(dir, [&] {
        EXPECT_EQ(quelvane_config_read_file(&list, dir.path().c_str(), "", &uses_domain), -1);
    });
    EXPECT_EQ(err, dir.path() + ": Is a directory\n");
}

TEST(ConfigReadFile, NullArgumentsFail) {
    ConfigList list;
    int flag = 0;
    EXPECT_EQ(quelvane_config_read_file(nullptr, "/dev/null", "", &flag), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, nullptr, "", &flag), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, "/dev/null", nullptr, &flag), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, "/dev/null", "", nullptr), -1);
    EXPECT_EQ(quelvane_config_read_file(&list, "/dev/null", "", &flag), 0);
    EXPECT_EQ(list.head, nullptr);
}

}  // namespace
