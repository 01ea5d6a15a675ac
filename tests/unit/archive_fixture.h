// Helpers for the archive-output unit tests: a file to write through the
// sink, raw inflate to read member data back, sample data, forked children.
#ifndef QUELVANE_ARCHIVE_FIXTURE_H
#define QUELVANE_ARCHIVE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include "quelvane_datagen.h"
#include "quelvane_util.h"
#include "quelvane_zip.h"

// An anonymous file the sink writes to; contents() reads it all back.
class SinkFile {
public:
    SinkFile() : file_(tmpfile()) {}
    ~SinkFile() { fclose(file_); }
    SinkFile(const SinkFile &) = delete;
    SinkFile &operator=(const SinkFile &) = delete;
    int fd() const { return fileno(file_); }
    std::string contents() const
    {
        std::string data(static_cast<size_t>(lseek(fd(), 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(fd(), &data[0], data.size(), 0), static_cast<ssize_t>(data.size()));
        return data;
    }

private:
    FILE *file_;
};

// Inflates a raw deflate stream; "<bad>" unless it is exactly one whole stream.
inline std::string inflate_raw(const std::string &compressed)
{
    z_stream in{};
    std::string out;
    char buffer[65536];
    inflateInit2(&in, -15);
    in.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(compressed.data()));
    in.avail_in = static_cast<uInt>(compressed.size());
    int result;
    do {
        in.next_out = reinterpret_cast<Bytef *>(buffer);
        in.avail_out = sizeof buffer;
        result = inflate(&in, Z_NO_FLUSH);
        out.append(buffer, sizeof buffer - in.avail_out);
    } while (result == Z_OK);
    bool whole = result == Z_STREAM_END && in.avail_in == 0;
    inflateEnd(&in);
    return whole ? out : "<bad>";
}

inline uint32_t crc_of(const std::string &data)
{
    return static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef *>(data.data()), static_cast<uInt>(data.size())));
}

// Text that compresses like a log: repeated structure, varying numbers.
inline std::string log_text(size_t size)
{
    std::string text;
    char line[128];
    for (unsigned i = 0; text.size() < size; ++i) {
        snprintf(line, sizeof line, "Nov 21 19:%02u:%02u ctl%u kernel: eth%u link %s, rx %u\n",
                 i / 60 % 60, i % 60, i % 4, i % 3, i % 7 ? "up" : "down", i * 7919u);
        text += line;
    }
    text.resize(size);
    return text;
}

// Bytes that do not compress.
inline std::string noise(size_t size)
{
    std::mt19937 generator(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(generator());
    return bytes;
}

// Restarts the process-wide stream at the level the -C flag asks for.
inline void restart_deflate(int level_zero)
{
    zip_deflate_end();
    no_compression = level_zero;
    ASSERT_EQ(zip_deflate_start(), 0);
}

// Runs body in a forked child and returns its result (-1 if it died): the
// sink's cipher starts once per process, so each encrypted archive needs one.
inline int in_child(const std::function<int()> &body)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int result = body();
        fflush(nullptr);
        _exit(result);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

#endif
