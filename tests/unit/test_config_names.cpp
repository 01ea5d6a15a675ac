// Command strings, member names, command members and pattern expansion.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "quelvane_config_file.h"
#include "testsupport.h"

namespace {

ConfigEntry command_entry(const std::string &member_name, std::vector<std::string> argv) {
    ConfigEntry entry;
    entry.type = ENTRY_CMD;
    entry.member_name = member_name;
    entry.argv = std::move(argv);
    if (!entry.argv.empty()) entry.path = entry.argv[0];
    return entry;
}

struct CommandCase {
    const char *member_name;
    std::vector<std::string> argv;
    int index;
    const char *suffix;
    const char *command;
    const char *output_name;
};

TEST(ConfigNames, CommandStringsAndOutputNames) {
    const CommandCase cases[] = {
        {"system/ifconfig", {"/sbin/ifconfig", "eth%d"}, 1, ".out", "/sbin/ifconfig eth1",
         "system/ifconfig/@sbin@ifconfig_eth1.out"},
        {"d", {"/bin/echo", "%d%d"}, 12, ".out", "/bin/echo 1212", "d/@bin@echo_1212.out"},
        {"d", {"/bin/echo", "a%db", "%d"}, 3, ".err", "/bin/echo a3b 3",
         "d/@bin@echo_a3b_3.err"},
        {"d", {"/bin/echo", "%%d", "%dd"}, 7, nullptr, "/bin/echo %7 7d", "d/@bin@echo_%7_7d"},
        {"d", {"/bin/echo", "x%d"}, -4, nullptr, "/bin/echo x-4", "d/@bin@echo_x-4"},
        {"d", {"/bin/echo", "%i", "%"}, 5, nullptr, "/bin/echo %i %", "d/@bin@echo_%i_%"},
        // The program path is substituted too when it holds "%d".
        {"d", {"/opt/x%d/run"}, 2, nullptr, "/opt/x2/run", "d/@opt@x2@run"},
        {"", {"/bin/true"}, 0, ".out", "/bin/true", "/@bin@true.out"},
        {"d", {"/bin/echo", "a\tb"}, 0, ".err", "/bin/echo a\tb", "d/@bin@echo_a_b.err"},
        {"d", {"/bin/echo", "a\nb\vc\fd\re"}, 0, nullptr, "/bin/echo a\nb\vc\fd\re",
         "d/@bin@echo_a_b_c_d_e"},
        {"a/b/c", {"/bin/cat", "/proc/cpuinfo"}, 0, ".out", "/bin/cat /proc/cpuinfo",
         "a/b/c/@bin@cat_@proc@cpuinfo.out"},
        {"my dir/x", {"/bin/true"}, 0, ".out", "/bin/true", "my_dir/x/@bin@true.out"},
        {"d", {"/bin/sh", "-c", "ls | wc"}, 0, nullptr, "/bin/sh -c ls | wc",
         "d/@bin@sh_-c_ls_|_wc"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("expecting ") + c.output_name);
        const ConfigEntry entry = command_entry(c.member_name, c.argv);
        EXPECT_EQ(quelvane_config_command_string(&entry, c.index), c.command);
        EXPECT_EQ(quelvane_config_output_name(&entry, c.suffix, c.index), c.output_name);
    }
}

TEST(ConfigNames, MissingCommandGivesNoName) {
    const ConfigEntry empty = command_entry("d", {});
    EXPECT_EQ(quelvane_config_command_string(&empty, 0), "");
    EXPECT_EQ(quelvane_config_output_name(&empty, ".out", 0), "");
    EXPECT_EQ(quelvane_config_command_string(nullptr, 0), "");
    EXPECT_EQ(quelvane_config_output_name(nullptr, ".out", 0), "");
    EXPECT_EQ(quelvane_config_path_name(nullptr, ".err"), "");
}

struct PathCase {
    const char *member_name;
    const char *path;
    const char *suffix;
    const char *expected;
};

TEST(ConfigNames, PathNames) {
    const PathCase cases[] = {
        {"etc", "/etc/hosts", nullptr, "etc/@etc@hosts"},
        {"etc", "/etc/hosts", ".err", "etc/@etc@hosts.err"},
        {"", "/etc/hosts", nullptr, "/@etc@hosts"},
        {"a/b", "/x/y", nullptr, "a/b/@x@y"},
        // White space stays in path names.
        {"logs", "/var/log/my log\tfile", ".err", "logs/@var@log@my log\tfile.err"},
        {"my dir", "/x", nullptr, "my dir/@x"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("expecting ") + c.expected);
        ConfigEntry entry;
        entry.type = ENTRY_FILE;
        entry.member_name = c.member_name;
        entry.path = c.path;
        EXPECT_EQ(quelvane_config_path_name(&entry, c.suffix), c.expected);
    }
}

TEST(ConfigMembers, CommandMembersAreResetAndFilled) {
    const ConfigEntry entry = command_entry("net/ifconfig", {"/sbin/ifconfig", "eth%d"});
    const ConfigEntry no_command = command_entry("d", {});
    const struct {
        int (*fill)(const ConfigEntry *, ZipMember *, int);
        const char *name;
    } kinds[] = {
        {quelvane_zip_stdout_member, "net/ifconfig/@sbin@ifconfig_eth3.out"},
        {quelvane_zip_stderr_member, "net/ifconfig/@sbin@ifconfig_eth3.err"},
    };
    for (const auto &k : kinds) {
        SCOPED_TRACE(k.name);
        ZipMember member;  // left-overs of a previous member must not survive
        member.source_path = "/stale";
        member.crc32 = member.compressed_size = member.uncompressed_size = 9;
        member.dos_datetime = member.local_header_offset = 9;
        member.source_file = stdin;
        member.kind = MEMBER_FILE;
        ASSERT_EQ(k.fill(&entry, &member, 3), 0);
        ZipMember expected;
        expected.name = k.name;
        expected.version_needed = 20;
        expected.flags = 8;
        expected.method = 8;
        expected.kind = MEMBER_GENERATED;
        EXPECT_EQ(std::tie(member.name, member.version_needed, member.flags, member.method,
                           member.kind, member.source_path, member.crc32, member.compressed_size,
                           member.uncompressed_size, member.dos_datetime,
                           member.local_header_offset, member.source_file),
                  std::tie(expected.name, expected.version_needed, expected.flags,
                           expected.method, expected.kind, expected.source_path, expected.crc32,
                           expected.compressed_size, expected.uncompressed_size,
                           expected.dos_datetime, expected.local_header_offset,
                           expected.source_file));
        EXPECT_EQ(k.fill(nullptr, &member, 0), -1);
        EXPECT_EQ(k.fill(&entry, nullptr, 0), -1);
        EXPECT_EQ(k.fill(&no_command, &member, 0), -1);
    }
}

class ConfigGlob : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *name : {"b.log", "a.log", "c.log", "notes.txt"}) {
            ASSERT_TRUE(qt::write_file(dir_.file(name), name));
        }
    }
    // A start without matches drops any expansion a failed test left behind,
    // which would otherwise point at a dead entry.
    void TearDown() override {
        ConfigEntry none = file_entry("/*.none");
        config_glob_next(&none);
    }
    ConfigEntry file_entry(const std::string &pattern, uint32_t type = ENTRY_LOG) {
        ConfigEntry entry;
        entry.type = type;
        entry.path = dir_.path() + pattern;
        return entry;
    }
    qt::TempDir dir_;
};

TEST_F(ConfigGlob, WalksMatchesInOrderAndKeepsTheLast) {
    ConfigEntry entry = file_entry("/*.log");
    std::vector<std::string> seen;
    for (int r = config_glob_next(&entry); r == 0; r = config_glob_next(nullptr)) {
        seen.push_back(entry.path);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{dir_.file("a.log"), dir_.file("b.log"),
                                              dir_.file("c.log")}));
    EXPECT_EQ(entry.path, dir_.file("c.log"));
    EXPECT_EQ(config_glob_next(nullptr), -1);  // stays finished
}

TEST_F(ConfigGlob, NothingToExpand) {
    const struct {
        const char *pattern;
        uint32_t type;
    } cases[] = {
        {"/*.none", ENTRY_FILE},
        {"/nodir/*", ENTRY_LOG},
        {"/*.log", ENTRY_CMD},  // command kinds are never expanded
        {"/*.log", ENTRY_CUT},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " kind " + std::to_string(c.type));
        ConfigEntry entry = file_entry(c.pattern, c.type);
        EXPECT_EQ(config_glob_next(&entry), -1);
        EXPECT_EQ(entry.path, dir_.path() + c.pattern);
        EXPECT_EQ(config_glob_next(nullptr), -1);
    }
}

TEST_F(ConfigGlob, NewStartReplacesAnActiveExpansion) {
    ConfigEntry first = file_entry("/*.log");
    ASSERT_EQ(config_glob_next(&first), 0);
    ConfigEntry second = file_entry("/*.txt", ENTRY_FILE);
    ASSERT_EQ(config_glob_next(&second), 0);
    EXPECT_EQ(second.path, dir_.file("notes.txt"));
    EXPECT_EQ(config_glob_next(nullptr), -1);
    EXPECT_EQ(first.path, dir_.file("a.log"));  // untouched by the second walk
}

}  // namespace
