// Command strings, member names, command members and pattern expansion.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "quelvane_config_file.h"

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
    struct {
        int (*fill)(const ConfigEntry *, ZipMember *, int);
        const char *name;
    } const kinds[] = {
        {quelvane_zip_stdout_member, "net/ifconfig/@sbin@ifconfig_eth3.out"},
        {quelvane_zip_stderr_member, "net/ifconfig/@sbin@ifconfig_eth3.err"},
    };
    for (const auto &k : kinds) {
        SCOPED_TRACE(k.name);
        // Left-overs from a previous member must not leak into this one.
        ZipMember member;
        member.dos_datetime = 1234;
        member.source_path = "/stale";
        member.crc32 = 99;
        member.compressed_size = 5;
        member.uncompressed_size = 6;
        member.local_header_offset = 7;
        member.source_file = stdin;
        member.kind = MEMBER_FILE;
        ASSERT_EQ(k.fill(&entry, &member, 3), 0);
        EXPECT_EQ(member.name, k.name);
        EXPECT_EQ(member.version_needed, 20);
        EXPECT_EQ(member.flags, 8);
        EXPECT_EQ(member.method, 8);
        EXPECT_EQ(member.kind, MEMBER_GENERATED);
        EXPECT_EQ(member.dos_datetime, 0u);
        EXPECT_EQ(member.source_path, "");
        EXPECT_EQ(member.crc32, 0u);
        EXPECT_EQ(member.compressed_size, 0u);
        EXPECT_EQ(member.uncompressed_size, 0u);
        EXPECT_EQ(member.local_header_offset, 0u);
        EXPECT_EQ(member.source_file, nullptr);

        ZipMember unused;
        EXPECT_EQ(k.fill(nullptr, &unused, 0), -1);
        EXPECT_EQ(k.fill(&entry, nullptr, 0), -1);
        const ConfigEntry no_command = command_entry("d", {});
        EXPECT_EQ(k.fill(&no_command, &unused, 0), -1);
    }
}

class ConfigGlob : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/quelvane-glob-XXXXXX";
        const char *made = mkdtemp(pattern);
        ASSERT_NE(made, nullptr);
        dir_ = made;
        for (const char *name : {"b.log", "a.log", "c.log", "notes.txt"}) {
            std::ofstream(dir_ + "/" + name) << name;
        }
    }
    void TearDown() override {
        // A start without matches drops any expansion a failed test left
        // behind, which would otherwise point at a dead entry.
        ConfigEntry none = file_entry(dir_ + "/*.none");
        config_glob_next(&none);
        if (!dir_.empty()) {
            std::string command = "rm -rf '" + dir_ + "'";
            if (system(command.c_str()) != 0) perror("rm");
        }
    }
    ConfigEntry file_entry(const std::string &path, uint32_t type = ENTRY_LOG) {
        ConfigEntry entry;
        entry.type = type;
        entry.path = path;
        return entry;
    }
    std::string dir_;
};

TEST_F(ConfigGlob, WalksMatchesInOrderAndKeepsTheLast) {
    ConfigEntry entry = file_entry(dir_ + "/*.log");
    std::vector<std::string> seen;
    for (int r = config_glob_next(&entry); r == 0; r = config_glob_next(nullptr)) {
        seen.push_back(entry.path);
    }
    EXPECT_EQ(seen, (std::vector<std::string>{dir_ + "/a.log", dir_ + "/b.log",
                                              dir_ + "/c.log"}));
    EXPECT_EQ(entry.path, dir_ + "/c.log");
    EXPECT_EQ(config_glob_next(nullptr), -1);  // stays finished
}

TEST_F(ConfigGlob, NoMatchLeavesThePathAlone) {
    ConfigEntry entry = file_entry(dir_ + "/*.none", ENTRY_FILE);
    EXPECT_EQ(config_glob_next(&entry), -1);
    EXPECT_EQ(entry.path, dir_ + "/*.none");
    EXPECT_EQ(config_glob_next(nullptr), -1);

    ConfigEntry missing_dir = file_entry(dir_ + "/nodir/*");
    EXPECT_EQ(config_glob_next(&missing_dir), -1);
}

TEST_F(ConfigGlob, PlainPathMatchesItself) {
    ConfigEntry entry = file_entry(dir_ + "/notes.txt", ENTRY_FILE);
    ASSERT_EQ(config_glob_next(&entry), 0);
    EXPECT_EQ(entry.path, dir_ + "/notes.txt");
    EXPECT_EQ(config_glob_next(nullptr), -1);
}

TEST_F(ConfigGlob, CommandKindsAreNotExpanded) {
    for (uint32_t type : {uint32_t(ENTRY_CMD), uint32_t(ENTRY_CUT), 7u}) {
        SCOPED_TRACE(type);
        ConfigEntry entry = file_entry(dir_ + "/*.log", type);
        EXPECT_EQ(config_glob_next(&entry), -1);
        EXPECT_EQ(entry.path, dir_ + "/*.log");
    }
    EXPECT_EQ(config_glob_next(nullptr), -1);
}

TEST_F(ConfigGlob, NewStartReplacesAnActiveExpansion) {
    ConfigEntry first = file_entry(dir_ + "/*.log");
    ASSERT_EQ(config_glob_next(&first), 0);
    EXPECT_EQ(first.path, dir_ + "/a.log");

    ConfigEntry second = file_entry(dir_ + "/*.txt", ENTRY_FILE);
    ASSERT_EQ(config_glob_next(&second), 0);
    EXPECT_EQ(second.path, dir_ + "/notes.txt");
    EXPECT_EQ(config_glob_next(nullptr), -1);
    EXPECT_EQ(first.path, dir_ + "/a.log");  // untouched by the second walk
}

}  // namespace
