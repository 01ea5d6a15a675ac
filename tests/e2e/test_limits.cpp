// The long options for a web UI: the progress channel with a stalled reader, a deadline,
// and archive budgets that every reader accepts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include "testsupport.h"

TEST(Limits, StalledReaderLosesLinesNotTime)
{
    if (qt::emulated())
        GTEST_SKIP() << "a matter of pipes and time, the same on every target";
    qt::TempDir dir;
    // First a name with a control byte and a backslash, which the channel escapes.
    std::string config = "cmd i,20,y,n odd /bin/echo \x01\\\n";
    for (int i = 0; i < 150; ++i)
        config += "file i,-,y,y f" + std::to_string(i) + " " + dir.file("q.conf") + "\n";
    qt::Collect asked{config + "cmd i,20,y,n wait /bin/sleep 6\n", {"-L", "i", "--progress-fd=3"}};
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    const std::string fifo = dir.file("fifo");
    asked.job.in_child = [fifo] {
        const int fd = open(fifo.c_str(), O_WRONLY);
        fcntl(fd, F_SETPIPE_SZ, 8192);  // two pages: full after a page of lines
        dup2(fd, 3);
    };
    std::string received, flags;
    asked.job.during = [&](pid_t pid) {
        const int fd = open(fifo.c_str(), O_RDONLY);
        std::this_thread::sleep_for(std::chrono::seconds(5));
        // The description may be shared with others: its flags stay as they were.
        std::istringstream info(qt::read_file("/proc/" + std::to_string(pid) + "/fdinfo/3"));
        for (std::string field; info >> field && field != "flags:";) {
        }
        info >> flags;
        char buffer[4096];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
            received.append(buffer, static_cast<size_t>(got));
        close(fd);
    };
    const qt::Collection c = qt::collect(dir, asked);
    EXPECT_LT(c.run.seconds, 6 + 1.5) << "the run waited for its reader";
    // Every line either arrived or is counted in the one LOST line.
    const std::vector<std::string> lines = qt::split_lines(received);
    const auto is_lost = [](const std::string &l) { return l.rfind("LOST ", 0) == 0; };
    const auto lost = std::find_if(lines.begin(), lines.end(), is_lost);
    ASSERT_NE(lost, lines.end()) << received;
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), is_lost), 1);
    EXPECT_EQ(lines.size() - 1 + std::stoul(lost->substr(5)), 1u + 2 * 152 + 1);
    EXPECT_EQ(lines.back().rfind("OK ", 0), 0u);
    EXPECT_EQ(std::stoul(flags, nullptr, 8) & O_NONBLOCK, 0u) << flags;
    EXPECT_EQ(lines[1], "START 1 cmd t/odd/@bin@echo_\\x01\\x5c.out");
}

TEST(Limits, DeadlineSkipsWhatIsLeftInEveryMode)
{
    for (const std::string out : {"out.zip", "-"}) {
        SCOPED_TRACE(out);
        qt::TempDir dir;
        const std::string config = "cmd i,-,y,n a /bin/echo first\ncmd i,60,y,n slow /bin/sleep 30\n"
                                   "cmd i,-,y,n b /bin/echo never\nfile i,-,y,y f " + dir.file("q.conf") + "\n";
        qt::Collect asked{config, {"-L", "i", "-v", "-b", "--deadline=1"}, out};
        asked.progress = true;
        const qt::Collection c = qt::collect(dir, asked);
        EXPECT_LT(c.run.seconds, qt::emulated() ? 4.0 : 2.5);
        // The stopped command ends within half a second of the deadline: no kill grace is left
        // to run once it has been reaped (its END line's last field is its milliseconds).
        const std::string slow = c.progress.size() > 4 ? c.progress[4] : "";
        EXPECT_LT(atoi(slow.substr(slow.rfind(' ') + 1).c_str()), 1500) << slow;
        EXPECT_EQ(c.header.find("filename=t.zip\n") != std::string::npos, out == "-");
        EXPECT_EQ(c.zip.names(), (std::vector<std::string>{"t/README", "t/CONFIG", "t/a/@bin@echo_first.out",
                                                            "t/slow/@bin@sleep_30.out", "t/slow/@bin@sleep_30.err", "t/SKIPPED"}));
        EXPECT_EQ(c.zip.data("t/SKIPPED"),
                  "deadline 3 cmd t/b/@bin@echo_never.out\ndeadline 4 file t/f/" + qt::flat(dir.file("q.conf")) + "\n");
        EXPECT_NE(c.zip.data("t/slow/@bin@sleep_30.err").find("Command Timeout"), std::string::npos);
        // The time-out and the two entries skipped.
        EXPECT_NE((out == "-" ? c.run.err : c.run.out).find("Finished with 3 collection errors"), std::string::npos);
    }
}

// A budget is used and never passed, plain, encrypted and stored, and counts every
// record: README, CONFIG and SKIPPED are set aside first, and a budget too small for them
// is refused with the least that fits, which then holds. The one member cut says where;
// a cut command keeps its notes; the newest logs are kept; SKIPPED lists the entries
// left out, or what fits and a count of the rest.
TEST(Limits, BudgetsHoldAndCountEveryRecord)
{
    qt::TempDir dir;
    // Rotated logs, newest first by age but not by name (app.log.10 is the oldest).
    ASSERT_EQ(qt::run_program("/bin/sh", {"-c", "cd " + dir.path() + " && mkdir logs && for i in $(seq 0 10); do f=logs/app.log.$i; "
                                               "[ $i = 0 ] && f=logs/app.log; seq 3000 | awk -v s=$i '{ print \"event\", "
                                               "($1 * 7919 + s * 104729) % 1000003, \"state\", ($1 + s) % 97 }' > $f; "
                                               "touch -d @$((1700000000 - i * 3600)) $f; done"}).status, 0);
    std::vector<std::string> by_age;
    for (int i = 0; i <= 10; ++i)
        by_age.push_back("t/logs/" + qt::flat(dir.file("logs/app.log" + (i == 0 ? "" : "." + std::to_string(i)))));
    const std::string logs = "cmd i,-,y,n id /bin/uname -a\nlog i,-,y,n logs " + dir.file("logs/app.log*") +
                             "\ncmd i,-,y,n noise /bin/head -c 1500000 /dev/urandom\ncmd i,-,y,n after /bin/echo after\n";
    const std::string noisy = qt::script(dir, "noisy", "head -c 200000 /dev/urandom | base64 -w 0 >&2\n"
                                                       "head -c 300000 /dev/urandom\nexit 3\n");
    std::string many;
    for (int i = 1; i <= 600; ++i)
        many += "cmd i,-,y,n e" + std::to_string(i) + " /bin/echo " + std::to_string(i) + "\n";
    struct Case { std::string config, budget, how = "plain", archive = "t.zip"; };
    std::vector<Case> cases = {{"cmd i,-,y,n a /bin/echo a\n", "4096", "long name", std::string(4000, 'x') + ".zip"},
                               {"cmd i,-,y,n n " + noisy + "\ncmd i,-,y,n e /bin/echo e\n", "20K"}, {many, "4096"}};
    for (const char *budget : {"10K", "100K", "1M"})
        for (const char *how : {"plain", "encrypted", "stored"})
            cases.push_back({logs, budget, how});
    const std::regex cut_note(R"(QUELVANE MSG: Data cut at (\d+) bytes, the archive's size limit\n)");
    const std::string refused = "--max-size 4096 cannot hold README, CONFIG and SKIPPED: at least ";
    for (const Case &c : cases) {
        SCOPED_TRACE(c.budget + " " + c.how + " " + c.config.substr(0, 20));
        qt::Collect asked{c.config, {"-L", "i", "--max-size=" + c.budget}};
        asked.archive = c.archive;
        asked.status = -1;  // which members are flagged, a first look tells
        if (c.how == "encrypted")
            asked.args.insert(asked.args.end(), {"-e", "-P", "secret"}), asked.password = "secret";
        if (c.how == "stored")
            asked.args.push_back("-C");
        unlink(dir.file("out.zip").c_str());
        qt::Collection got = qt::collect(dir, asked);
        std::string budget = c.budget;
        if (got.run.status == 1 && got.run.err.rfind(refused, 0) == 0) {  // nothing written; the least it names fits
            EXPECT_FALSE(qt::file_exists(dir.file("out.zip")));
            budget = got.run.err.substr(refused.size(), got.run.err.find(' ', refused.size()) - refused.size());
            asked.args[2] = "--max-size=" + budget;
            got = qt::collect(dir, asked);
        }
        // Only collected files' ".err" members declare another size than they hold.
        for (const std::string &name : got.zip.names())
            if (name.rfind("t/logs/", 0) == 0 && name.compare(name.size() - 4, 4, ".err") == 0)
                asked.flagged.insert(name);
        got.zip = qt::read_archive(got.path, asked.flagged);
        ASSERT_EQ(got.run.status, 0) << got.run.err;
        EXPECT_EQ(got.zip.problems, "");
        const uint64_t limit = std::stoull(budget) << (budget.back() == 'M' ? 20 : budget.back() == 'K' ? 10 : 0);
        EXPECT_LE(got.sent.size(), limit);
        const std::string top = c.archive.substr(0, c.archive.size() - 4) + "/";
        const std::string skipped = got.zip.data(top + "SKIPPED");
        const std::vector<std::string> lines = qt::split_lines(skipped);
        if (c.config == many) {
            ASSERT_EQ(lines.back().substr(0, 8), "... and ");
            EXPECT_EQ(lines.size() - 1 + std::stoul(lines.back().substr(8)), 600u);
        }
        const std::string err = got.zip.data(top + "n/" + qt::flat(noisy) + ".err");
        EXPECT_TRUE(c.budget != "20K" || (std::regex_search(err, cut_note) &&
                                          err.find("QUELVANE MSG: Child exited with 3: No such process\n") != std::string::npos))
            << err.substr(0, 200);
        if (c.config != logs)
            continue;
        EXPECT_GT(got.sent.size(), limit * 3 / 4) << "the budget not used";
        int cuts = 0;  // one member was cut, and its ".err" says at how many bytes
        for (const qt::Member &m : got.zip.members) {
            std::smatch note;
            if (m.name.size() < 4 || !std::regex_search(m.data, note, cut_note))
                continue;
            const std::string cut = m.name.substr(0, m.name.size() - 4) + (m.name.rfind("t/logs/", 0) == 0 ? "" : ".out");
            EXPECT_EQ(std::to_string(got.zip.data(cut).size()), note[1].str()) << cut;
            ++cuts;
        }
        EXPECT_EQ(cuts, 1);
        EXPECT_NE(skipped.find("max-size 4 cmd t/after/@bin@echo_after.out\n"), std::string::npos);
        size_t kept = 0;  // the logs kept are the newest
        while (kept < by_age.size() && got.zip.find(by_age[kept]) != nullptr)
            ++kept;
        for (size_t i = kept; i < by_age.size(); ++i)
            EXPECT_EQ(got.zip.find(by_age[i]), nullptr) << by_age[i] << " kept while a newer log was dropped";
        EXPECT_GE(kept, 1u);
    }
}
