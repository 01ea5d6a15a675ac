// Deflate stream: data comes back out whole, CRC and sizes add up, and each
// source (memory, stdio stream, descriptor) ends its member properly.
#include <cerrno>
#include <fcntl.h>
#include <vector>

#include "archive_fixture.h"

namespace {

struct Deflated {
    ZipMember member;
    uint32_t total = 0;
    std::string data;
};

// Feeds the pieces as one member, the last with Z_FINISH.
Deflated deflate_pieces(const std::vector<std::string> &pieces, int kind = MEMBER_GENERATED,
                        uint32_t stat_size = 0)
{
    Deflated result;
    result.member.kind = kind;
    result.member.uncompressed_size = stat_size;
    SinkFile out;
    EXPECT_EQ(zip_deflate_start(), 0);
    for (size_t i = 0; i < pieces.size(); ++i) {
        bool last = i + 1 == pieces.size();
        EXPECT_EQ(zip_deflate_chunk(&result.member, out.fd(), pieces[i].data(),
                                    static_cast<unsigned>(pieces[i].size()),
                                    last ? Z_FINISH : Z_NO_FLUSH, &result.total),
                  last ? Z_STREAM_END : Z_OK);
    }
    result.data = out.contents();
    return result;
}

TEST(Deflate, PiecesRoundTripWithCrcAndSizes)
{
    std::string random = noise(100000);
    struct Case {
        const char *label;
        std::vector<std::string> pieces;
    } cases[] = {
        {"empty", {""}},
        {"one byte", {"x"}},
        {"several pieces", {"abc", "d", std::string(5000, 'e'), ""}},
        {"incompressible, beyond the output buffer", {random, random.substr(1)}},
        {"log text", {log_text(3 << 20)}},
    };
    for (int level_zero : {0, 1}) {
        restart_deflate(level_zero);
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.label) + (level_zero ? " (level 0)" : ""));
            std::string whole;
            for (const std::string &piece : c.pieces)
                whole += piece;
            Deflated d = deflate_pieces(c.pieces);
            EXPECT_EQ(inflate_raw(d.data), whole);
            EXPECT_EQ(d.member.crc32, crc_of(whole));
            EXPECT_EQ(d.member.uncompressed_size, whole.size());
            // compressed_size is what the member added to the running count.
            EXPECT_EQ(d.member.compressed_size, d.total);
            EXPECT_EQ(d.data.size(), d.total);
        }
    }
    restart_deflate(0);
}

TEST(Deflate, EmptyMemberStillHasAFinalBlock)
{
    // Two bytes of fixed-code end block, or a five-byte empty stored block.
    for (auto [level_zero, expected] : {std::pair{0, 2u}, std::pair{1, 5u}}) {
        restart_deflate(level_zero);
        Deflated d = deflate_pieces({""});
        EXPECT_EQ(d.member.compressed_size, expected) << "level zero " << level_zero;
        EXPECT_EQ(d.member.crc32, 0u);
    }
    restart_deflate(0);
    // Level 0 stores: the data shows through uncompressed.
    restart_deflate(1);
    EXPECT_NE(deflate_pieces({log_text(4000)}).data.find(log_text(4000).substr(0, 100)),
              std::string::npos);
    restart_deflate(0);
}

TEST(Deflate, CollectedFileKeepsItsStatSize)
{
    Deflated d = deflate_pieces({"grown since stat"}, MEMBER_FILE, 5);
    EXPECT_EQ(d.member.uncompressed_size, 5u);
    EXPECT_EQ(d.member.crc32, crc_of("grown since stat"));
}

TEST(Deflate, RejectsBadArgumentsAndEmptyNoFlush)
{
    SinkFile out;
    ZipMember member;
    uint32_t total = 0;
    ASSERT_EQ(zip_deflate_start(), 0);
    EXPECT_EQ(zip_deflate_chunk(nullptr, out.fd(), "a", 1, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_chunk(&member, -1, "a", 1, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), nullptr, 1, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), "a", 1, Z_NO_FLUSH, nullptr), -1);

    ASSERT_EQ(zip_deflate_chunk(&member, out.fd(), "a", 1, Z_NO_FLUSH, &total), Z_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), "", 0, Z_NO_FLUSH, &total), Z_BUF_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Buffer error on compression stream\n");
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), "", 0, Z_FINISH, &total), Z_STREAM_END);
    EXPECT_EQ(inflate_raw(out.contents()), "a");
}

TEST(Deflate, MemberAbandonedOnSinkFailureDoesNotSpoilTheNext)
{
    std::string random = noise(100000);
    int read_only = open("/dev/null", O_RDONLY);
    ZipMember broken;
    uint32_t total = 0;
    ASSERT_EQ(zip_deflate_start(), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(zip_deflate_chunk(&broken, read_only, random.data(), 100000, Z_NO_FLUSH, &total), -1);
    testing::internal::GetCapturedStderr();
    close(read_only);
    EXPECT_EQ(total, 0u);
    Deflated d = deflate_pieces({"next member"});
    EXPECT_EQ(inflate_raw(d.data), "next member");
}

TEST(Deflate, StreamLifecycle)
{
    restart_deflate(0);
    EXPECT_EQ(zip_deflate_end(), Z_OK);
    EXPECT_EQ(zip_deflate_end(), -1);  // already ended
    ZipMember member;
    SinkFile out;
    uint32_t total = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), "a", 1, Z_FINISH, &total), Z_STREAM_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid arguments to compression stream\n");
    EXPECT_EQ(zip_deflate_start(), 0);
}

TEST(Deflate, ReportsEachZlibError)
{
    struct Case {
        int code;
        const char *text;
    } cases[] = {
        {Z_STREAM_ERROR, "Invalid arguments to compression stream\n"},
        {Z_MEM_ERROR, "Compression stream out of memory\n"},
        {Z_BUF_ERROR, "Buffer error on compression stream\n"},
        {Z_VERSION_ERROR, "Version mismatch between this program and compression library\n"},
        {Z_DATA_ERROR, ""},
        {-1, ""},
        {0, ""},
    };
    for (const Case &c : cases) {
        testing::internal::CaptureStderr();
        zip_report_error(c.code);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.text) << c.code;
    }
}

// Writes data to a fresh file and opens it as a collected member's stream.
struct SourceFile {
    std::string path;
    ZipMember member;
    explicit SourceFile(const std::string &data)
    {
        char name[] = "/tmp/quelvane-deflate-XXXXXX";
        int fd = mkstemp(name);
        path = name;
        EXPECT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
        close(fd);
        member.kind = MEMBER_FILE;
        member.source_path = path;
        member.uncompressed_size = static_cast<uint32_t>(data.size());
        EXPECT_EQ(zip_open_member_file(&member), 0);
    }
    ~SourceFile()
    {
        zip_close_member_file(&member);
        unlink(path.c_str());
    }
};

TEST(Deflate, FromStdioStreamToItsEnd)
{
    // Around the 32 KB read size: an exact multiple ends with an empty finish.
    for (size_t size : {size_t{0}, size_t{1}, size_t{32768}, size_t{32769}, size_t{200000}}) {
        SCOPED_TRACE(size);
        std::string data = log_text(size);
        SourceFile source(data);
        SinkFile out;
        uint32_t total = 0;
        int error = -1;
        ASSERT_EQ(zip_deflate_start(), 0);
        EXPECT_EQ(zip_deflate_file(out.fd(), &source.member, &total, &error), 0);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(inflate_raw(out.contents()), data);
        EXPECT_EQ(source.member.crc32, crc_of(data));
        EXPECT_EQ(source.member.compressed_size, total);
    }
}

TEST(Deflate, StdioStreamFailures)
{
    ZipMember member;
    uint32_t total = 0;
    int error = -1;
    SinkFile out;
    EXPECT_EQ(zip_deflate_file(out.fd(), &member, &total, &error), -1);  // no stream open
    EXPECT_EQ(error, 0);

    member.source_path = "/tmp";
    EXPECT_EQ(zip_open_member_file(&member), -1);
    EXPECT_EQ(errno, EINVAL);
    member.source_path = "/nonexistent/quelvane";
    EXPECT_EQ(zip_open_member_file(&member), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(zip_close_member_file(&member), -1);

    // A directory opens as a stream but cannot be read: the errno comes back.
    member.source_file = fopen("/tmp", "r");
    ASSERT_NE(member.source_file, nullptr);
    ASSERT_EQ(zip_deflate_start(), 0);
    EXPECT_EQ(zip_deflate_file(out.fd(), &member, &total, &error), EISDIR);
    EXPECT_EQ(error, EISDIR);
    EXPECT_EQ(zip_close_member_file(&member), 0);
}

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() { close_writer(); close(fds[0]); }
    void close_writer() { if (fds[1] >= 0) close(fds[1]); fds[1] = -1; }
    void put(const std::string &data)
    {
        EXPECT_EQ(write(fds[1], data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }
};

TEST(Deflate, FromDescriptorTakesWhatIsReady)
{
    // Non-blocking: a call drains full 1024-byte reads, stops at "nothing now",
    // and only a finishing call completes the member.
    Pipe source;
    fcntl(source.fds[0], F_SETFL, O_NONBLOCK);
    SinkFile out;
    ZipMember member;
    member.kind = MEMBER_GENERATED;
    uint32_t total = 0;
    std::string first = log_text(3072), second = log_text(1024) + "tail";
    ASSERT_EQ(zip_deflate_start(), 0);
    source.put(first);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, source.fds[0], Z_NO_FLUSH, &total), 0);
    EXPECT_EQ(member.uncompressed_size, first.size());
    source.put(second);
    source.close_writer();
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, source.fds[0], Z_FINISH, &total), 0);
    EXPECT_EQ(inflate_raw(out.contents()), first + second);
    EXPECT_EQ(member.crc32, crc_of(first + second));
    EXPECT_EQ(member.compressed_size, total);

    // Exactly 1024 bytes then end of file: the empty read finishes it.
    Pipe exact;
    exact.put(std::string(1024, 'q'));
    exact.close_writer();
    SinkFile out2;
    ZipMember member2;
    ASSERT_EQ(zip_deflate_start(), 0);
    EXPECT_EQ(zip_deflate_fd(out2.fd(), &member2, exact.fds[0], Z_FINISH, &total), 0);
    EXPECT_EQ(inflate_raw(out2.contents()), std::string(1024, 'q'));
}

TEST(Deflate, DescriptorFailures)
{
    ZipMember member;
    uint32_t total = 0;
    SinkFile out;
    EXPECT_EQ(zip_deflate_fd(-1, &member, 0, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, -1, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_fd(out.fd(), nullptr, 0, Z_NO_FLUSH, &total), -1);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, 0, Z_NO_FLUSH, nullptr), -1);
    int directory = open("/tmp", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(zip_deflate_start(), 0);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, directory, Z_NO_FLUSH, &total), EISDIR);
    close(directory);
}

}  // namespace
