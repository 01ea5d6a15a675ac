// Front-end pieces run in-process: line input and the yes/no prompt on a
// piped standard input, the password descriptor, the download header, and
// the device clean-up that the command line cannot reach.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "main.h"
#include "quelvane_util.h"
#include "testsupport.h"

namespace {

// A pipe holding data, open for reading, its write end closed.
int pipe_with(const std::string &data)
{
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    EXPECT_EQ(write(ends[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(ends[1]);
    return ends[0];
}

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(n));
    return text;
}

// Standard input replaced by a pipe for one test; the flags the prompts
// read are reset around it.
class ConsoleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_stdin_ = dup(0);
        answer_yes = answer_no = quiet = verbose = bui_download_mode = 0;
        interrupted_by_user = 0;
    }
    void TearDown() override
    {
        if (fed_)
            drain_stdin();
        dup2(saved_stdin_, 0);
        close(saved_stdin_);
        answer_yes = answer_no = quiet = verbose = bui_download_mode = 0;
        interrupted_by_user = 0;
    }
    void feed(const std::string &data)
    {
        if (fed_)
            drain_stdin();
        fed_ = true;
        int fd = pipe_with(data);
        dup2(fd, 0);
        close(fd);
        clearerr(stdin);
    }

private:
    // Leftovers buffered by an earlier case must not reach the next; only
    // our own pipes are drained, never the runner's standard input.
    static void drain_stdin()
    {
        while (fgetc(stdin) != EOF) {
        }
        clearerr(stdin);
    }
    int saved_stdin_ = -1;
    bool fed_ = false;
};

TEST_F(ConsoleTest, ReadTerminalLineCountsEveryCharacter)
{
    struct Case {
        std::string input;
        int size;
        int count;
        std::string stored;
    } cases[] = {
        {"abc\nrest\n", 64, 3, "abc"},
        {"abc", 64, 3, "abc"},
        {"\n", 64, 0, ""},
        {"", 64, 0, ""},
        {"abcdefgh\n", 5, 8, "abcd"},
        {"abcd\n", 5, 4, "abcd"},
        {std::string(70, 'x') + "\n", 64, 70, std::string(63, 'x')},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.input);
        feed(c.input);
        char buffer[64];
        memset(buffer, '#', sizeof buffer);
        testing::internal::CaptureStdout();
        int count = read_terminal_line("Prompt: ", buffer, c.size, 0);
        // Not a terminal: a newline follows the prompt, echo or not.
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Prompt: \n");
        EXPECT_EQ(count, c.count);
        EXPECT_EQ(std::string(buffer), c.stored);
    }
}

TEST_F(ConsoleTest, AskYesNo)
{
    const std::string prompt = "Continue? [y|n] :";
    const std::string again = "Please enter 'yes', 'no', 'y', or 'n'.\n";
    struct Case {
        const char *input;
        int result;
        std::string out;
    } cases[] = {
        {"y\n", 1, prompt + "\n"},
        {"YES\n", 1, prompt + "\n"},
        {"No\n", 0, prompt + "\n"},
        {"n", 0, prompt + "\n"},
        {"maybe\nyEs\n", 1, prompt + "\n" + again + prompt + "\n"},
        {"ye\nnope\nN\n", 0, prompt + "\n" + again + prompt + "\n" + again + prompt + "\n"},
        {"", -1, prompt + "\n"},
        {"what\n", -1, prompt + "\n" + again + prompt + "\n"},
        // 21 characters, cut to 19 before the comparison.
        {"yyyyyyyyyyyyyyyyyyyyy\n", -1, prompt + "\n" + again + prompt + "\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.input);
        feed(c.input);
        testing::internal::CaptureStdout();
        EXPECT_EQ(ask_yes_no(prompt.c_str(), 0, 0), c.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    }
}

TEST_F(ConsoleTest, AskYesNoOnAClosedInputEnds)
{
    feed("");
    close(0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask_yes_no("Go? ", 0, 0), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Go? \n");
}

TEST_F(ConsoleTest, AskYesNoInterrupted)
{
    feed("y\n");
    interrupted_by_user = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ask_yes_no("Go? ", 0, 0), -2);
    testing::internal::GetCapturedStdout();
}

TEST(PasswordFromDescriptor, BytesReadAreThePassword)
{
    struct Case {
        std::string data;
        int result;
        std::string password;
        const char *message;
    } cases[] = {
        {"abc", 0, "abc", ""},
        {"abc\n", 0, "abc\n", ""},
        {"a b\n\n", 0, "a b\n\n", ""},
        {std::string(63, 'q'), 0, std::string(63, 'q'), ""},
        {std::string(64, 'q'), -1, "", "Maximum encryption password length is 63 characters.\n"},
        {std::string(200, 'q'), -1, "", "Maximum encryption password length is 63 characters.\n"},
        {"", -1, "", "Empty encryption password on fd %d.\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.data);
        int fd = pipe_with(c.data);
        char buffer[64];
        memset(buffer, 'X', sizeof buffer);
        testing::internal::CaptureStderr();
        EXPECT_EQ(quelvane_password_from_fd(fd, buffer), c.result);
        char expected_message[128];
        snprintf(expected_message, sizeof expected_message, c.message, fd);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), expected_message);
        if (c.result == 0)
            EXPECT_EQ(std::string(buffer), c.password);
        else
            EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(64, '\0'));
        // Read once, then closed.
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST(DownloadHeader, OneWriteOfTheExactText)
{
    for (const std::string &name : {std::string("x.zip"), std::string(""), std::string(3000, 'n')}) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        // Large enough for the longest header, so the write never blocks.
        fcntl(ends[1], F_SETPIPE_SZ, 1 << 16);
        EXPECT_EQ(write_download_header(ends[1], name.c_str()), 0);
        close(ends[1]);
        EXPECT_EQ(read_all(ends[0]),
                  "Cache-Control: public\nPragma: public\nContent-Disposition: attachment; filename=" +
                      name + "\nContent-Type: application/octet-stream; name=" + name + "\n\n");
        close(ends[0]);
    }
}

TEST(DownloadHeader, WriteFailureIsReported)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[1]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(write_download_header(ends[0], "x.zip"), -1);  // read end: EBADF
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error writing html file download header: Bad file descriptor\n");
    close(ends[0]);
    EXPECT_EQ(write_download_header(1, nullptr), -1);
}

// The device clean-up, with the letter that enables it still switched off
// on the command line.
class DevicePreparation : public ConsoleTest {
protected:
    void SetUp() override
    {
        ConsoleTest::SetUp();
        // Deep enough that a wrong cut still stays inside the temporary tree.
        mount_ = dir_.file("a/b/mnt");
        for (const char *d : {"a", "a/b", "a/b/mnt", "a/b/mnt/old", "a/b/mnt/out"})
            mkdir(dir_.file(d).c_str(), 0755);
        qt::write_file(mount_ + "/file1", "x");
        qt::write_file(mount_ + "/old/file2", "y");
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
    }
    void TearDown() override
    {
        EXPECT_EQ(chdir(cwd_), 0);
        ConsoleTest::TearDown();
    }
    qt::TempDir dir_;
    std::string mount_;
    char cwd_[4096];
};

TEST_F(DevicePreparation, DeclinedOrEndedLeavesEverything)
{
    struct Case {
        const char *input;
        int no_flag, quiet_flag;
        std::string out, err;
    } cases[] = {
        {"", 1, 0, "About to remove all files from device 'sdz'.  Continue? [y|n] :no\nFile removal canceled\n",
         ""},
        {"", 1, 1, "", ""},
        {"n\n", 0, 0,
         "About to remove all files from device 'sdz'.  Continue? [y|n] :\nFile removal canceled\n", ""},
        {"", 0, 0, "About to remove all files from device 'sdz'.  Continue? [y|n] :\nFile removal canceled\n",
         "\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.input);
        feed(c.input);
        answer_no = c.no_flag;
        quiet = c.quiet_flag;
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(usb_prepare_device((mount_ + "/out/x.zip").c_str(), "sdz"), -2);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
        EXPECT_TRUE(qt::file_exists(mount_ + "/file1"));
    }
}

TEST_F(DevicePreparation, PathsWithoutAMountPoint)
{
    struct Case {
        const char *path;
        std::string err;
    } cases[] = {
        {"x.zip", "Unable to determine USB device mount point from 'x.zip'\n"},
        {"out/x.zip", "Unable to determine USB device mount point from 'out/x.zip'\n"},
        {"/top/x.zip", "USB device mount point cannot be '/'\n"},
    };
    answer_yes = 1;
    for (const Case &c : cases) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(usb_prepare_device(c.path, "sdz"), -1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    }
}

TEST_F(DevicePreparation, RemovesEverythingAndMakesTheOutputDirectory)
{
    answer_yes = 1;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(usb_prepare_device((mount_ + "/new/x.zip").c_str(), "sdz"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "About to remove all files from device 'sdz'.  Continue? [y|n] :yes\n"
              "Removing files from USB device...SUCCESS\n");
    EXPECT_FALSE(qt::file_exists(mount_ + "/file1"));
    EXPECT_FALSE(qt::file_exists(mount_ + "/old"));
    struct stat st;
    ASSERT_EQ(stat((mount_ + "/new").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_TRUE(qt::file_exists(dir_.file("a/b")));
    char now[4096];
    ASSERT_NE(getcwd(now, sizeof now), nullptr);
    EXPECT_STREQ(now, cwd_);
}

TEST_F(DevicePreparation, RelativePathMeansTheCallersDirectory)
{
    ASSERT_EQ(chdir(dir_.file("a/b").c_str()), 0);
    answer_yes = 1;
    quiet = 1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(usb_prepare_device("mnt/out/x.zip", "sdz"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(qt::file_exists(mount_ + "/file1"));
    EXPECT_TRUE(qt::file_exists(mount_ + "/out"));
    EXPECT_FALSE(qt::file_exists(mount_ + "/mnt"));
}

TEST_F(DevicePreparation, FailuresAfterConfirming)
{
    answer_yes = 1;
    // The mount point does not exist.
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(usb_prepare_device(dir_.file("a/absent/out/x.zip").c_str(), "sdz"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Unable to chdir to USB device mount point: '" + dir_.file("a/absent") + "'\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "About to remove all files from device 'sdz'.  Continue? [y|n] :yes\n"
              "Removing files from USB device...FAILURE\n");

    // A hidden output directory survives the removal, so it cannot be made.
    ASSERT_EQ(mkdir((mount_ + "/.out").c_str(), 0755), 0);
    quiet = 1;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(usb_prepare_device((mount_ + "/.out/x.zip").c_str(), "sdz"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error 17 while making directory '" + mount_ + "/.out' on USB device\n");
    EXPECT_FALSE(qt::file_exists(mount_ + "/file1"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    char now[4096];
    ASSERT_NE(getcwd(now, sizeof now), nullptr);
    EXPECT_STREQ(now, cwd_);
}

}  // namespace
