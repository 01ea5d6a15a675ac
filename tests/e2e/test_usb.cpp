// USB device mode: the device must take a test file before anything else.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <regex>
#include <string>
#include <vector>

#include "testsupport.h"

namespace {

std::vector<std::string> entries_of(const std::string &directory)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(directory.c_str())) {
        while (const dirent *e = readdir(d))
            if (e->d_name[0] != '.')
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

TEST(UsbDevice, OutputWithoutDirectoryHasNoMountPoint)
{
    qt::TempDir dir;
    for (bool quiet : {false, true}) {
        std::vector<std::string> args = {"-d", "sdb1", "-f", "missing.conf", "-a", "x", "-o", "out.zip"};
        if (quiet)
            args.push_back("-q");
        qt::RunResult r = qt::run_quelvane(dir, args);
        EXPECT_EQ(r.out, quiet ? "" : "Testing writability of USB device...FAILURE\n");
        EXPECT_EQ(r.err, "Unable to determine USB device mount point from 'out.zip'\n");
        EXPECT_EQ(r.status, 1);
        EXPECT_FALSE(qt::file_exists(dir.file("out.zip")));
    }
}

TEST(UsbDevice, DirectoryThatCannotTakeTheTestFile)
{
    qt::TempDir dir;
    qt::RunResult r = qt::run_quelvane(
        dir, {"-d", "sdb1", "-f", "missing.conf", "-a", "x", "-o", "absent/out.zip"});
    EXPECT_EQ(r.out, "Testing writability of USB device...FAILURE\n");
    EXPECT_TRUE(std::regex_match(
        r.err, std::regex("\nUnable to create testfile 'absent/quelvane_testwrite\\.[0-9]+' on USB "
                          "device\\. fd=-1\n\tNo such file or directory\n")))
        << r.err;
    EXPECT_EQ(r.status, 1);
}

TEST(UsbDevice, WritableDeviceLeavesNoTestFile)
{
    qt::TempDir dir;
    mkdir(dir.file("usb").c_str(), 0755);
    const std::string conf = dir.file("q.conf");
    ASSERT_TRUE(qt::write_file(conf, "cmd i,-,y,n sys /bin/echo usb\n"));
    qt::RunResult r = qt::run_quelvane(
        dir, {"-d", "sdb1", "-L", "i", "-f", conf, "-a", "x.zip", "-o", dir.file("usb/x.zip")});
    EXPECT_EQ(r.out, "Testing writability of USB device...SUCCESS\nCollecting data into " +
                         dir.file("usb/x.zip") + "\nData collection complete\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(entries_of(dir.file("usb")), std::vector<std::string>{"x.zip"});
    EXPECT_EQ(qt::check_real_readers(dir.file("usb/x.zip")), "");
}

TEST(UsbDevice, TestRunsBeforeTheConfigurationIsRead)
{
    qt::TempDir dir;
    mkdir(dir.file("usb").c_str(), 0755);
    qt::RunResult r = qt::run_quelvane(
        dir, {"-d", "sdb1", "-f", dir.file("missing.conf"), "-a", "x", "-o", "usb/x.zip"});
    EXPECT_EQ(r.out, "Testing writability of USB device...SUCCESS\n");
    EXPECT_EQ(r.status, 6);
    EXPECT_TRUE(entries_of(dir.file("usb")).empty());
}

}  // namespace
