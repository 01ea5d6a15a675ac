// Collection pieces that a run of the tool cannot reach: more than one
// domain, the kill sequence's report, member records, README variants and
// the walk's own rules.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include "quelvane_config_file.h"
#include "quelvane_datagen.h"
#include "quelvane_util.h"
#include "quelvane_zip.h"
#include "testsupport.h"

namespace {

// Everything read back from an anonymous file.
std::string contents(int fd)
{
    std::string data;
    char buffer[65536];
    ssize_t count;
    for (off_t at = 0; (count = pread(fd, buffer, sizeof buffer, at)) > 0; at += count)
        data.append(buffer, static_cast<size_t>(count));
    return data;
}

// What the function printed on standard output.
std::string console(const std::function<void()> &run)
{
    FILE *capture = tmpfile();
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    dup2(fileno(capture), STDOUT_FILENO);
    run();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string text = contents(fileno(capture));
    fclose(capture);
    return text;
}

ConfigEntry command_entry(const std::string &member, std::vector<std::string> argv, int timeout = 15)
{
    ConfigEntry entry;
    entry.type = ENTRY_CMD;
    entry.datasets = 1u << ('i' - 'a');
    entry.collect_when_spswdown = 1;
    entry.timeout = timeout;
    entry.member_name = member;
    entry.path = argv.at(0);
    entry.argv = std::move(argv);
    for (size_t i = 1; i < entry.argv.size(); ++i)
        if (entry.argv[i].find("%d") != std::string::npos)
            entry.uses_domain = 1;
    return entry;
}

ConfigEntry file_entry(const std::string &member, const std::string &path)
{
    ConfigEntry entry;
    entry.type = ENTRY_FILE;
    entry.datasets = 1u << ('i' - 'a');
    entry.collect_when_spswdown = 1;
    entry.literal_path = 1;
    entry.timeout = 15;
    entry.member_name = member;
    entry.path = path;
    return entry;
}

// One archive per test, written to an anonymous file.
class DatagenArchive : public ::testing::Test {
protected:
    void SetUp() override
    {
        writer = ZipWriter{};
        zip_member_list_free();
        ASSERT_EQ(zip_deflate_start(), 0);
        ASSERT_EQ(quelvane_signal_setup(), 0);
        verbose = 0;
        log_only_mode = 0;
        interrupted_by_user = 0;
        file_ = tmpfile();
        ASSERT_NE(file_, nullptr);
        fd = fileno(file_);
    }
    void TearDown() override
    {
        fclose(file_);
        zip_member_list_free();
        verbose = 0;
        log_only_mode = 0;
        interrupted_by_user = 0;
    }

    qt::ZipArchive finish()
    {
        EXPECT_EQ(zip_finish_archive(fd, &writer.total_written), 0);
        std::string bytes = contents(fd);
        EXPECT_EQ(bytes.size(), writer.total_written);
        return qt::read_zip(bytes);
    }

    ZipWriter writer;
    int fd = -1;

private:
    FILE *file_ = nullptr;
};

}  // namespace

// A command naming the domain runs once per domain index, only while it
// uses the index; every failed index is counted.
TEST_F(DatagenArchive, CommandRunsOncePerDomain)
{
    struct Case {
        const char *name;
        std::vector<std::string> argv;
        int max_domains;
        int result;
        unsigned errors;
        std::vector<std::string> members;
    };
    const Case cases[] = {
        {"three domains", {"/bin/echo", "eth%d"}, 3, 0, 0,
         {"d/@bin@echo_eth0.out", "d/@bin@echo_eth1.out", "d/@bin@echo_eth2.out"}},
        {"one domain", {"/bin/echo", "eth%d"}, 1, 0, 0, {"d/@bin@echo_eth0.out"}},
        {"no domains", {"/bin/echo", "eth%d"}, 0, 0, 0, {"d/@bin@echo_eth0.out"}},
        {"index not used", {"/bin/echo", "eth"}, 3, 0, 0, {"d/@bin@echo_eth.out"}},
        {"missing program", {"/nonexistent/tool", "--if=%d"}, 2, -1, 2,
         {"d/@nonexistent@tool_--if=0.err", "d/@nonexistent@tool_--if=1.err"}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        if (&test != cases) {
            TearDown();
            SetUp();
        }
        ConfigEntry entry = command_entry("d", test.argv);
        unsigned errors = 0;
        EXPECT_EQ(datagen_run_command_entry(fd, &entry, &writer, &errors, test.max_domains), test.result);
        EXPECT_EQ(errors, test.errors);
        qt::ZipArchive zip = finish();
        EXPECT_EQ(zip.names(), test.members) << zip.error;
        if (test.max_domains == 3 && entry.uses_domain) {
            for (size_t i = 0; i < zip.entries.size(); ++i)
                EXPECT_EQ(zip.entries[i].data, "eth" + std::to_string(i) + "\n");
        }
    }
}

// A group that ignores SIGTERM (here it inherits the ignored signal from
// us) outlives the grace period: the runner says so and leaves it.
TEST_F(DatagenArchive, KillSequenceReportsAGroupThatStays)
{
    struct sigaction previous;
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGTERM, &ignore, &previous), 0);
    ConfigEntry entry = command_entry("d", {"/bin/sleep", "30"}, 1);
    entry.command = "/bin/sleep 30";
    verbose = 1;
    int result = 0;
    std::string printed = console([&] { result = quelvane_execute_command(fd, &entry, &writer, 0); });
    sigaction(SIGTERM, &previous, nullptr);

    int group = 0;
    size_t at = printed.find("(pid ");
    ASSERT_NE(at, std::string::npos) << printed;
    group = atoi(printed.c_str() + at + 5);
    ASSERT_GT(group, 1);
    bool alive = kill(-group, 0) == 0;
    kill(-group, SIGKILL);
    waitpid(group, nullptr, 0);

    EXPECT_EQ(result, -1);
    EXPECT_TRUE(alive) << "the group was killed";
    EXPECT_EQ(printed, "Starting Command: /bin/sleep 30\n"
                       "Command '/bin/sleep' (pid " + std::to_string(group) + ") did not exit.\n"
                       "Command '/bin/sleep' timed out\n");
    qt::ZipArchive zip = finish();
    std::vector<std::string> expected = {"d/@bin@sleep_30.out", "d/@bin@sleep_30.err"};
    ASSERT_EQ(zip.names(), expected) << zip.error;
    EXPECT_EQ(zip.entries[1].data, "QUELVANE MSG: Command Timeout: Exit Signal: 0\n");
}

// The record of a collected file and the reasons it cannot be made.
TEST(DatagenFileMember, PreparesTheRecordOrSaysWhyNot)
{
    qt::TempDir dir;
    std::string file = dir.file("data.txt");
    ASSERT_TRUE(qt::write_file(file, "twelve bytes"));
    struct Case {
        const char *name;
        std::string path;
        int result;
        const char *text;
    };
    const Case cases[] = {
        {"regular file", file, 0, ""},
        {"no path", "", -1, "Pathname not supplied for config entry"},
        {"missing", dir.file("missing"), ENOENT, "No such file"},
        {"directory", dir.path(), EINVAL, "Not a file"},
        {"below a file", file + "/below", ENOTDIR, "Couldn't stat file"},
        {"device", "/dev/null", EINVAL, "Not a file"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        ConfigEntry entry = file_entry("files", test.path);
        ZipMember member;
        std::string text;
        EXPECT_EQ(zip_init_file_member(&entry, &member, &text), test.result);
        EXPECT_EQ(text, test.text);
    }

    // A record used before is cleared; the declared size and time are the
    // ones stat gives.
    ConfigEntry entry = file_entry("files", file);
    ZipMember member;
    member.crc32 = 99;
    std::string text;
    ASSERT_EQ(zip_init_file_member(&entry, &member, &text), 0);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(member.source_path, file);
    EXPECT_EQ(member.kind, MEMBER_FILE);
    EXPECT_EQ(member.uncompressed_size, 12u);
    EXPECT_EQ(member.dos_datetime, static_cast<uint32_t>(st.st_mtime));
    EXPECT_EQ(member.crc32, 0u);

    std::string null_text;
    EXPECT_EQ(zip_init_file_member(nullptr, &member, &null_text), -1);
    EXPECT_EQ(null_text, "Invalid Arguments");
    EXPECT_EQ(zip_init_file_member(&entry, nullptr, &null_text), -1);

    ZipMember err;
    ASSERT_EQ(zip_init_err_member(&entry, &err), 0);
    EXPECT_EQ(err.name, member.name + ".err");
    EXPECT_EQ(err.kind, MEMBER_FILE);
    EXPECT_EQ(err.uncompressed_size, 0u);
    EXPECT_EQ(err.dos_datetime, 0u);
    EXPECT_EQ(zip_init_err_member(nullptr, &err), -1);
}

// README lines for the settings a plain run never shows, and the names at
// the archive root.
TEST_F(DatagenArchive, ReadmeAndConfigAtTheRoot)
{
    qt::TempDir dir;
    std::string config = dir.file("q.conf");
    ASSERT_TRUE(qt::write_file(config, "cmd i,-,y,n x /bin/true\n"));
    log_only_mode = 1;
    EXPECT_EQ(datagen_write_readme(fd, "arch.zip", config.c_str(), &writer, "", "ab", 7, 3), 0);
    EXPECT_EQ(datagen_write_config(fd, &writer, "", config.c_str()), 0);
    EXPECT_EQ(datagen_write_config(fd, &writer, "", dir.file("gone").c_str()), -1);
    EXPECT_EQ(datagen_write_readme(-1, "a", "b", &writer, "", "i", 0, 1), -1);
    EXPECT_EQ(datagen_write_readme(fd, "a", "b", &writer, nullptr, "i", 0, 1), -1);

    qt::ZipArchive zip = finish();
    std::vector<std::string> expected = {"README", "CONFIG"};
    ASSERT_EQ(zip.names(), expected) << zip.error;
    EXPECT_EQ(zip.entries[0].data, "Archive Name: arch.zip\n"
                                   "Config File: " + config + "\n"
                                   "Version: 1.1\n"
                                   "LOG-ONLY MODE: yes\n"
                                   "Log Sets: ab\n"
                                   "SP SW DOWN: yes\n"
                                   "Max Domains: 3\n");
    EXPECT_EQ(zip.entries[1].data, "cmd i,-,y,n x /bin/true\n");
    EXPECT_EQ(zip.entries[1].declared_size, 24u);
}

// The walk passes over what it does not know, stops before the next entry
// once interrupted, and reports the interrupt over any error count.
TEST_F(DatagenArchive, WalkSkipsUnknownKindsAndStopsWhenInterrupted)
{
    ConfigList list;
    auto add = [&list](ConfigEntry entry) {
        ConfigEntry *copy = new ConfigEntry(std::move(entry));
        quelvane_config_append_entry(&list, copy);
        return copy;
    };
    ConfigEntry *odd = add(command_entry("odd", {"/bin/echo", "odd"}));
    odd->type = 7;
    add(command_entry("missing", {"/nonexistent/tool"}));
    add(command_entry("echo", {"/bin/echo", "hi"}));
    const uint32_t i = 1u << ('i' - 'a');

    EXPECT_EQ(datagen_walk_entries(fd, &list, &writer, i, 0, 1), 1);
    EXPECT_EQ(datagen_walk_entries(fd, &list, &writer, 1u << ('j' - 'a'), 0, 1), 0);
    uint32_t written = writer.total_written;
    interrupted_by_user = 1;
    EXPECT_EQ(datagen_walk_entries(fd, &list, &writer, i, 0, 1), -1);
    EXPECT_EQ(writer.total_written, written) << "an entry ran after the interrupt";
    EXPECT_EQ(datagen_walk_entries(-1, &list, &writer, i, 0, 1), -1);
    EXPECT_EQ(datagen_walk_entries(fd, nullptr, &writer, i, 0, 1), -1);
    interrupted_by_user = 0;

    qt::ZipArchive zip = finish();
    std::vector<std::string> expected = {"missing/@nonexistent@tool.err", "echo/@bin@echo_hi.out"};
    EXPECT_EQ(zip.names(), expected) << zip.error;
}
