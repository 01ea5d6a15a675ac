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

// The collected file is 40000 bytes at stat time and grows to 45000 before
// it is read: it declares its stat size, and readers flag exactly it.
const uint32_t STAT_SIZE = 40000;
const char COLLECTED[] = "etc/hosts.conf";

std::vector<Expected> sample_contents()
{
    return {{"README", log_text(70000)},
            {"cmd/dmesg.err", "QUELVANE MSG: Child exited with 2: No such file or directory\n" +
                                  std::string(3000, 'e')},
            {COLLECTED, log_text(45000)},
            {"cmd/ps.out", log_text(50000)},
            {"empty.out", ""}};
}

// Deflates member i of the sample from its own kind of source: memory in
// pieces, a buffer chain, a stdio stream, a pipe, an empty finish.
int sample_data(size_t i, const Expected &e, int fd, ZipMember *member, uint32_t *total)
{
    switch (i) {
    case 0: {
        int result = 0;
        for (size_t at = 0; at < e.data.size() && result >= 0; at += 7000)
            result = zip_deflate_chunk(member, fd, e.data.data() + at, 7000,
                                       at + 7000 == e.data.size() ? Z_FINISH : Z_NO_FLUSH, total);
        return result;
    }
    case 1: {
        Bufchain chain;
        quelvane_vbprintf(&chain, "QUELVANE MSG: Child exited with %d: %s\n", 2, strerror(2));
        quelvane_bufchain_add(&chain, e.data.data() + 61, 3000);
        return quelvane_bufchain_write(&chain, member, fd, total, Z_FINISH);
    }
    case 2: {
        int error;
        return zip_deflate_file(fd, member, total, &error);
    }
    case 3: {
        int fds[2];
        if (pipe(fds) != 0 || write(fds[1], e.data.data(), e.data.size()) != 50000)
            return -1;
        close(fds[1]);
        int result = zip_deflate_fd(fd, member, fds[0], Z_FINISH, total);
        close(fds[0]);
        return result;
    }
    default:
        return zip_deflate_chunk(member, fd, "", 0, Z_FINISH, total);
    }
}

// Writes the sample archive. Runs in forked children too, so it reports by
// its result: 0, or the step that went wrong.
int write_sample_archive(int fd, const std::string &source, uint32_t *total)
{
    std::vector<Expected> expected = sample_contents();
    zip_member_list_free();
    for (size_t i = 0; i < expected.size(); ++i) {
        ZipMember member;
        member.name = expected[i].name;
        member.kind = MEMBER_GENERATED;
        member.dos_datetime = static_cast<uint32_t>(FIXED_TIME);
        if (i == 2) {
            // Stamped 0, which a collected file keeps: 1 January 1980.
            const timespec epoch[2] = {{0, 0}, {0, 0}};
            struct stat status;
            if (!qt::write_file(source, expected[i].data.substr(0, STAT_SIZE)) ||
                utimensat(AT_FDCWD, source.c_str(), epoch, 0) != 0 || stat(source.c_str(), &status) != 0)
                return 10;
            member.kind = MEMBER_FILE;
            member.source_path = source;
            member.uncompressed_size = static_cast<uint32_t>(status.st_size);
            member.dos_datetime = static_cast<uint32_t>(status.st_mtime);
            if (zip_open_member_file(&member) != 0 || !qt::write_file(source, expected[i].data))
                return 11;
        }
        if (quelvane_z_output_local_file_header(fd, &member, total) != 0)
            return 20;
        uint32_t data_start = *total;
        if (sample_data(i, expected[i], fd, &member, total) < 0)
            return 30;
        if (member.compressed_size != *total - data_start)
            return 40;
        // The producer closes its stream after the member is finished; the
        // list's copy must not hold it too.
        if (zip_finish_member(fd, &member, total) != 0 ||
            (i == 2 && zip_close_member_file(&member) != 0))
            return 50;
    }
    return zip_finish_archive(fd, total) == 0 ? 0 : 60;
}

// Our own reading of the sample archive, then the real readers'.
void check_sample(const std::string &zip_path, uint32_t total, int level_zero)
{
    std::string bytes = qt::read_file(zip_path);
    EXPECT_EQ(bytes.size(), total);
    qt::ZipArchive archive = qt::read_zip(bytes);
    ASSERT_EQ(archive.error, "");
    std::vector<Expected> expected = sample_contents();
    ASSERT_EQ(archive.entries.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const qt::ZipEntry &entry = archive.entries[i];
        SCOPED_TRACE(entry.name);
        bool collected = entry.name == COLLECTED;
        EXPECT_EQ(entry.name, expected[i].name);
        EXPECT_EQ(entry.data, expected[i].data);
        EXPECT_EQ(entry.declared_size, collected ? STAT_SIZE : expected[i].data.size());
        EXPECT_EQ(entry.dos_datetime, collected ? 0x00210000 : zip_dos_datetime(FIXED_TIME));
        EXPECT_EQ(entry.version, 20);
        EXPECT_EQ(entry.flags, 8);
        EXPECT_EQ(entry.method, 8);  // stored blocks under -C are still deflate
    }
    EXPECT_EQ(archive.entries.back().compressed_size, level_zero ? 5u : 2u);
    EXPECT_EQ(qt::check_real_readers(zip_path, {COLLECTED}), "");
}

TEST(ZipArchive, PlainAndEncryptedAtBothLevels)
{
    qt::TempDir dir;
    std::string source = dir.file("hosts"), plain = dir.file("plain.zip"),
                sealed = dir.file("sealed.zip"), opened = dir.file("opened.zip");
    for (int level_zero : {0, 1}) {
        SCOPED_TRACE(level_zero);
        restart_deflate(level_zero);
        uint32_t total = 0;
        int fd = open(plain.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_EQ(write_sample_archive(fd, source, &total), 0);
        close(fd);
        EXPECT_EQ(zip_member_list().size(), 5u);
        check_sample(plain, total, level_zero);

        // The same archive through the cipher decrypts to the same bytes.
        EXPECT_EQ(in_child([&] {
                      encrypt_output = 1;
                      int out = open(sealed.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                      uint32_t sealed_total = 0;
                      if (sink_encrypt_start(PASSWORD, out) != 0 ||
                          write_sample_archive(out, source, &sealed_total) != 0 ||
                          sealed_total != total)
                          return 1;
                      return sink_encrypt_finish(out) == 0 ? 0 : 2;
                  }),
                  0);
        std::string sealed_bytes = qt::read_file(sealed);
        EXPECT_EQ(sealed_bytes.substr(0, 8), "Salted__");
        EXPECT_EQ(sealed_bytes.size(), 16 + (total / 16 + 1) * 16);
        ASSERT_EQ(qt::openssl_decrypt(sealed, PASSWORD, opened), "");
        EXPECT_TRUE(qt::read_file(opened) == qt::read_file(plain));
        check_sample(opened, total, level_zero);
    }
    restart_deflate(0);
    zip_member_list_free();
}

TEST(ZipArchive, NoMembersIsTheEndRecordAlone)
{
    qt::TempDir dir;
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
    const char *zone = getenv("TZ");
    std::string saved = zone ? zone : "";
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
    if (zone)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(ZipWriter, GeneratedMemberAtZeroTakesNow)
{
    SinkFile out;
    uint32_t total = 0;
    ZipMember generated;
    generated.kind = MEMBER_GENERATED;
    uint32_t before = zip_dos_datetime(time(nullptr));
    ASSERT_EQ(quelvane_z_output_local_file_header(out.fd(), &generated, &total), 0);
    EXPECT_GE(generated.dos_datetime, before);
    EXPECT_LE(generated.dos_datetime, zip_dos_datetime(time(nullptr)));
    ZipMember collected;
    collected.kind = MEMBER_FILE;
    ASSERT_EQ(quelvane_z_output_local_file_header(out.fd(), &collected, &total), 0);
    EXPECT_EQ(collected.dos_datetime, 0x00210000u);
}

uint32_t le(const std::string &bytes, size_t at, int size)
{
    uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<size_t>(i)]);
    return value;
}

TEST(ZipWriter, LongNamesWrapInTheHeaders)
{
    qt::TempDir dir;
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

TEST(ZipWriter, HeaderDiagnosticAndWriteFailures)
{
    ZipMember member;
    member.name = "x";
    uint32_t total = 7;
    char expected[160];
    snprintf(expected, sizeof expected, "outfd=-1 zep=%p total_written=%p\n",
             static_cast<void *>(&member), static_cast<void *>(&total));
    // The sink refuses a read-only descriptor: -1 at once, the count stays,
    // and an unfinished member stays out of the list.
    zip_member_list_free();
    int read_only = open("/dev/null", O_RDONLY);
    testing::internal::CaptureStderr();
    EXPECT_EQ(quelvane_z_output_local_file_header(-1, &member, &total), -1);
    EXPECT_EQ(quelvane_z_output_local_file_header(read_only, &member, &total), -1);
    EXPECT_EQ(zip_finish_member(read_only, &member, &total), -1);
    EXPECT_EQ(zip_finish_archive(read_only, &total), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string(expected) + "Error writing data file: Bad file descriptor\n"
                                      "Error writing data file: Bad file descriptor\n"
                                      "Error writing data file: Bad file descriptor\n");
    EXPECT_EQ(total, 7u);
    EXPECT_TRUE(zip_member_list().empty());
    close(read_only);
}

}  // namespace
