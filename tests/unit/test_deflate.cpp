// Deflate stream: data comes back out whole, CRC and sizes add up, and each
// source (memory, stdio stream, descriptor) ends its member properly.
#include <cerrno>
#include <fcntl.h>

#include "archive_fixture.h"
#include "testsupport.h"

namespace {

struct Deflated {
    ZipMember member;
    uint32_t total = 0;
    std::string data;
};

// Feeds the pieces as one member, the last with Z_FINISH.
Deflated deflate_pieces(const std::vector<std::string> &pieces, int kind = MEMBER_GENERATED)
{
    Deflated d;
    d.member.kind = kind;
    SinkFile out;
    EXPECT_EQ(zip_deflate_start(), 0);
    for (size_t i = 0; i < pieces.size(); ++i) {
        bool last = i + 1 == pieces.size();
        EXPECT_EQ(zip_deflate_chunk(&d.member, out.fd(), pieces[i].data(),
                                    static_cast<unsigned>(pieces[i].size()),
                                    last ? Z_FINISH : Z_NO_FLUSH, &d.total),
                  last ? Z_STREAM_END : Z_OK);
    }
    d.data = out.contents();
    return d;
}

TEST(Deflate, PiecesRoundTripWithCrcAndSizes)
{
    std::string random = noise(100000);
    const std::vector<std::vector<std::string>> cases = {
        {""}, {"x"}, {"abc", "d", std::string(5000, 'e'), ""}, {random, random}, {log_text(3 << 20)}};
    for (int level_zero : {0, 1}) {
        restart_deflate(level_zero);
        for (const auto &pieces : cases) {
            std::string whole;
            for (const std::string &piece : pieces)
                whole += piece;
            SCOPED_TRACE(testing::Message() << whole.size() << " bytes, level zero " << level_zero);
            Deflated d = deflate_pieces(pieces);
            EXPECT_EQ(inflate_raw(d.data), whole);
            EXPECT_EQ(d.member.crc32, crc_of(whole));
            EXPECT_EQ(d.member.uncompressed_size, whole.size());
            // compressed_size is exactly what the member added to the count.
            EXPECT_EQ(d.member.compressed_size, d.total);
            EXPECT_EQ(d.data.size(), d.total);
            // Empty still ends in a block: fixed-code end block, or an empty
            // stored block.
            if (whole.empty()) {
                EXPECT_EQ(d.total, level_zero ? 5u : 2u);
            }
        }
    }
    restart_deflate(0);
    // A collected file keeps the size its producer took from stat.
    Deflated file = deflate_pieces({"grown since stat"}, MEMBER_FILE);
    EXPECT_EQ(file.member.uncompressed_size, 0u);
    EXPECT_EQ(file.member.crc32, crc_of("grown since stat"));
}

TEST(Deflate, ZlibErrorsAreReported)
{
    SinkFile out;
    ZipMember member;
    uint32_t total = 0;
    ASSERT_EQ(zip_deflate_start(), 0);
    ASSERT_EQ(zip_deflate_chunk(&member, out.fd(), "a", 1, Z_NO_FLUSH, &total), Z_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(zip_deflate_chunk(&member, out.fd(), "", 0, Z_NO_FLUSH, &total), Z_BUF_ERROR);
    zip_report_error(Z_STREAM_ERROR);
    zip_report_error(Z_MEM_ERROR);
    zip_report_error(Z_VERSION_ERROR);
    zip_report_error(Z_DATA_ERROR);  // not one of ours: nothing
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Buffer error on compression stream\n"
              "Invalid arguments to compression stream\n"
              "Compression stream out of memory\n"
              "Version mismatch between this program and compression library\n");
    // The stream is still good for finishing the member.
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error writing data file: Bad file descriptor\n");
    close(read_only);
    EXPECT_EQ(total, 0u);
    EXPECT_EQ(inflate_raw(deflate_pieces({"next member"}).data), "next member");
}

TEST(Deflate, FromStdioStreamToItsEnd)
{
    qt::TempDir dir;
    // Around the 32 KB read size: an exact multiple ends with an empty finish.
    for (size_t size : {0, 1, 32768, 32769, 200000}) {
        SCOPED_TRACE(size);
        std::string data = log_text(size);
        ZipMember member;
        member.source_path = dir.file("source");
        ASSERT_TRUE(qt::write_file(member.source_path, data));
        ASSERT_EQ(zip_open_member_file(&member), 0);
        SinkFile out;
        uint32_t total = 0;
        int error = -1;
        ASSERT_EQ(zip_deflate_start(), 0);
        EXPECT_EQ(zip_deflate_file(out.fd(), &member, &total, &error), 0);
        EXPECT_EQ(zip_close_member_file(&member), 0);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(inflate_raw(out.contents()), data);
        EXPECT_EQ(member.crc32, crc_of(data));
        EXPECT_EQ(member.compressed_size, total);
    }
    // Only regular files open; a stream that cannot be read gives its errno.
    ZipMember member;
    member.source_path = dir.path();
    EXPECT_EQ(zip_open_member_file(&member), -1);
    EXPECT_EQ(errno, EINVAL);
    member.source_file = fopen(dir.path().c_str(), "r");
    SinkFile out;
    uint32_t total = 0;
    int error = 0;
    EXPECT_EQ(zip_deflate_file(out.fd(), &member, &total, &error), EISDIR);
    EXPECT_EQ(error, EISDIR);
    EXPECT_EQ(zip_close_member_file(&member), 0);
}

TEST(Deflate, FromDescriptorTakesWhatIsReady)
{
    // Non-blocking, as the command runner reads: a call drains full 1024-byte
    // reads, stops when nothing more is there yet, and only a finishing call
    // completes the member.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    SinkFile out;
    ZipMember member;
    member.kind = MEMBER_GENERATED;
    uint32_t total = 0;
    std::string first = log_text(3072), second = log_text(1024);
    ASSERT_EQ(zip_deflate_start(), 0);
    ASSERT_EQ(write(fds[1], first.data(), first.size()), 3072);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, fds[0], Z_NO_FLUSH, &total), 0);
    EXPECT_EQ(member.uncompressed_size, 3072u);
    // Exactly 1024 more, then end of file: the empty read finishes it.
    ASSERT_EQ(write(fds[1], second.data(), second.size()), 1024);
    close(fds[1]);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, fds[0], Z_FINISH, &total), 0);
    close(fds[0]);
    EXPECT_EQ(inflate_raw(out.contents()), first + second);
    EXPECT_EQ(member.crc32, crc_of(first + second));
    EXPECT_EQ(member.compressed_size, total);

    int directory = open("/tmp", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(zip_deflate_fd(out.fd(), &member, directory, Z_NO_FLUSH, &total), EISDIR);
    close(directory);
}

}  // namespace
