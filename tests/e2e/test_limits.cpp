// The long options for a web UI: the progress channel's lines for a mixed run and a
// stalled reader, a deadline, gentle priorities, and archive budgets that every reader
// accepts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include "testsupport.h"

namespace {

// The archive's progress lines go to this file.
qt::RunSpec progress_to(const std::string &path)
{
    qt::RunSpec job;
    job.in_child = [path] {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 3);
    };
    return job;
}

}  // namespace

TEST(Limits, ProgressLinesDescribeAMixedRun)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::write_file(dir.file("present"), "data\n"));
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"),
                               "cmd i,-,y,n a /bin/echo hello\n"
                               "cmd i,1,y,n slow /bin/sleep 10\n"
                               "cmd i,-,y,n fails /bin/ls /nonexistent\n"
                               "cmd i,-,y,n missing /bin/no-such-program\n"
                               "file i,-,y,y f " + dir.file("present") + "\n"
                               "file i,-,y,y g " + dir.file("absent") + "\n"));
    qt::RunResult run = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                               "--progress-fd=3"}, progress_to(dir.file("progress")));
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<std::string> lines = qt::split_lines(qt::read_file(dir.file("progress")));
    ASSERT_EQ(lines.size(), 1u + 2 * 6 + 1) << qt::read_file(dir.file("progress"));
    EXPECT_EQ(lines.front(), "BEGIN 6 v1");
    const std::regex start(R"(START (\d+) (cmd|file) (t/\S+))");
    const std::regex end(R"(END (\d+) (t/\S+) (ok|error|timeout|interrupted|skipped) (\d+) (\d+) (\d+))");
    const char *const results[] = {"ok", "timeout", "error", "error", "ok", "error"};
    const qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("t.zip")));
    for (int i = 0; i < 6; ++i) {
        std::smatch began, ended;
        ASSERT_TRUE(std::regex_match(lines[1 + 2 * i], began, start)) << lines[1 + 2 * i];
        ASSERT_TRUE(std::regex_match(lines[2 + 2 * i], ended, end)) << lines[2 + 2 * i];
        EXPECT_EQ(began[1], std::to_string(i + 1));
        EXPECT_EQ(ended[1], began[1]);
        EXPECT_EQ(ended[2], began[3]);
        EXPECT_EQ(ended[3], results[i]) << lines[2 + 2 * i];
        EXPECT_EQ(began[2], i < 4 ? "cmd" : "file");
        // A missing program or file makes no member of its own.
        EXPECT_EQ(zip.find(began[3]) != nullptr, i != 3 && i != 5) << began[3];
    }
    // The time-out took its second; the present file's bytes in are its own.
    EXPECT_GE(std::stoi(std::regex_replace(lines[4], end, "$6")), 1000);
    EXPECT_EQ(std::regex_replace(lines[10], end, "$4"), "5");
    EXPECT_EQ(lines.back(), "OK " + std::to_string(qt::read_file(dir.file("t.zip")).size()));
}

TEST(Limits, StalledReaderLosesLinesNotTime)
{
    if (qt::emulated())
        GTEST_SKIP() << "a matter of pipes and time, the same on every target";
    qt::TempDir dir;
    std::string config;
    for (int i = 0; i < 150; ++i)
        config += "file i,-,y,y f" + std::to_string(i) + " " + dir.file("q.conf") + "\n";
    config += "cmd i,20,y,n wait /bin/sleep 6\n";
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), config));
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    qt::RunSpec job;
    const std::string fifo = dir.file("fifo");
    job.in_child = [fifo] {
        int fd = open(fifo.c_str(), O_WRONLY);
        fcntl(fd, F_SETPIPE_SZ, 4096);  // full after a few dozen lines
        dup2(fd, 3);
    };
    std::string received;
    job.during = [&](pid_t) {
        int fd = open(fifo.c_str(), O_RDONLY);
        std::this_thread::sleep_for(std::chrono::seconds(5));
        char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
            received.append(buffer, static_cast<size_t>(got));
        close(fd);
    };
    qt::RunResult run = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                               "--progress-fd=3"}, job);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_LT(run.seconds, 6 + 1.5) << "the run waited for its reader";
    // Every line either arrived or is counted in the one LOST line.
    const std::vector<std::string> lines = qt::split_lines(received);
    auto lost = std::find_if(lines.begin(), lines.end(), [](const std::string &l) { return l.rfind("LOST ", 0) == 0; });
    ASSERT_NE(lost, lines.end()) << received;
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string &l) { return l.rfind("LOST", 0) == 0; }), 1);
    EXPECT_EQ(lines.size() - 1 + std::stoul(lost->substr(5)), 1u + 2 * 151 + 1);
    EXPECT_EQ(lines.back().rfind("OK ", 0), 0u);
}

TEST(Limits, DeadlineSkipsWhatIsLeftInEveryMode)
{
    for (const bool download : {false, true}) {
        SCOPED_TRACE(download ? "download" : "file");
        qt::TempDir dir;
        ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,-,y,n a /bin/echo first\n"
                                                       "cmd i,60,y,n slow /bin/sleep 30\n"
                                                       "cmd i,-,y,n b /bin/echo never\n"
                                                       "file i,-,y,y f " + dir.file("q.conf") + "\n"));
        const std::string out = download ? "-" : dir.file("t.zip");
        std::vector<std::string> args = {"-f", "q.conf", "-a", "t.zip", "-o", out, "-L", "i", "-v", "--deadline=1"};
        if (download)
            args.push_back("-b");
        qt::RunResult run = qt::run_quelvane(dir, args);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_LT(run.seconds, 1 + 2 + 1.5);  // the deadline, the stopped command's grace, the rest
        std::string bytes = download ? run.out : qt::read_file(out);
        if (download) {
            const std::string header = "Content-Disposition: attachment; filename=t.zip\n";
            ASSERT_NE(bytes.find(header), std::string::npos);
            bytes = bytes.substr(bytes.find("\n\n") + 2);
        }
        ASSERT_TRUE(qt::write_file(dir.file("got.zip"), bytes));
        EXPECT_EQ(qt::check_real_readers(dir.file("got.zip")), "");
        const qt::ZipArchive zip = qt::read_zip(bytes);
        EXPECT_EQ(zip.names(), (std::vector<std::string>{"t/README", "t/CONFIG", "t/a/@bin@echo_first.out",
                                                          "t/slow/@bin@sleep_30.out", "t/slow/@bin@sleep_30.err",
                                                          "t/SKIPPED"}));
        ASSERT_NE(zip.find("t/SKIPPED"), nullptr);
        EXPECT_EQ(zip.find("t/SKIPPED")->data,
                  "deadline 3 cmd t/b/@bin@echo_never.out\ndeadline 4 file t/f/" + qt::flat(dir.file("q.conf")) + "\n");
        EXPECT_NE(zip.find("t/slow/@bin@sleep_30.err")->data.find("Command Timeout"), std::string::npos);
        const std::string &console = download ? run.err : run.out;
        // The time-out and the two entries skipped.
        EXPECT_NE(console.find("Finished with 3 collection errors"), std::string::npos) << console;
    }
}

TEST(Limits, GentleCommandsRunAtTheLowestPriorities)
{
    qt::TempDir dir;
    // The pid file appears whole (a rename), however slowly an emulated tool starts.
    const std::string sleeper =
        qt::script(dir, "sleeper", "echo $$ > " + dir.file("pid.new") + "\nmv " + dir.file("pid.new") + " " + dir.file("pid") + "\nsleep 3\n");
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,10,y,n s " + sleeper + "\n"));
    std::vector<std::pair<int, long>> seen;  // nice, I/O priority of the tool, then the command
    qt::RunSpec job;
    job.during = [&](pid_t tool) {
        for (int i = 0; i < 1500 && !qt::file_exists(dir.file("pid")); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        for (pid_t pid : {tool, static_cast<pid_t>(std::atoi(qt::read_file(dir.file("pid")).c_str()))}) {
            std::istringstream stat(qt::read_file("/proc/" + std::to_string(pid) + "/stat"));
            std::string field;
            for (int i = 0; i < 19; ++i)
                stat >> field;  // the 19th field is nice
            seen.emplace_back(std::atoi(field.c_str()), syscall(SYS_ioprio_get, 1, pid));
        }
    };
    qt::RunResult run = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                               "--gentle"}, job);
    ASSERT_EQ(run.status, 0) << run.err;
    const std::pair<int, long> lowest = {19, 3L << 13};  // nice 19, the idle class
    EXPECT_EQ(seen, (std::vector<std::pair<int, long>>{lowest, lowest}));
}

TEST(Limits, BudgetsHoldForEveryReaderPlainAndEncrypted)
{
    qt::TempDir dir;
    // Rotated logs, newest first by age but not by name (app.log.10 is the oldest).
    ASSERT_EQ(mkdir(dir.file("logs").c_str(), 0755), 0);
    std::vector<std::string> by_age;
    uint32_t seed = 7;
    for (int i = 0; i <= 10; ++i) {
        std::string text;
        while (text.size() < 60000) {
            seed = seed * 1103515245 + 12345;
            text += "event " + std::to_string(seed >> 8) + " state " + std::to_string(seed % 97) + "\n";
        }
        const std::string name = i == 0 ? "app.log" : "app.log." + std::to_string(i);
        ASSERT_TRUE(qt::write_file(dir.file("logs/" + name), text));
        struct utimbuf when = {1700000000 - i * 3600, 1700000000 - i * 3600};
        utime(dir.file("logs/" + name).c_str(), &when);
        by_age.push_back("t/logs/" + qt::flat(dir.file("logs/" + name)));
    }
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,-,y,n id /bin/uname -a\n"
                                                   "log i,-,y,n logs " + dir.file("logs/app.log*") + "\n"
                                                   "cmd i,-,y,n noise /bin/head -c 1500000 /dev/urandom\n"
                                                   "cmd i,-,y,n after /bin/echo after\n"));
    const std::regex cut_note(R"(QUELVANE MSG: Data cut at (\d+) bytes, the archive's size limit\n)");
    for (const char *budget : {"10K", "100K", "1M"}) {
        for (const bool encrypted : {false, true}) {
            SCOPED_TRACE(std::string(budget) + (encrypted ? " encrypted" : ""));
            std::vector<std::string> args = {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                             std::string("--max-size=") + budget};
            if (encrypted)
                args.insert(args.end(), {"-e", "-P", "secret"});
            qt::RunResult run = qt::run_quelvane(dir, args);
            ASSERT_EQ(run.status, 0) << run.err;
            const uint64_t limit = std::stoull(budget) << (budget[std::strlen(budget) - 1] == 'M' ? 20 : 10);
            EXPECT_LE(qt::read_file(dir.file("t.zip")).size(), limit);
            EXPECT_GT(qt::read_file(dir.file("t.zip")).size(), limit * 3 / 4) << "the budget was not used";
            std::string plain = dir.file("t.zip");
            if (encrypted) {
                ASSERT_EQ(qt::openssl_decrypt(plain, "secret", dir.file("plain.zip")), "");
                plain = dir.file("plain.zip");
            }
            const qt::ZipArchive zip = qt::read_zip(qt::read_file(plain));
            ASSERT_EQ(zip.error, "");
            // Only collected files' ".err" members declare another size than they hold.
            std::set<std::string> flagged;
            for (const std::string &name : zip.names())
                if (name.rfind("t/logs/", 0) == 0 && name.size() > 4 && name.compare(name.size() - 4, 4, ".err") == 0)
                    flagged.insert(name);
            EXPECT_EQ(qt::check_real_readers(plain, flagged), "");
            // One member was cut, and its ".err" says at how many bytes.
            int cuts = 0;
            for (const qt::ZipEntry &entry : zip.entries) {
                std::smatch note;
                if (entry.name.size() < 4 || !std::regex_search(entry.data, note, cut_note))
                    continue;
                const qt::ZipEntry *data = zip.find(entry.name.substr(0, entry.name.size() - 4) +
                                                    (entry.name.rfind("t/logs/", 0) == 0 ? "" : ".out"));
                ASSERT_NE(data, nullptr) << entry.name;
                EXPECT_EQ(std::to_string(data->data.size()), note[1].str());
                ++cuts;
            }
            EXPECT_EQ(cuts, 1);
            // The entries left out are listed, and the logs kept are the newest.
            ASSERT_NE(zip.find("t/SKIPPED"), nullptr);
            EXPECT_NE(zip.find("t/SKIPPED")->data.find("max-size 4 cmd t/after/@bin@echo_after.out\n"), std::string::npos);
            EXPECT_EQ(zip.find("t/after/@bin@echo_after.out"), nullptr);
            size_t kept = 0;
            while (kept < by_age.size() && zip.find(by_age[kept]) != nullptr)
                ++kept;
            for (size_t i = kept; i < by_age.size(); ++i)
                EXPECT_EQ(zip.find(by_age[i]), nullptr) << by_age[i] << " kept while a newer log was dropped";
            EXPECT_GE(kept, 1u);
        }
    }
}
