// Output sink: plain write-through and its failures, and the encrypted
// stream that openssl reads back. The cipher starts once per process, so
// every encrypted case runs in a forked child and the parent checks its file.
#include <fcntl.h>
#include <sys/stat.h>

#include "archive_fixture.h"
#include "testsupport.h"

namespace {

const char PASSWORD[] = "correct horse";

off_t size_of(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 ? status.st_size : -1;
}

// In a child: starts the cipher on path, runs body, finishes; returns
// nonzero on the first step that went wrong.
int write_encrypted(const std::string &path, const std::function<int(int)> &body)
{
    return in_child([&] {
        encrypt_output = 1;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (sink_encrypt_start(PASSWORD, fd) != 0)
            return 1;
        if (size_of(fd) != 16)
            return 2;
        int result = body(fd);
        if (result != 0)
            return result;
        return sink_encrypt_finish(fd) == 0 ? 0 : 3;
    });
}

struct Decrypted {
    std::string sealed;
    std::string plain;
};

Decrypted decrypt(const qt::TempDir &dir, const std::string &path)
{
    std::string out = dir.file("opened");
    std::string error = qt::openssl_decrypt(path, PASSWORD, out);
    EXPECT_EQ(error, "");
    return {qt::read_file(path), error.empty() ? qt::read_file(out) : "<not decrypted>"};
}

TEST(SinkEncrypted, RoundTripsThroughOpenssl)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed");
    struct Case {
        const char *label;
        std::vector<std::string> writes;
    } cases[] = {
        {"empty body: header, salt and one padding block", {}},
        {"one block exactly", {std::string(16, 'a')}},
        {"byte by byte", {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o", "p", "q"}},
        {"pieces across the 1024-byte cipher step", {log_text(1023), log_text(5000), "x", log_text(2048)}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.label);
        std::string whole;
        for (const std::string &w : c.writes)
            whole += w;
        ASSERT_EQ(write_encrypted(path,
                                  [&](int fd) {
                                      for (const std::string &w : c.writes)
                                          if (sink_write(w.data(), w.size(), fd) != 0)
                                              return 10;
                                      return 0;
                                  }),
                  0);
        Decrypted d = decrypt(dir, path);
        EXPECT_EQ(d.sealed.substr(0, 8), "Salted__");
        EXPECT_EQ(d.sealed.size(), 16 + (whole.size() / 16 + 1) * 16);
        EXPECT_TRUE(d.plain == whole);
    }
}

TEST(SinkEncrypted, SingleBytesWaitForAWholeBlock)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed");
    ASSERT_EQ(write_encrypted(path,
                              [](int fd) {
                                  for (int i = 0; i < 15; ++i)
                                      if (sink_write("z", 1, fd) != 0 || size_of(fd) != 16)
                                          return 10 + i;
                                  if (sink_write("z", 1, fd) != 0 || size_of(fd) != 32)
                                      return 30;
                                  return 0;
                              }),
              0);
    EXPECT_EQ(decrypt(dir, path).plain, std::string(16, 'z'));
}

TEST(SinkEncrypted, StartsOnceAndFinishesOnce)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed");
    ASSERT_EQ(in_child([&] {
                  encrypt_output = 1;
                  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                  if (sink_encrypt_finish(fd) != -1)  // never started
                      return 1;
                  if (sink_encrypt_start(nullptr, fd) != -1)
                      return 2;
                  // A failed header write leaves the cipher inactive...
                  int read_only = open(path.c_str(), O_RDONLY);
                  if (sink_encrypt_start(PASSWORD, read_only) != -1 || sink_write("a", 1, fd) != -1)
                      return 3;
                  // ...so a later start still works; a second one is a no-op.
                  if (sink_encrypt_start(PASSWORD, fd) != 0 || sink_encrypt_start("other", fd) != 0)
                      return 4;
                  if (size_of(fd) != 16 || sink_write("hello", 5, fd) != 0)
                      return 5;
                  if (sink_encrypt_finish(-1) != -1)  // no output to finish to
                      return 6;
                  return 0;
              }),
              0);
    // The failed finish consumed the final block, and it was never written.
    EXPECT_EQ(qt::read_file(path).size(), 16u);
    ASSERT_EQ(in_child([&] {
                  encrypt_output = 1;
                  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                  if (sink_encrypt_start(PASSWORD, fd) != 0 || sink_write("hello", 5, fd) != 0 ||
                      sink_encrypt_finish(fd) != 0)
                      return 1;
                  return sink_encrypt_finish(fd) == -1 && sink_write("x", 1, fd) == -1 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(decrypt(dir, path).plain, "hello");
}

TEST(SinkPlain, WritesThroughAndReportsFailures)
{
    SinkFile out;
    std::string data = log_text(100000);
    EXPECT_EQ(sink_write(data.data(), data.size(), out.fd()), 0);
    EXPECT_EQ(sink_write("", 0, out.fd()), 0);
    EXPECT_EQ(out.contents(), data);
    EXPECT_EQ(sink_write(nullptr, 1, out.fd()), -1);
    EXPECT_EQ(sink_write("a", 1, -1), -1);

    int read_only = open("/dev/null", O_RDONLY);
    testing::internal::CaptureStderr();
    EXPECT_EQ(sink_write("a", 1, read_only), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error writing data file: Bad file descriptor\n");
    close(read_only);

    // Encryption asked for but never started: refused silently, nothing written.
    encrypt_output = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(sink_write("secret", 6, out.fd()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    encrypt_output = 0;
    EXPECT_EQ(out.contents(), data);
}

}  // namespace
