// One instance per program name: the lock directory under the work
// directory, its clean-up, and the messages when the lock cannot be taken.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testsupport.h"

namespace {

// Holds the lock the way a running instance does, from this process.
class HeldLock {
public:
    explicit HeldLock(const std::string &directory)
    {
        mkdir(directory.c_str(), 0777);
        fd_ = open((directory + "/.lock").c_str(), O_WRONLY | O_CREAT, 0666);
        EXPECT_GE(fd_, 0) << directory;
        EXPECT_EQ(lockf(fd_, F_TLOCK, 0), 0) << directory;
    }
    ~HeldLock() { close(fd_); }
    HeldLock(const HeldLock &) = delete;
    HeldLock &operator=(const HeldLock &) = delete;

private:
    int fd_ = -1;
};

std::string missing_config_error(const std::string &path)
{
    return "Unable to open config file: " + path + "\n" + path + ": No such file or directory\n" +
           "Error reading config file: " + path + "\n";
}

// Arguments that pass every check and stop at the configuration, after the
// lock was taken.
std::vector<std::string> stopping_args(const qt::TempDir &dir)
{
    return {"-f", dir.file("missing.conf"), "-a", "x.zip", "-o", "out.zip"};
}

TEST(InstanceLock, SecondInstanceOfTheSameNameIsRefused)
{
    qt::TempDir dir;
    mkdir(dir.file("home").c_str(), 0755);
    mkdir(dir.file("home/quelvane_tmp").c_str(), 0755);
    const std::string lock_dir = dir.file("home/quelvane_tmp/quelvane.quelvane");
    HeldLock held(lock_dir);
    ASSERT_TRUE(qt::write_file(lock_dir + "/partial", "theirs"));

    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir));
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "An instance of quelvane is already running.\nOnly run one quelvane at a time\n");
    EXPECT_EQ(r.status, 3);
    // The running instance's directory is left alone.
    EXPECT_EQ(qt::read_file(lock_dir + "/partial"), "theirs");
    EXPECT_TRUE(qt::file_exists(lock_dir + "/.lock"));

    // Another name has its own lock and runs.
    std::string tool = dir.file("tool.bin");
    ASSERT_EQ(symlink(qt::quelvane_binary().c_str(), tool.c_str()), 0);
    qt::RunSpec spec;
    spec.program = tool;
    qt::RunResult other = qt::run_quelvane(dir, stopping_args(dir), spec);
    EXPECT_EQ(other.err, missing_config_error(dir.file("missing.conf")));
    EXPECT_EQ(other.status, 6);
}

TEST(InstanceLock, NameWithoutBinSuffixLocksItsOwnDirectory)
{
    qt::TempDir dir;
    mkdir(dir.file("home").c_str(), 0755);
    mkdir(dir.file("home/quelvane_tmp").c_str(), 0755);
    HeldLock held(dir.file("home/quelvane_tmp/tool.quelvane"));
    std::string tool = dir.file("tool.bin");
    ASSERT_EQ(symlink(qt::quelvane_binary().c_str(), tool.c_str()), 0);

    qt::RunSpec spec;
    spec.program = tool;
    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir), spec);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "An instance of tool is already running.\nOnly run one tool at a time\n");
    EXPECT_EQ(r.status, 3);

    // The real name is not the one held.
    qt::RunResult mine = qt::run_quelvane(dir, stopping_args(dir));
    EXPECT_EQ(mine.status, 6);
}

TEST(InstanceLock, LeftoversRemovedHiddenFilesKept)
{
    qt::TempDir dir;
    mkdir(dir.file("home").c_str(), 0755);
    mkdir(dir.file("home/quelvane_tmp").c_str(), 0755);
    const std::string lock_dir = dir.file("home/quelvane_tmp/quelvane.quelvane");
    mkdir(lock_dir.c_str(), 0777);
    ASSERT_TRUE(qt::write_file(lock_dir + "/stale.out", "crashed run"));
    ASSERT_TRUE(qt::write_file(lock_dir + "/.hidden", "kept"));
    mkdir((lock_dir + "/subdir").c_str(), 0755);

    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir));
    EXPECT_EQ(r.status, 6);
    EXPECT_FALSE(qt::file_exists(lock_dir + "/stale.out"));
    EXPECT_FALSE(qt::file_exists(lock_dir + "/.lock"));
    EXPECT_EQ(qt::read_file(lock_dir + "/.hidden"), "kept");
    EXPECT_TRUE(qt::file_exists(lock_dir + "/subdir"));
}

TEST(InstanceLock, LockDirectoryRemovedAfterTheRun)
{
    qt::TempDir dir;
    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir));
    EXPECT_EQ(r.status, 6);
    // The work directory is made on first use and stays; the lock directory goes.
    struct stat st;
    ASSERT_EQ(stat(dir.file("home/quelvane_tmp").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_FALSE(qt::file_exists(dir.file("home/quelvane_tmp/quelvane.quelvane")));
}

TEST(InstanceLock, WithoutHomeTheLockLiesInTmp)
{
    qt::TempDir dir;
    // A name of its own, so no other run on this machine shares the lock.
    std::string name = "qlt" + std::to_string(getpid());
    std::string link = dir.file(name + ".bin");
    ASSERT_EQ(symlink(qt::quelvane_binary().c_str(), link.c_str()), 0);
    HeldLock held("/tmp/" + name + ".quelvane");

    qt::RunSpec spec;
    spec.program = link;
    spec.cwd = dir.path();
    spec.args = stopping_args(dir);
    qt::RunResult r = qt::run(spec);
    EXPECT_EQ(r.err, "An instance of " + name + " is already running.\nOnly run one " + name +
                         " at a time\n");
    EXPECT_EQ(r.status, 3);
    unlink(("/tmp/" + name + ".quelvane/.lock").c_str());
    rmdir(("/tmp/" + name + ".quelvane").c_str());
}

TEST(InstanceLock, FailuresToMakeOrOpenTheLock)
{
    qt::TempDir dir;
    // A home that is a file: neither the work nor the lock directory can be made.
    ASSERT_TRUE(qt::write_file(dir.file("plain"), ""));
    qt::RunSpec spec;
    spec.env = {"QUELVANE_HOME=" + dir.file("plain")};
    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir), spec);
    EXPECT_EQ(r.err, "Failed to create directory " + dir.file("plain") +
                         "/quelvane_tmp/quelvane.quelvane, errno=20\n"
                         "Only run one quelvane at a time\n");
    EXPECT_EQ(r.status, 3);

    // A lock "file" that is a directory cannot be opened for writing.
    const std::string lock_dir = dir.file("home/quelvane_tmp/quelvane.quelvane");
    mkdir(dir.file("home").c_str(), 0755);
    mkdir(dir.file("home/quelvane_tmp").c_str(), 0755);
    mkdir(lock_dir.c_str(), 0755);
    mkdir((lock_dir + "/.lock").c_str(), 0755);
    r = qt::run_quelvane(dir, stopping_args(dir));
    EXPECT_EQ(r.err, "Failed to open " + lock_dir + "/.lock, errno=21.\nOnly run one quelvane at a time\n");
    EXPECT_EQ(r.status, 3);
}

TEST(InstanceLock, MessageCutAt127Characters)
{
    qt::TempDir dir;
    std::string deep = dir.path();
    while (deep.size() < 200)
        deep += "/nested-directory-name";
    qt::RunSpec spec;
    spec.env = {"QUELVANE_HOME=" + deep};  // does not exist
    qt::RunResult r = qt::run_quelvane(dir, stopping_args(dir), spec);
    std::string full = "Failed to create directory " + deep + "/quelvane_tmp/quelvane.quelvane, errno=2";
    EXPECT_EQ(r.err, full.substr(0, 127) + "\nOnly run one quelvane at a time\n");
    EXPECT_EQ(r.status, 3);
}

}  // namespace
