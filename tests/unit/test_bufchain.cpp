// Buffer chain: the cap is exact and all-or-nothing, descriptor reads take
// what is ready, long formatted text arrives whole, and the chain deflates
// into a member block by block.
#include <cerrno>
#include <fcntl.h>

#include "archive_fixture.h"
#include "quelvane_bufchain.h"

namespace {

unsigned length_of(const Bufchain &chain)
{
    unsigned length = 0;
    EXPECT_EQ(quelvane_bufchain_length(&chain, &length), 0);
    return length;
}

std::string text_of(const Bufchain &chain)
{
    std::string text;
    for (const BufBlock *block = chain.head; block != nullptr; block = block->next)
        text.append(block->data, static_cast<size_t>(block->end - block->data));
    return text;
}

TEST(Bufchain, CapIsExactAndAllOrNothing)
{
    std::string big = log_text(BUFCHAIN_MAX_LENGTH);
    Bufchain chain;
    ASSERT_EQ(quelvane_bufchain_add(&chain, big.data(), 1024), 0);
    EXPECT_EQ(chain.head, chain.tail);  // one full block...
    ASSERT_EQ(quelvane_bufchain_add(&chain, big.data() + 1024, 1), 0);
    EXPECT_EQ(chain.head->next, chain.tail);  // ...and the next byte starts another
    EXPECT_EQ(chain.tail->prev, chain.head);
    ASSERT_EQ(quelvane_bufchain_add(&chain, big.data() + 1025, BUFCHAIN_MAX_LENGTH - 1025), 0);
    EXPECT_EQ(text_of(chain), big);
    bufchain_error = 0;
    EXPECT_EQ(quelvane_bufchain_add(&chain, "x", 1), -1);
    EXPECT_EQ(bufchain_error, 28);
    EXPECT_EQ(length_of(chain), 262144u);

    Bufchain nearly;
    ASSERT_EQ(quelvane_bufchain_add(&nearly, big.data(), BUFCHAIN_MAX_LENGTH - 10), 0);
    EXPECT_EQ(quelvane_bufchain_add(&nearly, "0123456789x", 11), -1);
    EXPECT_EQ(length_of(nearly), 262134u);
    EXPECT_EQ(quelvane_bufchain_free(&nearly), 0);
    EXPECT_EQ(length_of(nearly), 0u);
    EXPECT_EQ(quelvane_bufchain_add(&nearly, "again", 5), 0);  // usable after freeing
    EXPECT_EQ(text_of(nearly), "again");
}

TEST(Bufchain, ReadFdTakesWhatIsReady)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    Bufchain chain;
    // A full 1024-byte read is followed by another in the same call.
    std::string text = log_text(2524);
    ASSERT_EQ(write(fds[1], text.data(), 1500), 1500);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);
    EXPECT_EQ(text_of(chain), text.substr(0, 1500));
    // Exactly 1024 with the writer still open: the second read finds nothing
    // yet, which is not a failure.
    ASSERT_EQ(write(fds[1], text.data() + 1500, 1024), 1024);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);
    close(fds[1]);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);  // end of file
    close(fds[0]);
    EXPECT_EQ(text_of(chain), text);
    int directory = open("/tmp", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, directory), -1);
    close(directory);
}

TEST(Bufchain, FormattedCapture)
{
    Bufchain chain;
    EXPECT_EQ(quelvane_vbprintf(&chain, "QUELVANE MSG: Child exited with %d: %s\n", 2,
                                "No such file or directory"),
              61);
    // Past the first 256-byte buffer: formatted a second time, whole.
    std::string long_text(300, 'L');
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s|%d", long_text.c_str(), 42), 303);
    EXPECT_EQ(text_of(chain),
              "QUELVANE MSG: Child exited with 2: No such file or directory\n" + long_text + "|42");
    // At the cap the text is refused whole.
    std::string filler(BUFCHAIN_MAX_LENGTH - length_of(chain) - 2, 'f');
    ASSERT_EQ(quelvane_bufchain_add(&chain, filler.data(), static_cast<int>(filler.size())), 0);
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s", "abc"), -1);
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s", "ab"), 2);
}

TEST(Bufchain, WritesIntoAMember)
{
    for (size_t size : {0, 1, 1024, 2500, 262144}) {
        SCOPED_TRACE(size);
        Bufchain chain;
        std::string text = log_text(size);
        if (size > 0) {
            ASSERT_EQ(quelvane_bufchain_add(&chain, text.data(), static_cast<int>(size)), 0);
        }
        SinkFile out;
        ZipMember member;
        member.kind = MEMBER_GENERATED;
        uint32_t total = 0;
        ASSERT_EQ(zip_deflate_start(), 0);
        EXPECT_EQ(quelvane_bufchain_write(&chain, &member, out.fd(), &total, Z_FINISH), 0);
        // An empty chain passes nothing at all: the member is not finished.
        EXPECT_EQ(inflate_raw(out.contents()), size ? text : "<bad>");
        EXPECT_EQ(member.uncompressed_size, size);
        EXPECT_EQ(member.crc32, crc_of(text));
        EXPECT_EQ(member.compressed_size, total);
    }
}

}  // namespace
