// The archive's bytes: every data source, plain and encrypted, on every engine; raw
// fields the readers do not show; ZIP64 offsets.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <random>

#include "file_collector.h"
#include "testsupport.h"
#include "zip_writer.h"

namespace {

const char PASSWORD[] = "pass word";

std::string bytes_of(size_t size, unsigned alphabet)  // 256 letters do not compress
{
    std::string bytes;
    for (std::mt19937 generator(7); bytes.size() < size;)
        bytes += static_cast<char>(generator() % alphabet + (alphabet < 256 ? 'a' : 0));
    return bytes;
}

// An archive written into a file through a sink of its own.
struct Output {
    explicit Output(const std::string &path, Compression compression = {}, bool encrypt = false)
        : fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644)), zip(sink, scrub, compression, false)
    {
        sink.attach(fd, true);
        EXPECT_TRUE(!encrypt || sink.start_password(PASSWORD, 0) == Result::ok);
        EXPECT_EQ(zip.stream().start_stream(), Z_OK);
    }
    // A member of the given data in one piece.
    int add(ZipMember &member, const std::string &data)
    {
        const int end = zip.begin_member(member) == 0 ? zip.stream().chunk(member, data.data(), unsigned(data.size()), Z_FINISH) : -1;
        return end == Z_STREAM_END ? zip.finish_member(member) : -1;
    }
    int fd;
    Sink sink;
    Scrubber scrub;
    ZipWriter zip;
};

ZipMember member_named(const std::string &name, time_t mtime = 0, int32_t kind = MEMBER_GENERATED)
{
    ZipMember member;
    member.name = name;
    member.mtime = mtime;
    member.kind = kind;
    return member;
}

// Memory in two pieces, buffered text (a 300-character line, then up to the cap), a file
// (two whole 32 KB reads), a pipe (whole 1024-byte reads), an empty finish. UTC.
const struct { std::string name, data; uint32_t declared, time, dos; } SAMPLE[] = {
    {"README", bytes_of(100000, 256), 100000, 315532861, 0x00210020},  // 1980, seconds halved
    {"cmd/dmesg.err", bytes_of(TextBuffer::CAP, 16), 262144, 315532799, 0x00210000},  // 1979
    {"etc/hosts.conf", bytes_of(65536, 4), 0, 0, 0x00210000},  // stat size 0 (as /proc): read to its end
    {"cmd/ps.out", bytes_of(50176, 26), 50176, 1700000001, 0x576eb1aa},  // an odd second
    {"empty.out", "", 0, 4102444799, 0xef9fbf7d}};

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

TEST(Archive, EverySourcePlainAndEncryptedOnEveryEngine)
{
    setenv("TZ", "UTC", 1);
    tzset();
    qt::TempDir dir;
    const std::string plain = dir.file("plain.zip"), sealed = dir.file("sealed"), opened = dir.file("opened.zip");
    std::string why;
    for (const Compression compression : {Compression{}, Compression{Engine::zlib, 0}, fast_compression(&why)}) {
        const int level = compression.level_number();
        const bool zlib = compression.engine == Engine::zlib && level != 1;
        SCOPED_TRACE(std::string(compression.engine_name()) + " level " + std::to_string(level));
        for (bool encrypt : {false, true}) {
            Output out(encrypt ? sealed : plain, compression, encrypt);
            for (size_t i = 0; i < 5; ++i) {
                ZipMember member = member_named(SAMPLE[i].name, SAMPLE[i].time, i == 2 ? MEMBER_FILE : MEMBER_GENERATED);
                member.uncompressed_size = i == 2 ? SAMPLE[i].declared : 0;  // the producer's stat
                ASSERT_EQ(out.zip.begin_member(member), 0);
                const uint64_t start = out.zip.stream().offset();
                EXPECT_EQ(write_data(out.zip.stream(), member, i, dir.file("source")), 0) << member.name;
                EXPECT_EQ(member.compressed_size, out.zip.stream().offset() - start) << member.name;
                ASSERT_EQ(out.zip.finish_member(member), 0);
            }
            ASSERT_EQ(out.zip.finish_archive(), 0);
            const uint64_t total = out.zip.stream().offset();
            // The cipher has written the whole blocks of the plain stream; finishing adds the last.
            EXPECT_EQ(uint64_t(lseek(out.fd, 0, SEEK_END)), encrypt ? 16 + total / 16 * 16 : total);
            EXPECT_EQ(out.sink.finish(), 0);
        }
        // zlib's bytes are the same on every build and target; the sealed archive opens to them.
        if (zlib) {
            EXPECT_EQ(qt::sha256(qt::read_file(plain)), level == 0 ? "16ad484934842ee78c6d7572584999daa056e92ca3848892c979bc32bb0be2a0"
                                                                   : "baccd901978635901be9715374efaeb63b78219a3ce9660585010e93c3398566");
        }
        ASSERT_EQ(qt::openssl_decrypt(sealed, PASSWORD, opened), "");
        EXPECT_TRUE(qt::read_file(opened) == qt::read_file(plain));
        const qt::Archive archive = qt::read_archive(opened, {"etc/hosts.conf"});
        EXPECT_EQ(archive.problems, "");
        ASSERT_EQ(archive.members.size(), 5u);
        for (size_t i = 0; i < 5; ++i) {
            const qt::Member &m = archive.members[i];
            EXPECT_TRUE(m.name == SAMPLE[i].name && m.data == SAMPLE[i].data) << m.name;
            EXPECT_EQ(m.declared, SAMPLE[i].declared) << m.name;
            EXPECT_EQ(m.dos_datetime, SAMPLE[i].dos) << m.name;
        }
        if (zlib) {
            EXPECT_EQ(archive.members[4].compressed, level == 0 ? 5u : 2u);
        }
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
            ZipMember member = member_named(name);
            ASSERT_EQ(out.add(member, name), 0);
        }
        ASSERT_EQ(out.zip.finish_archive(), 0);
        EXPECT_EQ(off_t(out.zip.stream().offset()), lseek(out.fd, 0, SEEK_CUR));
    }
    const qt::Archive archive = qt::read_archive(path);
    EXPECT_EQ(archive.problems, "");
    ASSERT_EQ(archive.names(), (std::vector<std::string>{"a", "b/c", "d"}));
    EXPECT_EQ(archive.members[2].data + std::to_string(archive.members[2].offset >> 30), "d5");
}

}  // namespace
