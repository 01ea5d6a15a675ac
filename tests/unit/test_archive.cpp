// The archive's bytes: every data source on zlib gives the golden bytes on every build and
// target; ZIP64 offsets.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <random>

#include "file_collector.h"
#include "testsupport.h"
#include "zip_writer.h"

namespace {

std::string bytes_of(size_t size, unsigned alphabet)  // 256 letters do not compress
{
    std::string bytes;
    for (std::mt19937 generator(7); bytes.size() < size;)
        bytes += static_cast<char>(generator() % alphabet + (alphabet < 256 ? 'a' : 0));
    return bytes;
}

// An archive written into a file through a sink of its own.
struct Output {
    explicit Output(const std::string &path, Compression compression = {})
        : fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644)), zip(sink, scrub, compression, false)
    {
        sink.attach(fd, true);
        EXPECT_EQ(zip.stream().start_stream(), Z_OK);
    }
    int fd;
    Sink sink;
    Scrubber scrub;
    ZipWriter zip;
};

// Memory in two pieces, buffered text (a 300-character line, then up to the cap), a file
// (two whole 32 KB reads), a pipe (whole 1024-byte reads), an empty finish; times at the
// limits of DOS's (UTC).
const struct { std::string name, data; uint32_t declared; time_t time; } SAMPLE[] = {
    {"README", bytes_of(100000, 256), 100000, 315532861},               // 1980, seconds halved
    {"cmd/dmesg.err", bytes_of(TextBuffer::CAP, 16), 262144, 315532799},  // 1979: DOS's first second
    {"etc/hosts.conf", bytes_of(65536, 4), 0, 0},  // stat size 0 (as /proc): read to its end
    {"cmd/ps.out", bytes_of(50176, 26), 50176, 1700000001},  // an odd second
    {"empty.out", "", 0, 4102444799}};

int write_data(ZipData &data, ZipMember &member, size_t i, const std::string &source)
{
    const std::string &bytes = SAMPLE[i].data;
    if (i == 0)
        return data.chunk(member, bytes.data(), 60000, Z_NO_FLUSH) != Z_OK ||
               data.chunk(member, &bytes[60000], 40000, Z_FINISH) != Z_STREAM_END;
    if (i == 1) {
        TextBuffer text;
        EXPECT_EQ(text.printf("%.300s", bytes.c_str()), 300);
        EXPECT_TRUE(text.add(&bytes[300], TextBuffer::CAP - 300));
        EXPECT_FALSE(text.add("x", 1));  // refused whole at the cap: the member shows nothing of it
        EXPECT_TRUE(text.full());
        return data.from_text(member, text, Z_FINISH) != Z_STREAM_END;
    }
    if (i == 2) {
        int error = 0, fd = (qt::write_file(source, bytes), open_regular_file(source));
        return data.from_file(member, fd, &error) | error | close(fd);
    }
    if (i == 3) {
        int fds[2];
        EXPECT_TRUE(pipe(fds) == 0 && write(fds[1], bytes.data(), 50176) == 50176 && close(fds[1]) == 0);
        return data.from_fd(member, fds[0], Z_FINISH) | close(fds[0]);
    }
    return data.chunk(member, "", 0, Z_FINISH) != Z_STREAM_END;
}

}  // namespace

// The hashes pin every byte: records, DOS times, declared sizes and zlib's output. Every
// reader flags the one member that declares its stat size 0.
TEST(Archive, EverySourceGivesTheGoldenBytes)
{
    setenv("TZ", "UTC", 1);
    tzset();
    qt::TempDir dir;
    for (const Compression compression : {Compression{}, Compression{Engine::zlib, 0}}) {
        const std::string path = dir.file("plain.zip");
        {
            Output out(path, compression);
            for (size_t i = 0; i < 5; ++i) {
                ZipMember member;
                member.name = SAMPLE[i].name;
                member.mtime = SAMPLE[i].time;
                member.kind = i == 2 ? MEMBER_FILE : MEMBER_GENERATED;
                member.uncompressed_size = i == 2 ? SAMPLE[i].declared : 0;  // the producer's stat
                ASSERT_EQ(out.zip.begin_member(member), 0);
                EXPECT_EQ(write_data(out.zip.stream(), member, i, dir.file("source")), 0) << member.name;
                ASSERT_EQ(out.zip.finish_member(member), 0);
            }
            ASSERT_EQ(out.zip.finish_archive(), 0);
            EXPECT_EQ(out.sink.finish(), 0);
        }
        EXPECT_EQ(qt::output_of({"sha256sum", path}).substr(0, 64), compression.level_number() == 0
                                                       ? "16ad484934842ee78c6d7572584999daa056e92ca3848892c979bc32bb0be2a0"
                                                       : "baccd901978635901be9715374efaeb63b78219a3ce9660585010e93c3398566");
        EXPECT_EQ(qt::read_archive(path, {"etc/hosts.conf"}).problems, "");
    }
}

// Members past 4 GiB: the output starts with a 5 GiB hole, so that the stream's offsets are
// the file's; their central records and the end take ZIP64 form, which the readers follow.
TEST(Archive, OffsetsPast4GiBTakeZip64)
{
    qt::TempDir dir;
    const std::string path = dir.file("far.zip");
    {
        Output out(path);
        ASSERT_EQ(lseek(out.fd, off_t{5} << 30, SEEK_SET), off_t{5} << 30);
        out.zip.stream().advance(uint64_t{5} << 30);
        for (const char *name : {"a", "b/c", "d"}) {
            ZipMember member;
            member.name = name;
            member.kind = MEMBER_GENERATED;
            ASSERT_EQ(out.zip.begin_member(member), 0);
            ASSERT_EQ(out.zip.stream().chunk(member, name, unsigned(strlen(name)), Z_FINISH), Z_STREAM_END);
            ASSERT_EQ(out.zip.finish_member(member), 0);
        }
        ASSERT_EQ(out.zip.finish_archive(), 0);
        EXPECT_EQ(off_t(out.zip.stream().offset()), lseek(out.fd, 0, SEEK_CUR));
    }
    const qt::Archive archive = qt::read_archive(path);
    EXPECT_EQ(archive.problems, "");
    EXPECT_EQ(archive.names, (std::vector<std::string>{"a", "b/c", "d"}));
}
