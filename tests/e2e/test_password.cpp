// The encryption password: typed at a real terminal (echo off while typing,
// restored after), typed on a pipe, or read from a descriptor.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "testsupport.h"

namespace {

// The tool with its standard input on a pseudo-terminal and its standard
// output and error on pipes, so each stream can be checked on its own.
class TerminalRun {
public:
    TerminalRun(const qt::TempDir &dir, const std::vector<std::string> &args)
    {
        if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0)
            ADD_FAILURE() << "openpty: " << strerror(errno);
        int out[2], err[2];
        if (pipe(out) != 0 || pipe(err) != 0)
            ADD_FAILURE() << "pipe: " << strerror(errno);
        mkdir(dir.file("home").c_str(), 0755);
        std::string home = "QUELVANE_HOME=" + dir.file("home");
        std::vector<std::string> argv_text = {qt::quelvane_binary()};
        argv_text.insert(argv_text.end(), args.begin(), args.end());
        std::vector<std::string> env_text = {"PATH=/usr/bin:/bin", "LC_ALL=C", home};
        for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
            if (const char *value = getenv(name))
                env_text.push_back(std::string(name) + "=" + value);
        std::vector<char *> argv, envp;
        for (std::string &a : argv_text)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        for (std::string &e : env_text)
            envp.push_back(e.data());
        envp.push_back(nullptr);

        pid_ = fork();
        if (pid_ == 0) {
            setsid();
            ioctl(slave_, TIOCSCTTY, 0);
            dup2(slave_, 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            for (int fd = 3; fd < 1024; fd++)
                close(fd);
            for (int s = 1; s < NSIG; s++)
                signal(s, SIG_DFL);
            if (chdir(dir.path().c_str()) != 0)
                _exit(126);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }

    ~TerminalRun()
    {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(master_);
        close(slave_);
        close(out_);
        close(err_);
    }

    // Reads standard output until it ends in text; false after a time-out.
    bool wait_for_output(const std::string &text, int milliseconds = 10000)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!ends_with(out_text_, text)) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            if (!drain(out_, &out_text_, 50))
                return ends_with(out_text_, text);
        }
        return true;
    }

    bool echo_on() const
    {
        struct termios t;
        if (tcgetattr(master_, &t) != 0)
            return false;
        return (t.c_lflag & ECHO) != 0;
    }

    void type(const std::string &text) { EXPECT_EQ(write(master_, text.data(), text.size()), static_cast<ssize_t>(text.size())); }

    void signal_child(int signo) { kill(pid_, signo); }

    // Waits for the end and collects the rest of both streams.
    int finish()
    {
        int status = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                break;
            }
            drain(out_, &out_text_, 10);
            drain(err_, &err_text_, 0);
        }
        reaped_ = true;
        while (drain(out_, &out_text_, 0)) {
        }
        while (drain(err_, &err_text_, 0)) {
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    // Whatever the terminal echoed back.
    std::string echoed()
    {
        std::string text;
        int flags = fcntl(master_, F_GETFL);
        fcntl(master_, F_SETFL, flags | O_NONBLOCK);
        char buffer[256];
        ssize_t n;
        while ((n = read(master_, buffer, sizeof buffer)) > 0)
            text.append(buffer, static_cast<size_t>(n));
        return text;
    }

    const std::string &out() const { return out_text_; }
    const std::string &err() const { return err_text_; }

private:
    static bool ends_with(const std::string &s, const std::string &tail)
    {
        return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
    }

    // Appends what is ready on fd; false at its end.
    static bool drain(int fd, std::string *text, int milliseconds)
    {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, milliseconds) <= 0)
            return true;
        char buffer[4096];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            return false;
        text->append(buffer, static_cast<size_t>(n));
        return true;
    }

    int master_ = -1, slave_ = -1, out_ = -1, err_ = -1;
    pid_t pid_ = -1;
    bool reaped_ = false;
    std::string out_text_, err_text_;
};

const std::string ENTER = "Enter encryption password: ";
const std::string CONFIRM = "Confirm encryption password: ";

// A configuration that cannot be read stops the run right after the
// password was taken, so these tests need no collection at all.
std::vector<std::string> encrypting_args(const qt::TempDir &dir)
{
    return {"-e", "-f", dir.file("missing.conf"), "-a", "x.zip", "-o", "out.zip"};
}

std::string missing_config_error(const qt::TempDir &dir)
{
    std::string path = dir.file("missing.conf");
    return "Unable to open config file: " + path + "\n" + path + ": No such file or directory\n" +
           "Error reading config file: " + path + "\n";
}

struct Typed {
    const char *what;
    std::string first;    // typed at the first prompt (without the newline)
    std::string confirm;  // typed at the second, when it comes
    bool confirm_asked;
    std::string error;    // empty: the password was taken
};

const Typed TYPED[] = {
    {"matching", "s3cret pass", "s3cret pass", true, ""},
    {"63 characters", std::string(63, 'k'), std::string(63, 'k'), true, ""},
    {"mismatch", "secret", "secreT", true, "Passwords do not match\n"},
    {"confirmation longer", "secret", "secret2", true, "Passwords do not match\n"},
    {"empty", "", "", false, "Password may not be empty.\n"},
    {"64 characters", std::string(64, 'k'), "", false, "Maximum password length is 63 characters.\n"},
    {"70 characters", std::string(70, 'k'), "", false, "Maximum password length is 63 characters.\n"},
};

TEST(TerminalPassword, EchoOffWhileTypingAndEachOutcome)
{
    for (const Typed &t : TYPED) {
        SCOPED_TRACE(t.what);
        qt::TempDir dir;
        TerminalRun run(dir, encrypting_args(dir));
        ASSERT_TRUE(run.wait_for_output(ENTER)) << run.out();
        EXPECT_FALSE(run.echo_on());
        run.type(t.first + "\n");
        std::string expected_out = ENTER + "\n";
        if (t.confirm_asked) {
            ASSERT_TRUE(run.wait_for_output(CONFIRM)) << run.out();
            EXPECT_FALSE(run.echo_on());
            run.type(t.confirm + "\n");
            expected_out += CONFIRM + "\n";
        }
        int status = run.finish();
        if (t.error.empty()) {
            EXPECT_EQ(run.out(), expected_out + "Output data will be encrypted.\n");
            EXPECT_EQ(run.err(), missing_config_error(dir));
            EXPECT_EQ(status, 6);
        } else {
            EXPECT_EQ(run.out(), expected_out);
            EXPECT_EQ(run.err(), t.error);
            EXPECT_EQ(status, 1);
        }
        EXPECT_TRUE(run.echo_on());
        // Nothing typed was shown on the terminal.
        EXPECT_EQ(run.echoed(), "");
        EXPECT_FALSE(qt::file_exists(dir.file("out.zip")));
    }
}

TEST(TerminalPassword, TerminationSignalAtThePromptEndsWithStatusOne)
{
    for (int signo : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(strsignal(signo));
        qt::TempDir dir;
        TerminalRun run(dir, encrypting_args(dir));
        ASSERT_TRUE(run.wait_for_output(ENTER)) << run.out();
        run.type("half");  // typed but never finished
        usleep(20000);
        run.signal_child(signo);
        int status = run.finish();
        EXPECT_EQ(status, 1);
        EXPECT_EQ(run.out(), ENTER + "\n");
        EXPECT_EQ(run.err(), "");
        EXPECT_TRUE(run.echo_on());
    }
}

TEST(TerminalPassword, EncryptsWithTheTypedPassword)
{
    qt::TempDir dir;
    const std::string conf = dir.file("q.conf");
    ASSERT_TRUE(qt::write_file(conf, "cmd i,-,y,n sys /bin/echo typed\n"));
    TerminalRun run(dir, {"-e", "-L", "i", "-f", conf, "-a", "x.zip", "-o", "out.zip"});
    ASSERT_TRUE(run.wait_for_output(ENTER)) << run.out();
    run.type("pa ss\n");
    ASSERT_TRUE(run.wait_for_output(CONFIRM)) << run.out();
    run.type("pa ss\n");
    EXPECT_EQ(run.finish(), 0);
    EXPECT_EQ(run.out(), ENTER + "\n" + CONFIRM + "\nOutput data will be encrypted.\n" +
                             "Collecting data into out.zip\nData collection complete\n");
    EXPECT_EQ(run.err(), "");
    ASSERT_EQ(qt::openssl_decrypt(dir.file("out.zip"), "pa ss", dir.file("plain.zip")), "");
    qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("plain.zip")));
    EXPECT_EQ(zip.error, "");
    ASSERT_NE(zip.find("x/sys/@bin@echo_typed.out"), nullptr);
    EXPECT_EQ(zip.find("x/sys/@bin@echo_typed.out")->data, "typed\n");
    EXPECT_EQ(qt::check_real_readers(dir.file("plain.zip")), "");
}

// Standard input that is not a terminal: lines are read as typed and a
// newline follows each prompt.
TEST(PipedPassword, ReadLikeTypedLines)
{
    struct Case {
        const char *what;
        std::string input;
        std::string out;
        std::string err;  // empty: taken, then the missing configuration
        int status;
    } cases[] = {
        {"matching", "pw\npw\n", ENTER + "\n" + CONFIRM + "\nOutput data will be encrypted.\n", "", 6},
        {"last line without newline", "pw\npw", ENTER + "\n" + CONFIRM + "\nOutput data will be encrypted.\n",
         "", 6},
        {"no input", "", ENTER + "\n", "Password may not be empty.\n", 1},
        {"empty line", "\npw\n", ENTER + "\n", "Password may not be empty.\n", 1},
        {"no confirmation", "pw\n", ENTER + "\n" + CONFIRM + "\n", "Passwords do not match\n", 1},
        {"prefix of the first", "pw1\npw\n", ENTER + "\n" + CONFIRM + "\n", "Passwords do not match\n", 1},
        {"70 characters", std::string(70, 'x') + "\n", ENTER + "\n",
         "Maximum password length is 63 characters.\n", 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        qt::TempDir dir;
        qt::RunSpec spec;
        spec.stdin_data = c.input;
        qt::RunResult r = qt::run_quelvane(dir, encrypting_args(dir), spec);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.status == 6 ? missing_config_error(dir) : c.err);
        EXPECT_EQ(r.status, c.status);
    }
}

// The bytes read from the descriptor are the password, a trailing newline
// included (its limits are covered by the unit tests).
TEST(DescriptorPassword, TrailingNewlineIsPartOfThePassword)
{
    qt::TempDir dir;
    const std::string conf = dir.file("q.conf");
    ASSERT_TRUE(qt::write_file(conf, "cmd i,-,y,n sys /bin/echo fd\n"));
    qt::RunSpec spec;
    spec.fds = {{4, "abc\n"}};
    qt::RunResult r = qt::run_quelvane(
        dir, {"-e", "-I", "4", "-L", "i", "-f", conf, "-a", "x.zip", "-o", "out.zip"}, spec);
    EXPECT_EQ(r.out, "Output data will be encrypted.\nCollecting data into out.zip\nData collection complete\n");
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(qt::openssl_decrypt(dir.file("out.zip"), "abc", dir.file("wrong.zip")), "");
    ASSERT_EQ(qt::openssl_decrypt(dir.file("out.zip"), "abc\n", dir.file("plain.zip")), "");
    qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("plain.zip")));
    EXPECT_EQ(zip.error, "");
    ASSERT_NE(zip.find("x/sys/@bin@echo_fd.out"), nullptr);
    EXPECT_EQ(qt::check_real_readers(dir.file("plain.zip")), "");
}

}  // namespace
