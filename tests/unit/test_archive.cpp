// Archive output: every member source, plain and encrypted, at both levels; the edge cases.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <functional>
#include <random>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "quelvane_bufchain.h"
#include "quelvane_datagen.h"
#include "quelvane_util.h"
#include "testsupport.h"

namespace {

const char PASSWORD[] = "pass word";

std::string bytes_of(size_t size, unsigned alphabet)  // 256 letters do not compress
{
    std::string bytes;
    for (std::mt19937 generator(7); bytes.size() < size;)
        bytes += static_cast<char>(generator() % alphabet + (alphabet < 256 ? 'a' : 0));
    return bytes;
}

// Memory in two pieces, the chain (a 300-character message, then up to the cap), a stdio
// stream (two whole 32 KB reads), a pipe (whole 1024-byte reads), an empty finish. UTC.
const struct { std::string name, data; uint32_t declared, time, dos; } SAMPLE[] = {
    {"README", bytes_of(100000, 256), 100000, 315532861, 0x00210020},  // 1980, seconds halved
    {"cmd/dmesg.err", bytes_of(BUFCHAIN_MAX_LENGTH, 16), 262144, 315532799, 0x00210000},  // 1979
    {"etc/hosts.conf", bytes_of(65536, 4), 0, 0, 0x00210000},  // stat size 0 (as /proc): read to its end
    {"cmd/ps.out", bytes_of(50176, 26), 50176, 1700000001, 0x576eb1aa},  // an odd second
    {"empty.out", "", 0, 4102444799, 0xef9fbf7d}};

void write_sample(int fd, const std::string &source, int level_zero)
{
    setenv("TZ", "UTC", 1);  // in a child (see in_child), so the process-wide state is free
    tzset();
    zip_deflate_end();  // the first member header restarts the stream at this level
    no_compression = level_zero;
    zip_member_list_free();
    uint64_t total = 0;
    for (size_t i = 0; i < 5; ++i) {
        const std::string &data = SAMPLE[i].data;
        ZipMember member;
        zip_member_init(&member, i == 2 ? MEMBER_FILE : MEMBER_GENERATED);
        member.name = SAMPLE[i].name;
        member.dos_datetime = SAMPLE[i].time;
        member.uncompressed_size = i == 2 ? SAMPLE[i].declared : 0;  // the producer's stat
        member.source_path = source;
        ASSERT_EQ(quelvane_z_output_local_file_header(fd, &member, &total), 0);
        uint32_t data_start = total;
        int result = 0, error = 0, fds[2];
        Bufchain chain;
        if (i == 0) {
            result = zip_deflate_chunk(&member, fd, data.data(), 60000, Z_NO_FLUSH, &total) != Z_OK ||
                     zip_deflate_chunk(&member, fd, &data[60000], 40000, Z_FINISH, &total) != Z_STREAM_END;
        } else if (i == 1) {
            EXPECT_EQ(quelvane_vbprintf(&chain, "%.300s", data.c_str()), 300);
            ASSERT_EQ(quelvane_bufchain_add(&chain, &data[300], BUFCHAIN_MAX_LENGTH - 300), 0);
            bufchain_error = 0;  // refused whole: the member's data shows nothing of it
            EXPECT_EQ(quelvane_bufchain_add(&chain, "x", 1), -1);
            EXPECT_EQ(bufchain_error, 28);
            result = quelvane_bufchain_write(&chain, &member, fd, &total, Z_FINISH);
        } else if (i == 2) {
            ASSERT_TRUE(qt::write_file(source, data) && zip_open_member_file(&member) == 0);
            result = zip_deflate_file(fd, &member, &total, &error) | error | zip_close_member_file(&member);
        } else if (i == 3) {
            ASSERT_TRUE(pipe(fds) == 0 && write(fds[1], data.data(), 50176) == 50176 && close(fds[1]) == 0);
            result = zip_deflate_fd(fd, &member, fds[0], Z_FINISH, &total) | close(fds[0]);
        } else {
            result = zip_deflate_chunk(&member, fd, "", 0, Z_FINISH, &total) != Z_STREAM_END;
        }
        EXPECT_EQ(result, 0) << member.name;
        EXPECT_EQ(member.compressed_size, total - data_start) << member.name;
        ASSERT_EQ(zip_finish_member(fd, &member, &total), 0);
    }
    ASSERT_EQ(zip_finish_archive(fd, &total), 0);
    // The count is the plain stream's length, of which the cipher has written the whole blocks.
    EXPECT_EQ(lseek(fd, 0, SEEK_END), encrypt_output ? 16 + total / 16 * 16 : total);
}

// Runs body(fd) on a new file in a child: the cipher starts once per process,
// and the parent's state stays as it was. The exit status is what went wrong.
template <class Body>
int in_child(const std::string &path, int encrypt, Body body)
{
    pid_t pid = fork();
    if (pid == 0) {
        encrypt_output = encrypt;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int result = encrypt && sink_encrypt_start(PASSWORD, fd) != 0 ? 100 : body(fd);
        result = result ? result : encrypt && sink_encrypt_finish(fd) != 0 ? 101 : testing::Test::HasFailure();
        fflush(nullptr);
        _exit(result);
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Archive, EverySourcePlainAndEncryptedAtBothLevels)
{
    qt::TempDir dir;
    std::string plain = dir.file("plain.zip"), locked = dir.file("sealed"), opened = dir.file("opened.zip");
    for (int level_zero : {0, 1}) {
        SCOPED_TRACE(level_zero);
        for (int encrypt : {0, 1})
            ASSERT_EQ(in_child(encrypt ? locked : plain, encrypt,
                               [&](int fd) { return write_sample(fd, dir.file("source"), level_zero), 0; }), 0);
        // The bytes of the field-by-field writer, on every build and target; the sealed archive
        // opens to them byte for byte, and that is what the readers get.
        EXPECT_EQ(qt::run_program("/usr/bin/sha256sum", {plain}).out.substr(0, 64),
                  level_zero ? "16ad484934842ee78c6d7572584999daa056e92ca3848892c979bc32bb0be2a0"
                             : "baccd901978635901be9715374efaeb63b78219a3ce9660585010e93c3398566");
        ASSERT_EQ(qt::openssl_decrypt(locked, PASSWORD, opened), "");
        EXPECT_TRUE(qt::read_file(opened) == qt::read_file(plain));
        qt::ZipArchive archive = qt::read_zip(qt::read_file(opened));
        ASSERT_EQ(archive.error, "");
        ASSERT_EQ(archive.entries.size(), 5u);
        for (size_t i = 0; i < 5; ++i) {
            const qt::ZipEntry &entry = archive.entries[i];
            EXPECT_EQ(entry.name, SAMPLE[i].name);
            EXPECT_TRUE(entry.data == SAMPLE[i].data) << entry.name;
            EXPECT_EQ(entry.declared_size, SAMPLE[i].declared) << entry.name;
            EXPECT_EQ(entry.dos_datetime, SAMPLE[i].dos) << entry.name;
            EXPECT_EQ(entry.version, 20);
        }
        EXPECT_EQ(archive.entries[4].compressed_size, level_zero ? 5u : 2u);
        EXPECT_EQ(qt::check_real_readers(opened, {"etc/hosts.conf"}), "");
    }
}

TEST(Archive, CipherWritesOnlyWholeBlocks)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed"), opened = dir.file("opened");
    for (int count : {0, 16}) {  // after the header and salt: padding alone, or 16 single bytes
        ASSERT_EQ(0, in_child(path, 1, [&](int fd) {
            for (int i = 1; i <= count; ++i)
                EXPECT_TRUE(sink_write("z", 1, fd) == 0 && sink_flush(fd) == 0 &&
                            lseek(fd, 0, SEEK_CUR) == 16 + i / 16 * 16) << i;
            return 0;
        }));
        EXPECT_EQ(qt::read_file(path).size(), count ? 48u : 32u);
        ASSERT_EQ(qt::openssl_decrypt(path, PASSWORD, opened), "");
        EXPECT_EQ(qt::read_file(opened), std::string(count, 'z'));
    }
}

TEST(Archive, NoMembersAndLongNames)
{
    qt::TempDir dir;
    std::string path = dir.file("test.zip");
    for (size_t length : {0, 65536, 100000}) {
        zip_member_list_free();
        ZipMember member;
        zip_member_init(&member, MEMBER_GENERATED);
        member.name = std::string(length, 'n');
        uint64_t total = 0;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_TRUE(length == 0 || (quelvane_z_output_local_file_header(fd, &member, &total) == 0 &&
                                    zip_finish_member(fd, &member, &total) == 0));  // no data needed here
        ASSERT_EQ(zip_finish_archive(fd, &total), 0);
        close(fd);
        std::string bytes = qt::read_file(path);
        if (length == 0) {
            EXPECT_EQ(bytes, std::string("PK\x05\x06", 4) + std::string(18, '\0'));
            // unzip -t calls an empty archive a warning; the other readers accept it.
            EXPECT_EQ(qt::check_real_readers(path),
                      "unzip -t failed (1): warning [" + path + "]:  zipfile is empty\n");
            continue;
        }
        auto le = [&bytes](size_t at) { return uint8_t(bytes[at]) | uint8_t(bytes[at + 1]) << 8; };
        // The 16-bit name lengths wrap; the central record still carries the whole name.
        size_t wrapped = length % 65536, central = 30 + wrapped + 16, end = central + 46 + length;
        ASSERT_EQ(bytes.size(), end + 22) << length;
        EXPECT_EQ(le(26), wrapped);            // local name length
        EXPECT_EQ(le(central + 28), wrapped);  // central name length
        EXPECT_EQ(le(end + 12) | le(end + 14) << 16, 46 + length);  // directory size
        EXPECT_EQ(le(end + 16) | le(end + 18) << 16, central);      // directory offset
    }
}

// A write that fails inside a local header, a data descriptor, the central directory or
// the end record (a file-size limit set there) makes the call that sends it return -1
// after the sink's message, leaves the running count where that call found it, and
// leaves on disk exactly the archive's bytes up to the limit.
TEST(Archive, AFailedWriteLeavesTheCountAlone)
{
    qt::TempDir dir;
    // Three members of a single deflate round each: together more than the sink gathers.
    const std::string data = bytes_of(30000, 256);
    ASSERT_EQ(0, in_child(dir.file("limited.zip"), 0, [&](int fd) {
        signal(SIGXFSZ, SIG_IGN);
        ZipMember member;
        std::vector<std::function<int(int, uint64_t *)>> calls;
        for (const char *name : {"first", "second", "third"}) {
            calls.push_back([&, name](int out, uint64_t *total) {
                zip_member_init(&member, MEMBER_GENERATED);
                member.name = name;
                member.dos_datetime = 1700000001;  // fixed, so that both passes write the same bytes
                return quelvane_z_output_local_file_header(out, &member, total);
            });
            calls.push_back([&](int out, uint64_t *total) {
                int end = zip_deflate_chunk(&member, out, data.data(), static_cast<unsigned>(data.size()), Z_FINISH, total);
                return end == Z_STREAM_END ? 0 : -1;
            });
            calls.push_back([&](int out, uint64_t *total) { return zip_finish_member(out, &member, total); });
        }
        calls.push_back([](int out, uint64_t *total) { return zip_finish_archive(out, total); });
        std::vector<uint64_t> starts;  // where each call's bytes begin
        uint64_t total = 0;
        const std::string whole_path = dir.file("whole.zip");
        int whole = open(whole_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        zip_member_list_free();
        for (const auto &call : calls)
            EXPECT_EQ((starts.push_back(total), call(whole, &total)), 0);
        close(whole);
        const std::string archive = qt::read_file(whole_path);
        // Inside: the first header, the first descriptor, the second header, the directory, the end.
        for (uint64_t limit : {starts[0] + 3, starts[2] + 3, starts[3] + 3, starts[9] + 3, total - 3}) {
            SCOPED_TRACE(limit);
            struct rlimit fsize = {static_cast<rlim_t>(limit), RLIM_INFINITY};
            EXPECT_EQ(ftruncate(fd, 0) | static_cast<int>(lseek(fd, 0, SEEK_SET)) | setrlimit(RLIMIT_FSIZE, &fsize), 0);
            zip_member_list_free();
            uint64_t count = 0, before = 0;
            int fds[2];  // standard error into a pipe, which the limit does not reach
            EXPECT_EQ(pipe(fds), 0);
            const int saved = dup(2);
            dup2(fds[1], 2);
            size_t call = 0;
            while (call < calls.size() && (before = count, calls[call](fd, &count) == 0))
                ++call;
            dup2(saved, 2);
            close(fds[1]);
            char said[200] = {};
            EXPECT_GT(read(fds[0], said, sizeof said - 1), 0);
            close(fds[0]);
            EXPECT_LT(call, calls.size()) << "no call failed";
            EXPECT_EQ(count, before);
            EXPECT_STREQ(said, "Error writing data file: File too large\n");
            EXPECT_TRUE(qt::read_file(dir.file("limited.zip")) == archive.substr(0, limit));
        }
        return 0;
    }));
}

// Members past 4 GiB: the output file starts with a 5 GiB hole, so that the stream's offsets
// are the file's; their central records and the end take ZIP64 form, which real readers
// follow without reading the hole.
TEST(Archive, OffsetsPast4GiBTakeZip64)
{
    qt::TempDir dir;
    const std::string path = dir.file("far.zip");
    zip_member_list_free();
    uint64_t total = 5ull << 30;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(lseek(fd, static_cast<off_t>(total), SEEK_SET), static_cast<off_t>(total));
    for (const char *name : {"a", "b/c", "d"}) {
        ZipMember member;
        zip_member_init(&member, MEMBER_GENERATED);
        member.name = name;
        ASSERT_EQ(quelvane_z_output_local_file_header(fd, &member, &total), 0);
        ASSERT_EQ(zip_deflate_chunk(&member, fd, name, 1, Z_FINISH, &total), Z_STREAM_END);
        ASSERT_EQ(zip_finish_member(fd, &member, &total), 0);
    }
    ASSERT_EQ(zip_finish_archive(fd, &total), 0);
    EXPECT_EQ(static_cast<off_t>(total), lseek(fd, 0, SEEK_CUR));
    close(fd);
    const std::string script = "unzip -tq \"$0\" && bsdtar -xOf \"$0\" && python3 -c 'import sys, zipfile\n"
                               "z = zipfile.ZipFile(sys.argv[1])\nprint(*(z.read(n).decode() for n in z.namelist()))' \"$0\"";
    qt::RunResult r = qt::run_program("/bin/sh", {"-c", script, path});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "No errors detected in compressed data of " + path + ".\nabda b d\n");
}

}  // namespace

// A budget is used to within a few records' worth and never passed, at both levels, for
// data that does not compress and data that does; the cut member stays whole for readers.
TEST(Archive, BudgetIsFilledButNeverPassed)
{
    qt::TempDir dir;
    for (int level_zero : {0, 1}) {
        for (unsigned alphabet : {256u, 4u}) {
            for (uint64_t limit : {3000u, 20000u, 100000u}) {
                SCOPED_TRACE(std::to_string(level_zero) + " " + std::to_string(alphabet) + " " + std::to_string(limit));
                const std::string path = dir.file("budget.zip"), data = bytes_of(1 << 20, alphabet);
                ASSERT_EQ(0, in_child(path, 0, [&](int fd) {
                    zip_deflate_end();
                    no_compression = level_zero;
                    zip_member_list_free();
                    zip_budget_set(limit);
                    uint64_t total = 0;
                    ZipMember member;
                    zip_member_init(&member, MEMBER_GENERATED);
                    member.name = "data";
                    EXPECT_TRUE(zip_budget_admits(total, zip_member_cost(4, 256)));
                    EXPECT_EQ(quelvane_z_output_local_file_header(fd, &member, &total), 0);
                    for (size_t at = 0; at < data.size(); at += 1024)
                        EXPECT_EQ(zip_deflate_chunk(&member, fd, &data[at], 1024, at + 1024 < data.size() ? Z_NO_FLUSH : Z_FINISH,
                                                    &total) < 0, false);
                    EXPECT_TRUE(member.budget_cut && zip_budget_exhausted());
                    EXPECT_EQ(zip_finish_member(fd, &member, &total), 0);
                    EXPECT_FALSE(zip_budget_admits(total, zip_member_cost(1, 0)));
                    EXPECT_EQ(zip_finish_archive(fd, &total), 0);
                    zip_budget_set(0);
                    return 0;
                }));
                const std::string bytes = qt::read_file(path);
                EXPECT_LE(bytes.size(), limit);
                EXPECT_GE(bytes.size() + 256, limit);
                const qt::ZipArchive zip = qt::read_zip(bytes);
                ASSERT_EQ(zip.error, "");
                EXPECT_EQ(zip.entries.at(0).data, data.substr(0, zip.entries.at(0).data.size()));
                EXPECT_EQ(qt::check_real_readers(path), "");
            }
        }
    }
}
