#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testsupport.h"

// A configuration of accepted, rejected and ignored lines through the real
// binary: rejected lines are reported with their numbers and skipped, the
// run goes on, and log-only mode drops commands and files unchecked.
TEST(ConfigFile, BadLinesAreReportedAndSkipped)
{
    const std::vector<std::string> lines = {
        "CMD i,-,y,n n /bin/true",       "cmd i,-,Y,n n /bin/true",      "cmd i,0,y,n n /bin/true",
        "cmd i,0x10,y,n hex /bin/true",  "file i,-,y,n n etc/hosts",     "file i,-,y,n n /etc/a /etc/b",
        "cmd i,-,y,n n",                 "  # a comment",                "",
        "cmd i,-,y,n dom /bin/echo x%d", "cmd garbage",                  "log garbage"};
    std::string conf;
    for (const std::string &line : lines)
        conf += line + "\n";
    auto reported = [&](std::initializer_list<int> numbers) {
        std::string text;
        for (int n : numbers)
            text += "Error on line c.conf:" + std::to_string(n) + ": " + lines[n - 1] + "\n";
        return text;
    };
    struct Case {
        std::vector<std::string> flags;
        std::string err;
        std::vector<std::string> members;
        const char *log_only;
    } cases[] = {
        {{}, reported({2, 3, 5, 6, 7, 11, 12}),
         {"x/README", "x/CONFIG", "x/n/@bin@true.out", "x/hex/@bin@true.out", "x/dom/@bin@echo_x0.out"}, "no"},
        {{"-l"}, reported({12}), {"x/README", "x/CONFIG"}, "yes"},
    };
    for (const Case &c : cases) {
        qt::TempDir dir;
        ASSERT_TRUE(qt::write_file(dir.file("c.conf"), conf));
        std::vector<std::string> args = {"-f", "c.conf", "-a", "x.zip", "-o", "x.zip", "-L", "i"};
        args.insert(args.end(), c.flags.begin(), c.flags.end());
        qt::RunResult r = qt::run_quelvane(dir, args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, "Collecting data into x.zip\nData collection complete\n");
        qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("x.zip")));
        EXPECT_EQ(zip.error, "");
        EXPECT_EQ(zip.names(), c.members);
        EXPECT_EQ(zip.entries.at(1).data, conf);
        EXPECT_NE(zip.entries.at(0).data.find(std::string("LOG-ONLY MODE: ") + c.log_only + "\n"),
                  std::string::npos);
        EXPECT_EQ(qt::check_real_readers(dir.file("x.zip")), "");
    }
}

// Its commands run as we do: a file that other users may change, or that belongs to
// someone other than root or the caller, is refused like a configuration that is missing.
TEST(ConfigFile, OneOthersMayChangeIsRefused)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::write_file(dir.file("c.conf"), "cmd i,-,y,n n /bin/true\n"));
    const struct { unsigned mode; uid_t owner; std::string why; } cases[] = {
        {0666, 0, "is writable by other users"},
        {0600, 12345, "belongs to user 12345, neither root nor the caller"}};
    for (const auto &c : cases) {
        ASSERT_EQ(chmod(dir.file("c.conf").c_str(), c.mode) | chown(dir.file("c.conf").c_str(), c.owner, 0), 0);
        qt::RunResult r = qt::run_quelvane(dir, {"-f", "c.conf", "-a", "x.zip", "-o", "x.zip", "-L", "i"});
        EXPECT_EQ(r.status, 6);
        EXPECT_EQ(r.err, "Config file c.conf " + c.why + "; refusing to run it\nError reading config file: c.conf\n");
        EXPECT_FALSE(qt::file_exists(dir.file("x.zip")));
    }
}
