// ZIP writer: whole archives from every member source, plain and encrypted,
// at both levels, opened by real readers; the header edge cases byte by byte.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "archive_fixture.h"
#include "quelvane_bufchain.h"
#include "testsupport.h"

namespace {

const time_t FIXED_TIME = 1700000000;
const char PASSWORD[] = "pass word";

struct Expected {
    std::string name;
    std::string data;
};

std::vector<Expected> sample_contents(const std::string &source_path)
{
    std::string chain_text = "QUELVANE MSG: Child exited with 2: No such file or directory\n" +
                             std::string(3000, 'e');
    return {{"README", log_text(70000)},
            {"cmd/dmesg.err", chain_text},
            {"etc/hosts.conf", qt::read_file(source_path)},
            {"cmd/ps.out", log_text(50000)},
            {"empty.out", ""}};
}

// Writes a member from each source (memory, buffer chain, stdio stream, pipe)
// and finishes the archive. Runs in forked children too, so it reports by
// its result: 0, or the step that went wrong.
int write_sample_archive(int fd, const std::string &source_path, uint32_t *total)
{
    std::vector<Expected> expected = sample_contents(source_path);
    zip_member_list_free();
    int step = 0;
    for (const Expected &e : expected) {
        ++step;
        ZipMember member;
        member.name = e.name;
        member.kind = MEMBER_GENERATED;
        member.dos_datetime = static_cast<uint32_t>(FIXED_TIME);
        if (e.name == "etc/hosts.conf") {
            struct stat status;
            stat(source_path.c_str(), &status);
            member.kind = MEMBER_FILE;
            member.source_path = source_path;
            member.uncompressed_size = static_cast<uint32_t>(status.st_size);
            member.dos_datetime = static_cast<uint32_t>(status.st_mtime);
            if (zip_open_member_file(&member) != 0)
                return 10 + step;
        }
        if (quelvane_z_output_local_file_header(fd, &member, total) != 0)
            return 20 + step;
        uint32_t data_start = *total;
        int result = 0;
        if (e.name == "README") {
            for (size_t at = 0; at < e.data.size() && result >= 0; at += 7000)
                result = zip_deflate_chunk(&member, fd, e.data.data() + at, 7000,
                                           at + 7000 >= e.data.size() ? Z_FINISH : Z_NO_FLUSH, total);
        } else if (e.name == "cmd/dmesg.err") {
            Bufchain chain;
            quelvane_vbprintf(&chain, "QUELVANE MSG: Child exited with %d: %s\n", 2, strerror(2));
            quelvane_bufchain_add(&chain, e.data.data() + 61, 3000);
            result = quelvane_bufchain_write(&chain, &member, fd, total, Z_FINISH);
        } else if (member.kind == MEMBER_FILE) {
            int error;
            result = zip_deflate_file(fd, &member, total, &error);
            zip_close_member_file(&member);
        } else if (e.name == "cmd/ps.out") {
            int fds[2];
            if (pipe(fds) != 0 || write(fds[1], e.data.data(), e.data.size()) != 50000)
                return 30 + step;
            close(fds[1]);
            result = zip_deflate_fd(fd, &member, fds[0], Z_FINISH, total);
            close(fds[0]);
        } else {
            result = zip_deflate_chunk(&member, fd, "", 0, Z_FINISH, total);
        }
        if (result < 0)
            return 40 + step;
        if (member.compressed_size != *total - data_start)
            return 50 + step;
        if (zip_finish_member(fd, &member, total) != 0)
            return 60 + step;
    }
    return zip_finish_archive(fd, total) == 0 ? 0 : 99;
}

// Our own reading of the sample archive, then the real readers'.
void check_sample(const std::string &zip_path, const std::string &source_path, uint32_t total,
                  uint32_t empty_size)
{
    std::string bytes = qt::read_file(zip_path);
    EXPECT_EQ(bytes.size(), total);
    qt::ZipArchive archive = qt::read_zip(bytes);
    ASSERT_EQ(archive.error, "");
    std::vector<Expected> expected = sample_contents(source_path);
    ASSERT_EQ(archive.entries.size(), expected.size());
    struct stat status;
    ASSERT_EQ(stat(source_path.c_str(), &status), 0);
    for (size_t i = 0; i < expected.size(); ++i) {
        const qt::ZipEntry &entry = archive.entries[i];
        SCOPED_TRACE(entry.name);
        EXPECT_EQ(entry.name, expected[i].name);
        EXPECT_EQ(entry.data, expected[i].data);
        EXPECT_EQ(entry.declared_size, expected[i].data.size());
        EXPECT_EQ(entry.version, 20);
        EXPECT_EQ(entry.flags, 8);
        EXPECT_EQ(entry.method, 8);
        EXPECT_EQ(entry.dos_datetime, zip_dos_datetime(entry.name == "etc/hosts.conf"
                                                           ? status.st_mtime
                                                           : FIXED_TIME));
    }
    EXPECT_EQ(archive.entries.back().compressed_size, empty_size);
    EXPECT_EQ(qt::check_real_readers(zip_path), "");
}

class ZipArchiveTest : public testing::Test {
protected:
    void SetUp() override
    {
        source = dir.file("source.txt");
        ASSERT_TRUE(qt::write_file(source, log_text(40000)));
    }
    void TearDown() override
    {
        restart_deflate(0);
        zip_member_list_free();
    }
    qt::TempDir dir;
    std::string source;
};

TEST_F(ZipArchiveTest, PlainFromEverySourceAtBothLevels)
{
    // -C stores every member, still as method 8; its empty member takes 5 bytes.
    for (auto [level_zero, empty_size] : {std::pair{0, 2u}, std::pair{1, 5u}}) {
        SCOPED_TRACE(level_zero);
        restart_deflate(level_zero);
        std::string path = dir.file("plain.zip");
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        uint32_t total = 0;
        ASSERT_EQ(write_sample_archive(fd, source, &total), 0);
        close(fd);
        EXPECT_EQ(zip_member_list().size(), 5u);
        check_sample(path, source, total, empty_size);
    }
}

TEST_F(ZipArchiveTest, EncryptedDecryptsToThePlainBytes)
{
    for (int level_zero : {0, 1}) {
        SCOPED_TRACE(level_zero);
        restart_deflate(level_zero);
        std::string plain = dir.file("plain.zip"), sealed = dir.file("sealed.zip"),
                    opened = dir.file("opened.zip");
        int fd = open(plain.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        uint32_t total = 0;
        ASSERT_EQ(write_sample_archive(fd, source, &total), 0);
        close(fd);
        EXPECT_EQ(in_child([&] {
                      encrypt_output = 1;
                      int out = open(sealed.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                      uint32_t sealed_total = 0;
                      if (sink_encrypt_start(PASSWORD, out) != 0)
                          return 1;
                      int result = write_sample_archive(out, source, &sealed_total);
                      if (result != 0 || sealed_total != total)
                          return 2;
                      return sink_encrypt_finish(out) == 0 ? 0 : 3;
                  }),
                  0);
        std::string sealed_bytes = qt::read_file(sealed);
        EXPECT_EQ(sealed_bytes.substr(0, 8), "Salted__");
        EXPECT_EQ(sealed_bytes.size(), 16 + (total / 16 + 1) * 16);
        ASSERT_EQ(qt::openssl_decrypt(sealed, PASSWORD, opened), "");
        EXPECT_TRUE(qt::read_file(opened) == qt::read_file(plain));
        check_sample(opened, source, total, level_zero ? 5 : 2);
    }
}

TEST_F(ZipArchiveTest, NoMembersIsTheEndRecordAlone)
{
    zip_member_list_free();
    std::string path = dir.file("empty.zip");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint32_t total = 0;
    ASSERT_EQ(zip_finish_archive(fd, &total), 0);
    close(fd);
    EXPECT_EQ(total, 22u);
    EXPECT_EQ(qt::read_file(path), std::string("PK\x05\x06", 4) + std::string(18, '\0'));
    // unzip -t calls an empty archive a warning, so the readers are asked
    // one by one.
    EXPECT_NE(qt::run_program("/usr/bin/unzip", {"-t", path}).out.find("zipfile is empty"),
              std::string::npos);
    qt::RunResult python = qt::run_program(
        "/usr/bin/python3",
        {"-c", "import sys, zipfile; print(zipfile.ZipFile(sys.argv[1]).namelist())", path});
    EXPECT_EQ(python.out, "[]\n");
    qt::RunResult bsdtar = qt::run_program("/usr/bin/bsdtar", {"-tf", "-"}, qt::read_file(path));
    EXPECT_EQ(bsdtar.status, 0);
    EXPECT_EQ(bsdtar.out, "");
}

TEST(ZipDosTime, ConvertsLocalTime)
{
    setenv("TZ", "UTC", 1);
    tzset();
    struct Case {
        time_t t;
        uint32_t dos;
    } cases[] = {
        {0, 0x00210000},                       // 1970: before the MS-DOS epoch
        {-1, 0x00210000},
        {315532799, 0x00210000},               // 1979-12-31 23:59:59
        {315532800, 0x00210000},               // 1980-01-01 00:00:00, the epoch itself
        {315532800 + 61, 0x00210000 | 1 << 5}, // 00:01:01, seconds halved
        {FIXED_TIME, 0x576eb1aa},              // 2023-11-14 22:13:20
        {FIXED_TIME + 1, 0x576eb1aa},          // odd second truncated
        {4354819199, 0xff9fbf7d},              // 2107-12-31 23:59:59, the last
    };
    for (const Case &c : cases)
        EXPECT_EQ(zip_dos_datetime(c.t), c.dos) << c.t;
    unsetenv("TZ");
    tzset();
}

TEST_F(ZipArchiveTest, MemberTimes)
{
    // A collected file keeps its recorded time even when it is 0; only a
    // generated member with 0 takes the current time.
    struct Case {
        const char *name;
        int kind;
        time_t t;
    } cases[] = {{"file-at-0", MEMBER_FILE, 0},
                 {"generated-at-0", MEMBER_GENERATED, 0},
                 {"generated-fixed", MEMBER_GENERATED, FIXED_TIME},
                 {"file-before-1980", MEMBER_FILE, 100000000}};
    zip_member_list_free();
    std::string path = dir.file("times.zip");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint32_t total = 0;
    uint32_t before = zip_dos_datetime(time(nullptr));
    for (const Case &c : cases) {
        ZipMember member;
        member.name = c.name;
        member.kind = c.kind;
        member.dos_datetime = static_cast<uint32_t>(c.t);
        ASSERT_EQ(quelvane_z_output_local_file_header(fd, &member, &total), 0);
        ASSERT_EQ(zip_deflate_chunk(&member, fd, "", 0, Z_FINISH, &total), Z_STREAM_END);
        ASSERT_EQ(zip_finish_member(fd, &member, &total), 0);
    }
    uint32_t after = zip_dos_datetime(time(nullptr));
    ASSERT_EQ(zip_finish_archive(fd, &total), 0);
    close(fd);
    qt::ZipArchive archive = qt::read_zip(qt::read_file(path));
    ASSERT_EQ(archive.error, "");
    ASSERT_EQ(archive.entries.size(), 4u);
    EXPECT_EQ(archive.entries[0].dos_datetime, 0x00210000u);
    EXPECT_GE(archive.entries[1].dos_datetime, before);
    EXPECT_LE(archive.entries[1].dos_datetime, after);
    EXPECT_EQ(archive.entries[2].dos_datetime, zip_dos_datetime(FIXED_TIME));
    EXPECT_EQ(archive.entries[3].dos_datetime, 0x00210000u);
    EXPECT_EQ(zip_member_list()[2].dos_datetime, zip_dos_datetime(FIXED_TIME));
    EXPECT_EQ(qt::check_real_readers(path), "");
}

uint32_t le(const std::string &bytes, size_t at, int size)
{
    uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<size_t>(i)]);
    return value;
}

TEST_F(ZipArchiveTest, LongNamesWrapInTheHeaders)
{
    for (size_t length : {size_t{65535}, size_t{65536}, size_t{65546}}) {
        SCOPED_TRACE(length);
        zip_member_list_free();
        std::string name(length, 'n');
        name[length - 1] = 'Z';
        SinkFile out;
        uint32_t total = 0;
        ZipMember member;
        member.name = name;
        member.kind = MEMBER_GENERATED;
        ASSERT_EQ(quelvane_z_output_local_file_header(out.fd(), &member, &total), 0);
        ASSERT_EQ(zip_deflate_chunk(&member, out.fd(), "", 0, Z_FINISH, &total), Z_STREAM_END);
        ASSERT_EQ(zip_finish_member(out.fd(), &member, &total), 0);
        ASSERT_EQ(zip_finish_archive(out.fd(), &total), 0);
        std::string bytes = out.contents();
        ASSERT_EQ(bytes.size(), total);

        size_t wrapped = length % 65536;
        EXPECT_EQ(le(bytes, 26, 2), wrapped);                  // local name length
        EXPECT_EQ(bytes.substr(30, wrapped), name.substr(0, wrapped));
        size_t central = 30 + wrapped + 2 + 16;
        ASSERT_EQ(le(bytes, central, 4), 0x02014b50u);
        EXPECT_EQ(le(bytes, central + 28, 2), wrapped);        // central name length
        EXPECT_EQ(bytes.substr(central + 46, length), name);   // but the whole name
        size_t end = central + 46 + length;
        ASSERT_EQ(bytes.size(), end + 22);
        EXPECT_EQ(le(bytes, end, 4), 0x06054b50u);
        EXPECT_EQ(le(bytes, end + 12, 4), 46 + length);        // directory size
        EXPECT_EQ(le(bytes, end + 16, 4), central);            // directory offset
        // Only the unwrapped name makes a valid archive (readers rightly
        // reject the others); unzip truncates such a name with a warning, so
        // Python's reader stands for the real ones here.
        if (wrapped == length) {
            ASSERT_TRUE(qt::write_file(dir.file("long.zip"), bytes));
            EXPECT_EQ(qt::read_zip(bytes).error, "");
            qt::RunResult python = qt::run_program(
                "/usr/bin/python3", {"-c",
                                     "import sys, zipfile\n"
                                     "z = zipfile.ZipFile(sys.argv[1])\n"
                                     "print(len(z.namelist()[0]), z.testzip())",
                                     dir.file("long.zip")});
            EXPECT_EQ(python.out, "65535 None\n");
        }
    }
}

TEST_F(ZipArchiveTest, CollectedFileDeclaresItsStatSize)
{
    zip_member_list_free();
    std::string log = dir.file("grown.log");
    ASSERT_TRUE(qt::write_file(log, log_text(1000)));
    struct stat status;
    ASSERT_EQ(stat(log.c_str(), &status), 0);
    ZipMember member;
    member.name = "grown.log";
    member.kind = MEMBER_FILE;
    member.source_path = log;
    member.uncompressed_size = static_cast<uint32_t>(status.st_size);
    member.dos_datetime = static_cast<uint32_t>(status.st_mtime);
    ASSERT_EQ(zip_open_member_file(&member), 0);
    ASSERT_TRUE(qt::write_file(log, log_text(1500)));  // grows after stat
    std::string path = dir.file("grown.zip");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    uint32_t total = 0;
    int error;
    ASSERT_EQ(quelvane_z_output_local_file_header(fd, &member, &total), 0);
    ASSERT_EQ(zip_deflate_file(fd, &member, &total, &error), 0);
    ASSERT_EQ(zip_finish_member(fd, &member, &total), 0);
    EXPECT_EQ(zip_close_member_file(&member), 0);
    ASSERT_EQ(zip_finish_archive(fd, &total), 0);
    close(fd);
    qt::ZipArchive archive = qt::read_zip(qt::read_file(path));
    ASSERT_EQ(archive.error, "");
    EXPECT_EQ(archive.entries[0].declared_size, 1000u);
    EXPECT_EQ(archive.entries[0].data, log_text(1500));
    EXPECT_EQ(qt::check_real_readers(path, {"grown.log"}), "");
}

TEST(ZipWriter, BadArgumentsAndWriteFailures)
{
    ZipMember member;
    uint32_t total = 7;
    testing::internal::CaptureStderr();
    EXPECT_EQ(quelvane_z_output_local_file_header(-1, &member, &total), -1);
    EXPECT_EQ(quelvane_z_output_local_file_header(1, nullptr, &total), -1);
    char expected[128];
    snprintf(expected, sizeof expected, "outfd=-1 zep=%p total_written=%p\noutfd=1 zep=%p total_written=%p\n",
             static_cast<void *>(&member), static_cast<void *>(&total), nullptr,
             static_cast<void *>(&total));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
    EXPECT_EQ(zip_finish_member(-1, &member, &total), -1);
    EXPECT_EQ(zip_finish_member(1, nullptr, &total), -1);
    EXPECT_EQ(zip_finish_archive(-1, &total), -1);
    EXPECT_EQ(zip_finish_archive(1, nullptr), -1);
    for (auto write_field : {zip_write_u8, zip_write_u16, zip_write_u32})
        EXPECT_EQ(write_field(-1, 0), -1);
    EXPECT_EQ(zip_member_list_add(nullptr), -1);

    // The sink refuses (read-only descriptor): -1 at once, the count stays,
    // and an unfinished member stays out of the list.
    zip_member_list_free();
    int read_only = open("/dev/null", O_RDONLY);
    member.name = "x";
    testing::internal::CaptureStderr();
    EXPECT_EQ(quelvane_z_output_local_file_header(read_only, &member, &total), -1);
    EXPECT_EQ(zip_finish_member(read_only, &member, &total), -1);
    EXPECT_EQ(zip_finish_archive(read_only, &total), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error writing data file: Bad file descriptor\n"
              "Error writing data file: Bad file descriptor\n"
              "Error writing data file: Bad file descriptor\n");
    EXPECT_EQ(total, 7u);
    EXPECT_TRUE(zip_member_list().empty());
    close(read_only);
}

TEST(ZipWriter, MemberListKeepsCopiesWithoutStreams)
{
    zip_member_list_free();
    ZipMember member;
    member.name = "first";
    member.source_path = "/etc/hostname";
    member.source_file = tmpfile();
    ASSERT_EQ(zip_member_list_add(&member), 0);
    member.name = "second";
    ASSERT_EQ(zip_member_list_add(&member), 0);
    member.name.clear();
    ASSERT_EQ(zip_member_list().size(), 2u);
    EXPECT_EQ(zip_member_list()[0].name, "first");
    EXPECT_EQ(zip_member_list()[1].name, "second");
    EXPECT_EQ(zip_member_list()[0].source_path, "/etc/hostname");
    EXPECT_EQ(zip_member_list()[0].source_file, nullptr);
    zip_member_list_free();
    EXPECT_TRUE(zip_member_list().empty());
    // The caller's stream is still its own to close.
    EXPECT_EQ(zip_close_member_file(&member), 0);
}

}  // namespace
