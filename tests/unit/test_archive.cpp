// ZIP fields the readers take on trust: DOS times at their limits, and offsets past 4 GiB.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "testsupport.h"
#include "zip_writer.h"

TEST(Archive, DosTimesAtTheirLimits)
{
    setenv("TZ", "UTC", 1);
    tzset();
    const struct { time_t when; uint32_t dos; } TIMES[] = {
        {315532861, 0x00210020},   // 1980, seconds halved
        {315532799, 0x00210000},   // 1979: the first second DOS has
        {1700000001, 0x576eb1aa},  // an odd second
        {4102444799, 0xef9fbf7d}};
    for (const auto &t : TIMES)
        EXPECT_EQ(zip_dos_datetime(t.when), t.dos) << t.when;
}

// The output starts with a 5 GiB hole, so that the stream's offsets are the file's; the
// members' central records and the end take ZIP64 form, which the readers follow.
TEST(Archive, OffsetsPast4GiBTakeZip64)
{
    qt::TempDir dir;
    const std::string path = dir.file("far.zip");
    {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        Sink sink;
        Scrubber scrub;
        ZipWriter zip(sink, scrub, Compression{}, false);
        sink.attach(fd, true);
        ASSERT_EQ(zip.stream().start_stream(), Z_OK);
        ASSERT_EQ(lseek(fd, off_t{5} << 30, SEEK_SET), off_t{5} << 30);
        zip.stream().advance(uint64_t{5} << 30);
        for (const char *name : {"a", "b/c", "d"}) {
            ZipMember member;
            member.name = name;
            member.kind = MEMBER_GENERATED;
            ASSERT_EQ(zip.begin_member(member), 0);
            ASSERT_EQ(zip.stream().chunk(member, name, unsigned(strlen(name)), Z_FINISH), Z_STREAM_END);
            ASSERT_EQ(zip.finish_member(member), 0);
        }
        ASSERT_EQ(zip.finish_archive(), 0);
        EXPECT_EQ(off_t(zip.stream().offset()), lseek(fd, 0, SEEK_CUR));
    }
    const qt::Archive archive = qt::read_archive(path);
    EXPECT_EQ(archive.problems, "");
    ASSERT_EQ(archive.names(), (std::vector<std::string>{"a", "b/c", "d"}));
    EXPECT_EQ(archive.members[2].data + std::to_string(archive.members[2].offset >> 30), "d5");
}
