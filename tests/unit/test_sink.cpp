// Output sink: the encrypted stream that openssl reads back, and the plain
// write-through with its failures. The cipher starts once per process, so
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

// In a child: starts the cipher on path (16 header bytes), runs body,
// finishes; the result names the first step that went wrong.
int write_encrypted(const std::string &path, const std::function<int(int)> &body)
{
    return in_child([&] {
        encrypt_output = 1;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (sink_encrypt_start(PASSWORD, fd) != 0 || size_of(fd) != 16)
            return 1;
        if (int result = body(fd))
            return result;
        return sink_encrypt_finish(fd) == 0 && sink_encrypt_finish(fd) == -1 ? 0 : 2;
    });
}

std::string decrypt(const qt::TempDir &dir, const std::string &path)
{
    std::string opened = dir.file("opened");
    std::string error = qt::openssl_decrypt(path, PASSWORD, opened);
    return error.empty() ? qt::read_file(opened) : error;
}

TEST(SinkEncrypted, RoundTripsThroughOpenssl)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed");
    const std::vector<std::vector<std::string>> cases = {
        {},  // empty body: header, salt and one padding block, 32 bytes
        {std::string(16, 'a')},
        {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l", "m", "n", "o", "p", "q"},
        {log_text(1023), log_text(5000), "x", log_text(2048)},  // across the 1024-byte step
    };
    for (const auto &writes : cases) {
        std::string whole;
        for (const std::string &w : writes)
            whole += w;
        SCOPED_TRACE(whole.size());
        ASSERT_EQ(write_encrypted(path,
                                  [&](int fd) {
                                      for (const std::string &w : writes)
                                          if (sink_write(w.data(), w.size(), fd) != 0)
                                              return 10;
                                      return 0;
                                  }),
                  0);
        std::string sealed = qt::read_file(path);
        EXPECT_EQ(sealed.substr(0, 8), "Salted__");
        EXPECT_EQ(sealed.size(), 16 + (whole.size() / 16 + 1) * 16);
        EXPECT_TRUE(decrypt(dir, path) == whole);
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
                                  return sink_write("z", 1, fd) == 0 && size_of(fd) == 32 ? 0 : 30;
                              }),
              0);
    EXPECT_EQ(decrypt(dir, path), std::string(16, 'z'));
}

TEST(SinkEncrypted, FailedHeaderLeavesItInactive)
{
    qt::TempDir dir;
    std::string path = dir.file("sealed");
    ASSERT_TRUE(qt::write_file(path, ""));
    ASSERT_EQ(in_child([&] {
                  encrypt_output = 1;
                  int read_only = open(path.c_str(), O_RDONLY);
                  if (sink_encrypt_start(PASSWORD, read_only) != -1 || sink_write("a", 1, read_only) != -1)
                      return 1;
                  int fd = open(path.c_str(), O_WRONLY);
                  // A later start works; a second one is a no-op that keeps the key.
                  if (sink_encrypt_start(PASSWORD, fd) != 0 || sink_encrypt_start("other", fd) != 0)
                      return 2;
                  return sink_write("hello", 5, fd) == 0 && sink_encrypt_finish(fd) == 0 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(decrypt(dir, path), "hello");
}

TEST(SinkPlain, WritesThroughAndReportsFailures)
{
    SinkFile out;
    std::string data = log_text(100000);
    EXPECT_EQ(sink_write(data.data(), data.size(), out.fd()), 0);
    EXPECT_EQ(out.contents(), data);

    int read_only = open("/dev/null", O_RDONLY);
    testing::internal::CaptureStderr();
    EXPECT_EQ(sink_write("a", 1, read_only), -1);
    // Encryption asked for but never started: refused silently.
    encrypt_output = 1;
    EXPECT_EQ(sink_write("secret", 6, out.fd()), -1);
    encrypt_output = 0;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error writing data file: Bad file descriptor\n");
    EXPECT_EQ(out.contents(), data);
    close(read_only);
}

}  // namespace
