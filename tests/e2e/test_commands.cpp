// Running configured commands: members, exit codes, time-outs, process
// groups, runaway output and interrupts, against the real binary.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <ostream>
#include <thread>

#include "collect_fixture.h"

using collect::Collected;
using collect::flat;
using collect::script;

namespace {

bool wait_for_file(const std::string &path, double seconds)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!qt::file_exists(path)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Kills a process group the tool deliberately left running.
struct GroupCleanup {
    pid_t group = 0;
    ~GroupCleanup()
    {
        if (group > 0)
            kill(-group, SIGKILL);
    }
};

}  // namespace

// Exit codes and missing programs: what lands in ".err", on the console and
// in the error count.
TEST(Commands, ExitCodesAndMissingPrograms)
{
    qt::TempDir dir;
    std::string missing = dir.file("not-installed");
    std::string ok = script(dir, "ok", "echo fine\n");
    std::string one = script(dir, "one", "echo partial; echo 'went wrong' >&2; exit 1\n");
    std::string two = script(dir, "two", "exit 2\n");
    // The shell that runs it is killed under it, by someone else.
    std::string self_killed = script(dir, "self-killed", "echo before; kill -9 $PPID\n");
    std::string config = "cmd i,-,y,n ok " + ok + "\n" +
                         "cmd i,-,y,n missing " + missing + " --flag\n" +
                         "cmd i,-,y,n one " + one + "\n" +
                         "cmd i,-,y,n two " + two + "\n" +
                         "cmd i,-,y,n killed " + self_killed + "\n";
    Collected c = collect::collect(dir, config, {"-v", "-L", "i"});

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.err, "");
    EXPECT_EQ(c.run.out,
              "Collecting data into " + c.path + "\n"
              "Sending README File\n"
              "Sending CONFIG File\n"
              "Starting Command: " + ok + "\n"
              "Command '" + ok + "' exited normally\n"
              "Starting Command: " + missing + " --flag\n"
              "Starting Command: " + one + "\n"
              "Command '" + one + "' exited with 1: Operation not permitted\n"
              "Starting Command: " + two + "\n"
              "Command '" + two + "' exited with 2: No such file or directory\n"
              "Starting Command: " + self_killed + "\n"
              // Only a non-zero exit code is a failure, by design.
              "Command '" + self_killed + "' exited normally\n"
              "Completing ZIP archive\n"
              "Data collection complete\n"
              // Only the missing program counts.
              "Finished with 1 collection errors\n");

    std::vector<std::string> expected = {
        "t/README",
        "t/CONFIG",
        "t/ok/" + flat(ok) + ".out",
        "t/missing/" + flat(missing) + "_--flag.err",
        "t/one/" + flat(one) + ".out",
        "t/one/" + flat(one) + ".err",
        "t/two/" + flat(two) + ".out",
        "t/two/" + flat(two) + ".err",
        "t/killed/" + flat(self_killed) + ".out",
    };
    EXPECT_EQ(c.zip.names(), expected);
    EXPECT_EQ(c.data(expected[2]), "fine\n");
    EXPECT_EQ(c.data(expected[3]), "QUELVANE MSG: " + missing + " does not exist on this platform\n");
    EXPECT_EQ(c.data(expected[4]), "partial\n");
    EXPECT_EQ(c.data(expected[5]),
              "went wrong\nQUELVANE MSG: Child exited with 1: Operation not permitted\n");
    EXPECT_EQ(c.data(expected[6]), "");
    EXPECT_EQ(c.data(expected[7]), "QUELVANE MSG: Child exited with 2: No such file or directory\n");
    EXPECT_EQ(c.data(expected[8]), "before\n");
    collect::expect_readable(c);
}

// A command past its time-out is stopped with its whole group, its ".err"
// ends with the time-out line, and the next entry starts after the grace
// period.
TEST(Commands, TimeOutStopsTheWholeGroup)
{
    qt::TempDir dir;
    std::string slow = script(dir, "slow",
                              "sleep 30 &\n"
                              "echo $! > " + dir.file("grandchild.pid") + "\n"
                              "echo partial; echo noted >&2\n"
                              "sleep 30\n");
    std::string after = script(dir, "after", "date +%s.%N\n");
    std::string config = "cmd i,1,y,n slow " + slow + "\n" +
                         "cmd i,-,y,n after " + after + "\n";
    auto started = std::chrono::system_clock::now();
    Collected c = collect::collect(dir, config, {"-v", "-L", "i"});
    double started_at = std::chrono::duration<double>(started.time_since_epoch()).count();

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.err, "");
    EXPECT_EQ(c.run.out,
              "Collecting data into " + c.path + "\n"
              "Sending README File\n"
              "Sending CONFIG File\n"
              "Starting Command: " + slow + "\n"
              "Command '" + slow + "' timed out\n"
              "Starting Command: " + after + "\n"
              "Command '" + after + "' exited normally\n"
              "Completing ZIP archive\n"
              "Data collection complete\n"
              "Finished with 1 collection errors\n");
    EXPECT_EQ(c.data("t/slow/" + flat(slow) + ".out"), "partial\n");
    EXPECT_EQ(c.data("t/slow/" + flat(slow) + ".err"),
              "noted\nQUELVANE MSG: Command Timeout: Exit Signal: 15\n");

    // One second of time-out, two of grace, then the next entry.
    double next_started = atof(c.data("t/after/" + flat(after) + ".out").c_str()) - started_at;
    EXPECT_GT(next_started, 2.8);
    EXPECT_LT(next_started, 4.8);

    pid_t grandchild = collect::pid_from(dir.file("grandchild.pid"));
    ASSERT_GT(grandchild, 0);
    EXPECT_FALSE(collect::process_alive(grandchild)) << "the background sleep outlived its group";
    if (collect::process_alive(grandchild))
        kill(grandchild, SIGKILL);
    collect::expect_readable(c);
}

// No SIGKILL, ever: a command that ignores SIGTERM outlives the shell that
// started it and is left running, and the run goes on.
TEST(Commands, CommandIgnoringTermIsLeftRunning)
{
    qt::TempDir dir;
    std::string pid_file = dir.file("stubborn.pid");
    std::string stubborn = script(dir, "stubborn",
                                  "trap '' TERM\n"
                                  "echo $$ > " + pid_file + "\n"
                                  "while :; do sleep 0.2; done\n");
    std::string config = "cmd i,1,y,n stubborn " + stubborn + "\n" +
                         "cmd i,-,y,n after /bin/echo after\n";
    Collected c = collect::collect(dir, config, {"-v", "-L", "i"});
    GroupCleanup cleanup;
    pid_t left = collect::pid_from(pid_file);
    ASSERT_GT(left, 0);
    cleanup.group = getpgid(left);

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.out,
              "Collecting data into " + c.path + "\n"
              "Sending README File\n"
              "Sending CONFIG File\n"
              "Starting Command: " + stubborn + "\n"
              "Command '" + stubborn + "' timed out\n"
              "Starting Command: /bin/echo after\n"
              "Command '/bin/echo' exited normally\n"
              "Completing ZIP archive\n"
              "Data collection complete\n"
              "Finished with 1 collection errors\n");
    // The shell went with the signal; the command it started did not.
    EXPECT_EQ(c.data("t/stubborn/" + flat(stubborn) + ".err"),
              "QUELVANE MSG: Command Timeout: Exit Signal: 15\n");
    EXPECT_EQ(c.data("t/after/@bin@echo_after.out"), "after\n");
    EXPECT_TRUE(collect::process_alive(left)) << "the command was killed after all";
    collect::expect_readable(c);
}

// The shell has gone but a background process still holds both pipes: the
// run takes what is there and moves on instead of waiting for the end of
// the streams.
TEST(Commands, BackgroundProcessHoldingPipesDoesNotHang)
{
    qt::TempDir dir;
    std::string leaves = script(dir, "leaves",
                                "sleep 30 &\n"
                                "echo $! > " + dir.file("background.pid") + "\n"
                                "echo started; echo warned >&2\n");
    std::string config = "cmd i,20,y,n leaves " + leaves + "\n" +
                         "cmd i,-,y,n after /bin/echo after\n";
    Collected c = collect::collect(dir, config, {"-L", "i"});
    pid_t background = collect::pid_from(dir.file("background.pid"));
    if (background > 0)
        kill(background, SIGKILL);

    EXPECT_EQ(c.run.status, 0);
    EXPECT_LT(c.run.seconds, 3.0);
    EXPECT_EQ(c.run.out, "Collecting data into " + c.path + "\nData collection complete\n");
    EXPECT_EQ(c.data("t/leaves/" + flat(leaves) + ".out"), "started\n");
    EXPECT_EQ(c.data("t/leaves/" + flat(leaves) + ".err"), "warned\n");
    EXPECT_EQ(c.data("t/after/@bin@echo_after.out"), "after\n");
    collect::expect_readable(c);
}

// An endless producer must not keep the runner from seeing its time-out.
TEST(Commands, EndlessOutputStopsAtTheTimeOut)
{
    qt::TempDir dir;
    Collected c = collect::collect(dir, "cmd i,1,y,n zero /bin/cat /dev/zero\n", {"-L", "i"});
    EXPECT_EQ(c.run.status, 0);
    EXPECT_LT(c.run.seconds, 10.0);
    const qt::ZipEntry *out = c.zip.find("t/zero/@bin@cat_@dev@zero.out");
    ASSERT_NE(out, nullptr) << c.zip.error;
    EXPECT_GT(out->data.size(), 0u);
    EXPECT_EQ(out->data.find_first_not_of('\0'), std::string::npos);
    EXPECT_EQ(c.data("t/zero/@bin@cat_@dev@zero.err"), "QUELVANE MSG: Command Timeout: Exit Signal: 15\n");
    collect::expect_readable(c);
}

// Standard error is capped without a word; standard output is kept whole.
TEST(Commands, StandardErrorIsCappedSilently)
{
    qt::TempDir dir;
    std::string noise = dir.file("noise");
    std::string chatty = script(dir, "chatty",
                                "head -c 409600 /dev/urandom > " + noise + "\n"
                                // 1024-byte writes: the pipe only ever holds
                                // whole kilobytes, so the cap is met exactly.
                                "dd if=" + noise + " bs=1024 status=none >&2\n"
                                "cat " + noise + "\n");
    Collected c = collect::collect(dir, "cmd i,-,y,n chatty " + chatty + "\n", {"-v", "-L", "i"});
    std::string written = qt::read_file(noise);
    ASSERT_EQ(written.size(), 409600u);

    EXPECT_EQ(c.run.status, 0);
    EXPECT_EQ(c.run.err, "");
    EXPECT_NE(c.run.out.find("Command '" + chatty + "' exited normally\n"), std::string::npos);
    EXPECT_NE(c.run.out.find("Finished with 0 collection errors\n"), std::string::npos);
    std::string err = c.data("t/chatty/" + flat(chatty) + ".err");
    EXPECT_EQ(err.size(), 262144u);
    EXPECT_TRUE(err == written.substr(0, err.size())) << "the kept error text is not the first part";
    EXPECT_TRUE(c.data("t/chatty/" + flat(chatty) + ".out") == written) << "standard output was cut";
    collect::expect_readable(c);
}

namespace {

// The first size bytes of the output of seq 1 20000000.
std::string counting(size_t size)
{
    std::string text;
    text.reserve(size + 16);
    char line[16];
    for (unsigned i = 1; text.size() < size; ++i)
        text.append(line, static_cast<size_t>(snprintf(line, sizeof line, "%u\n", i)));
    text.resize(size);
    return text;
}

Collected collect_counting(const qt::TempDir &dir, size_t size)
{
    std::string config = "cmd i,60,y,n count " + script(dir, "count", "seq 1 20000000 | head -c " +
                                                                       std::to_string(size) + "\n") +
                         "\n";
    return collect::collect(dir, config, {"-L", "i"});
}

}  // namespace

// 100 MB on standard output arrives whole, streamed: the tool's memory stays
// what it is for 1 MB.
TEST(Commands, LargeOutputIsStreamed)
{
    const size_t big = 100u << 20;
    qt::TempDir small_dir;
    Collected small = collect_counting(small_dir, 1u << 20);
    qt::TempDir dir;
    Collected c = collect_counting(dir, big);

    ASSERT_EQ(c.run.status, 0) << c.run.err;
    ASSERT_EQ(c.zip.error, "");
    const qt::ZipEntry &out = c.zip.entries.at(2);
    EXPECT_EQ(out.name, "t/count/" + flat(dir.file("count")) + ".out");
    std::string expected = counting(big);
    EXPECT_EQ(out.data.size(), big);
    EXPECT_EQ(out.declared_size, big);
    EXPECT_EQ(out.crc, static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(expected.data()),
                                                   static_cast<uInt>(expected.size()))));
    EXPECT_EQ(c.zip.entries.size(), 3u) << "no .err member expected";
    EXPECT_EQ(qt::check_real_readers(c.path), "");

    ASSERT_EQ(small.run.status, 0);
    printf("peak memory: %ld KB for 100 MB of output, %ld KB for 1 MB\n", c.run.maxrss_kb,
           small.run.maxrss_kb);
#if defined(__SANITIZE_ADDRESS__)
    // Shadow memory and the allocation quarantine blur small differences:
    // only a growth with the output is a finding here.
    EXPECT_LT(c.run.maxrss_kb, 2 * small.run.maxrss_kb) << "peak memory grew with the output";
#else
    EXPECT_LT(c.run.maxrss_kb, small.run.maxrss_kb + 1024) << "peak memory grew with the output";
#endif
}

// An interrupt while a command runs: the command's group gets SIGTERM, no
// further entry runs, the archive is completed (seen in download mode) and
// a file archive is removed; exit status 5.
struct InterruptCase {
    const char *name;
    int signo;
    bool download;
};

std::ostream &operator<<(std::ostream &out, const InterruptCase &c) { return out << c.name; }

class Interrupt : public ::testing::TestWithParam<InterruptCase> {};

TEST_P(Interrupt, StopsTheRunAndTheCommandGroup)
{
    const InterruptCase &param = GetParam();
    qt::TempDir dir;
    std::string started = dir.file("started");
    std::string got_term = dir.file("got-term");
    std::string second_ran = dir.file("second-ran");
    std::string waits = script(dir, "waits",
                               "trap 'echo term > " + got_term + "; exit 0' TERM\n"
                               "echo waiting; touch " + started + "\n"
                               "while :; do sleep 0.1; done\n");
    std::string second = script(dir, "second", "touch " + second_ran + "\n");
    std::string config = "cmd i,30,y,n waits " + waits + "\n" +
                         "cmd i,-,y,n second " + second + "\n" +
                         "file i,-,y,y etc /etc/hostname\n";
    qt::RunSpec spec;
    spec.during = [&](pid_t pid) {
        if (wait_for_file(started, 10))
            kill(pid, param.signo);
    };
    Collected c = param.download ? collect::download(dir, config, {"-v", "-L", "i"}, spec)
                                 : collect::collect(dir, config, {"-v", "-L", "i"}, spec);

    EXPECT_EQ(c.run.status, 5);
    EXPECT_EQ(qt::read_file(got_term), "term\n");
    EXPECT_FALSE(qt::file_exists(second_ran));
    std::string progress = "Starting Command: " + waits + "\n"
                           "Command '" + waits + "' interrupted by user\n";
    std::string refusal = "Data capture interrupted by user.  Attempting to remove archive.\n";
    if (param.download) {
        EXPECT_EQ(c.run.err, "Sending README File\nSending CONFIG File\n" + progress + refusal +
                                 "Interrupted by user\n");
        std::vector<std::string> expected = {"t/README", "t/CONFIG", "t/waits/" + flat(waits) + ".out",
                                             "t/waits/" + flat(waits) + ".err"};
        EXPECT_EQ(c.zip.names(), expected);
        EXPECT_EQ(c.data(expected[2]), "waiting\n");
        // The script's shell may report its own sleep as terminated first.
        std::string err = c.data(expected[3]);
        std::string last = "QUELVANE MSG: User Interrupt\n";
        EXPECT_TRUE(err == last || err == "Terminated\n" + last) << err;
        collect::expect_readable(c);
    } else {
        EXPECT_EQ(c.run.out, "Collecting data into " + c.path + "\nSending README File\n"
                             "Sending CONFIG File\n" + progress + "Interrupted by user\n");
        EXPECT_EQ(c.run.err, refusal);
        EXPECT_FALSE(qt::file_exists(c.path)) << "the interrupted archive was kept";
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, Interrupt,
                         ::testing::Values(InterruptCase{"SigintToFile", SIGINT, false},
                                           InterruptCase{"SigtermInDownload", SIGTERM, true}),
                         [](const auto &info) { return std::string(info.param.name); });
