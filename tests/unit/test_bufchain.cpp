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
    std::string big(BUFCHAIN_MAX_LENGTH, 'b');
    Bufchain chain;
    bufchain_error = 0;
    ASSERT_EQ(quelvane_bufchain_add(&chain, big.data(), BUFCHAIN_MAX_LENGTH), 0);
    EXPECT_EQ(length_of(chain), 262144u);
    EXPECT_EQ(bufchain_error, 0);
    EXPECT_EQ(quelvane_bufchain_add(&chain, "x", 1), -1);
    EXPECT_EQ(bufchain_error, 28);
    EXPECT_EQ(length_of(chain), 262144u);

    // Nearly full: an append that would cross the cap adds nothing at all.
    Bufchain partial;
    ASSERT_EQ(quelvane_bufchain_add(&partial, big.data(), BUFCHAIN_MAX_LENGTH - 10), 0);
    EXPECT_EQ(quelvane_bufchain_add(&partial, big.data(), 11), -1);
    EXPECT_EQ(length_of(partial), 262134u);
    EXPECT_EQ(quelvane_bufchain_add(&partial, "0123456789", 10), 0);
    EXPECT_EQ(text_of(partial), big.substr(10) + "0123456789");
}

TEST(Bufchain, BlocksFillInOrder)
{
    struct Case {
        std::vector<int> appends;
        int blocks;
    } cases[] = {
        {{1}, 1}, {{1024}, 1}, {{1024, 1}, 2}, {{1000, 100}, 2}, {{3000}, 3}, {{512, 512, 512}, 2},
    };
    for (const Case &c : cases) {
        Bufchain chain;
        std::string expected;
        for (int n : c.appends) {
            std::string piece = log_text(static_cast<size_t>(n) + expected.size()).substr(expected.size());
            ASSERT_EQ(quelvane_bufchain_add(&chain, piece.data(), n), 0);
            expected += piece;
        }
        int blocks = 0;
        for (BufBlock *block = chain.head; block != nullptr; block = block->next, ++blocks) {
            EXPECT_EQ(block->prev == nullptr, block == chain.head);
            if (block != chain.tail) {
                EXPECT_EQ(block->end - block->data, BUFCHAIN_BLOCK_SIZE);
            }
        }
        EXPECT_EQ(blocks, c.blocks) << expected.size();
        EXPECT_EQ(text_of(chain), expected);
        EXPECT_EQ(length_of(chain), expected.size());
    }
}

TEST(Bufchain, RejectsBadArguments)
{
    Bufchain chain;
    unsigned length;
    EXPECT_EQ(quelvane_bufchain_add(nullptr, "x", 1), -1);
    EXPECT_EQ(quelvane_bufchain_add(&chain, nullptr, 1), -1);
    EXPECT_EQ(quelvane_bufchain_add(&chain, "x", 0), -1);
    EXPECT_EQ(quelvane_bufchain_add(&chain, "x", -1), -1);
    EXPECT_EQ(quelvane_bufchain_length(nullptr, &length), -1);
    EXPECT_EQ(quelvane_bufchain_length(&chain, nullptr), -1);
    EXPECT_EQ(quelvane_bufchain_read_fd(nullptr, 0), -1);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, -1), -1);
    EXPECT_EQ(quelvane_bufchain_free(nullptr), -1);
    EXPECT_EQ(quelvane_vbprintf(nullptr, "x"), -1);
    EXPECT_EQ(chain.head, nullptr);
}

TEST(Bufchain, FreeEmptiesForReuse)
{
    Bufchain chain;
    ASSERT_EQ(quelvane_bufchain_add(&chain, std::string(5000, 'z').data(), 5000), 0);
    EXPECT_EQ(quelvane_bufchain_free(&chain), 0);
    EXPECT_EQ(chain.head, nullptr);
    EXPECT_EQ(chain.tail, nullptr);
    EXPECT_EQ(length_of(chain), 0u);
    ASSERT_EQ(quelvane_bufchain_add(&chain, "again", 5), 0);
    EXPECT_EQ(text_of(chain), "again");
}

TEST(Bufchain, ReadFdTakesWhatIsReady)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    Bufchain chain;
    // A full 1024-byte read is followed by another in the same call.
    std::string first = log_text(1500);
    ASSERT_EQ(write(fds[1], first.data(), first.size()), 1500);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);
    EXPECT_EQ(text_of(chain), first);
    // Exactly 1024 and the writer still open: the second read finds nothing
    // yet (EAGAIN), which is not a failure.
    ASSERT_EQ(write(fds[1], first.data(), 1024), 1024);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);
    EXPECT_EQ(length_of(chain), 2524u);
    // End of file.
    close(fds[1]);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), 0);
    EXPECT_EQ(length_of(chain), 2524u);
    close(fds[0]);
    // A read error other than EAGAIN.
    int directory = open("/tmp", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, directory), -1);
    EXPECT_EQ(errno, EISDIR);
    close(directory);
}

TEST(Bufchain, ReadFdStopsAtTheCap)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    Bufchain chain;
    std::string filler(BUFCHAIN_MAX_LENGTH - 100, 'f');
    ASSERT_EQ(quelvane_bufchain_add(&chain, filler.data(), static_cast<int>(filler.size())), 0);
    ASSERT_EQ(write(fds[1], filler.data(), 200), 200);
    bufchain_error = 0;
    EXPECT_EQ(quelvane_bufchain_read_fd(&chain, fds[0]), -1);
    EXPECT_EQ(bufchain_error, 28);
    EXPECT_EQ(length_of(chain), filler.size());
    close(fds[0]);
    close(fds[1]);
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
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s", ""), 0);
    EXPECT_EQ(text_of(chain),
              "QUELVANE MSG: Child exited with 2: No such file or directory\n" + long_text + "|42");
    // At the cap the append fails and nothing is added.
    std::string filler(BUFCHAIN_MAX_LENGTH - length_of(chain) - 2, 'f');
    ASSERT_EQ(quelvane_bufchain_add(&chain, filler.data(), static_cast<int>(filler.size())), 0);
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s", "abc"), -1);
    EXPECT_EQ(quelvane_vbprintf(&chain, "%s", "ab"), 2);
    EXPECT_EQ(length_of(chain), 262144u);
}

TEST(Bufchain, WritesIntoAMember)
{
    for (size_t size : {size_t{1}, size_t{1024}, size_t{2500}, size_t{BUFCHAIN_MAX_LENGTH}}) {
        SCOPED_TRACE(size);
        Bufchain chain;
        std::string text = log_text(size);
        ASSERT_EQ(quelvane_bufchain_add(&chain, text.data(), static_cast<int>(size)), 0);
        SinkFile out;
        ZipMember member;
        member.kind = MEMBER_GENERATED;
        uint32_t total = 0;
        ASSERT_EQ(zip_deflate_start(), 0);
        EXPECT_EQ(quelvane_bufchain_write(&chain, &member, out.fd(), &total, Z_FINISH), 0);
        EXPECT_EQ(inflate_raw(out.contents()), text);
        EXPECT_EQ(member.uncompressed_size, size);
        EXPECT_EQ(member.crc32, crc_of(text));
        EXPECT_EQ(member.compressed_size, total);
    }
    Bufchain empty;
    ZipMember member;
    uint32_t total = 0;
    SinkFile out;
    EXPECT_EQ(quelvane_bufchain_write(&empty, &member, out.fd(), &total, Z_FINISH), 0);
    EXPECT_EQ(total, 0u);
    EXPECT_EQ(quelvane_bufchain_write(nullptr, &member, out.fd(), &total, Z_FINISH), -1);
    EXPECT_EQ(quelvane_bufchain_write(&empty, &member, -1, &total, Z_FINISH), -1);
    EXPECT_EQ(quelvane_bufchain_write(&empty, &member, out.fd(), nullptr, Z_FINISH), -1);
    ASSERT_EQ(quelvane_bufchain_add(&empty, "x", 1), 0);
    EXPECT_EQ(quelvane_bufchain_write(&empty, nullptr, out.fd(), &total, Z_FINISH), -1);
}

}  // namespace
