// Archive output benchmark: member data through the writer against a bare
// zlib loop on the same bytes, and peak memory for a small and a huge member.
//
// Criteria, each printed with PASS or FAIL (exit status 1 on any FAIL):
//   throughput  the writer reaches at least 95% of bare deflate + crc32 at
//               the same level, from memory and from a file;
//   memory      peak resident size is the same for a 10 MB and a 1 GB member.
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>
#include <zlib.h>

#include "file_collector.h"
#include "testsupport.h"
#include "zip_writer.h"

namespace {

constexpr size_t MEMORY_BYTES = size_t{200} << 20;
constexpr size_t FILE_BYTES = size_t{200} << 20;
constexpr uint64_t SMALL_MEMBER = uint64_t{10} << 20;
constexpr uint64_t HUGE_MEMBER = uint64_t{1} << 30;
constexpr size_t PIECE = 32768;      // what the file reader hands the deflater
constexpr double MIN_RATIO = 0.95;
constexpr long RSS_SLACK_KB = 1024;
constexpr int ROUNDS = 3;
constexpr int STORED_ROUNDS = 15;  // level 0 takes a tenth of a second a round

// Endless log-like text, produced a buffer at a time.
class LogSource {
public:
    void fill(char *out, size_t size)
    {
        while (size > 0) {
            if (at_ == line_.size())
                next_line();
            size_t count = std::min(size, line_.size() - at_);
            memcpy(out, line_.data() + at_, count);
            out += count;
            size -= count;
            at_ += count;
        }
    }

private:
    void next_line()
    {
        static const char *const words[] = {"link up", "link down", "rx timeout", "tx queue full",
                                            "temperature 61C", "fan 3 at 4200 rpm"};
        char text[160];
        unsigned i = line_number_++;
        int length = snprintf(text, sizeof text,
                              "Nov 21 %02u:%02u:%02u ctl%u kernel: [%u.%06u] eth%u: %s (seq %u)\n",
                              i / 3600 % 24, i / 60 % 60, i % 60, i % 4, i / 7, i * 7919u % 1000000,
                              i % 3, words[i * 2654435761u % 6], i * 40503u);
        line_.assign(text, static_cast<size_t>(length));
        at_ = 0;
    }
    unsigned line_number_ = 0;
    std::string line_;
    size_t at_ = 0;
};

double clock_seconds(clockid_t clock)
{
    timespec t;
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double wall_now() { return clock_seconds(CLOCK_MONOTONIC); }

// Throughput is timed in this process's CPU time (user and system, the
// writes included): the machine is shared, and time slices given to other
// work would otherwise land on one side of a comparison at random.
double seconds_now() { return clock_seconds(CLOCK_PROCESS_CPUTIME_ID); }

struct Run {
    double seconds = 0;
    uint32_t crc = 0;
    uint64_t compressed = 0;
};

// The tool's writer on /dev/null at a level, as a run sets it up.
struct Writer {
    explicit Writer(int level) : out(open("/dev/null", O_WRONLY)), zip(sink, scrub, Compression{Engine::zlib, level}, false)
    {
        sink.attach(out, true);
        if (zip.stream().start_stream() != Z_OK) {
            fprintf(stderr, "cannot start the deflate stream\n");
            exit(2);
        }
    }
    int out;
    Sink sink;
    Scrubber scrub;
    ZipWriter zip;
};

// The writer's own path: local header, chunks, data descriptor.
Run writer_from_memory(const std::string &data, Writer &writer)
{
    ZipMember member;
    member.name = "bench/memory.log";
    double start = seconds_now();
    writer.zip.begin_member(member);
    for (size_t at = 0; at < data.size(); at += PIECE) {
        size_t count = std::min(PIECE, data.size() - at);
        int flush = at + count == data.size() ? Z_FINISH : Z_NO_FLUSH;
        if (writer.zip.stream().chunk(member, data.data() + at, static_cast<unsigned>(count), flush) < 0)
            exit(2);
    }
    writer.zip.finish_member(member);
    return {seconds_now() - start, member.crc32, member.compressed_size};
}

Run writer_from_file(const std::string &path, Writer &writer)
{
    struct stat status;
    stat(path.c_str(), &status);
    ZipMember member;
    member.name = "bench/file.log";
    member.kind = MEMBER_FILE;
    member_from_stat(&member, status.st_size, status.st_mtime);
    int error = 0;
    double start = seconds_now();
    const int fd = open_regular_file(path);
    if (fd == -1)
        exit(2);
    writer.zip.begin_member(member);
    if (writer.zip.stream().from_file(member, fd, &error) != 0)
        exit(2);
    writer.zip.finish_member(member);
    close(fd);
    return {seconds_now() - start, member.crc32, member.compressed_size};
}

// The reference: zlib alone, same parameters, same pieces, same output.
class BareDeflate {
public:
    BareDeflate(int level, int out_fd) : out_fd_(out_fd)
    {
        if (deflateInit2(&stream_, level, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK)
            exit(2);
        stream_.next_out = output_;
        stream_.avail_out = sizeof output_;
    }
    ~BareDeflate() { deflateEnd(&stream_); }
    void piece(const char *data, size_t count, bool last)
    {
        crc_ = static_cast<uint32_t>(crc32(crc_, reinterpret_cast<const Bytef *>(data),
                                           static_cast<uInt>(count)));
        stream_.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data));
        stream_.avail_in = static_cast<uInt>(count);
        int result;
        do {
            result = deflate(&stream_, last ? Z_FINISH : Z_NO_FLUSH);
            if (stream_.avail_out == 0 || result == Z_STREAM_END) {
                if (write(out_fd_, output_, sizeof output_ - stream_.avail_out) < 0)
                    exit(2);
                stream_.next_out = output_;
                stream_.avail_out = sizeof output_;
            }
        } while (stream_.avail_in != 0 || (last && result != Z_STREAM_END));
    }
    Run done(double start) const { return {seconds_now() - start, crc_, stream_.total_out}; }

private:
    z_stream stream_{};
    int out_fd_;
    uint32_t crc_ = 0;
    unsigned char output_[32768];
};

int level_of(int level_zero) { return level_zero ? 0 : Z_DEFAULT_COMPRESSION; }

Run bare_from_memory(const std::string &data, int level_zero, int out_fd)
{
    double start = seconds_now();
    BareDeflate bare(level_of(level_zero), out_fd);
    for (size_t at = 0; at < data.size(); at += PIECE) {
        size_t count = std::min(PIECE, data.size() - at);
        bare.piece(data.data() + at, count, at + count == data.size());
    }
    return bare.done(start);
}

Run bare_from_file(const std::string &path, int level_zero, int out_fd)
{
    static char buffer[PIECE];
    double start = seconds_now();
    BareDeflate bare(level_of(level_zero), out_fd);
    // Up to the size stat gave, the last piece finishing the stream, as the
    // writer reads a collected file.
    FILE *file = fopen(path.c_str(), "r");
    struct stat status;
    fstat(fileno(file), &status);
    for (off_t left = status.st_size; left > 0;) {
        size_t count = fread(buffer, 1, std::min<size_t>(sizeof buffer, static_cast<size_t>(left)), file);
        left -= static_cast<off_t>(count);
        bare.piece(buffer, count, left == 0 || count == 0);
        if (count == 0)
            break;
    }
    fclose(file);
    return bare.done(start);
}

int failures = 0;

void verdict(bool pass, const char *what)
{
    printf("  %-4s %s\n", pass ? "PASS" : "FAIL", what);
    if (!pass)
        ++failures;
}

// Best of a few interleaved rounds, so that load from elsewhere on the
// machine falls on both sides alike.
template <typename Ours, typename Bare>
void compare_rounds(const char *label, size_t bytes, int rounds, Ours ours, Bare bare)
{
    Run best_ours, best_bare;
    best_ours.seconds = best_bare.seconds = 1e9;
    for (int round = 0; round < rounds; ++round) {
        Run o = ours(), b = bare();
        if (o.crc != b.crc || o.compressed != b.compressed) {
            printf("  FAIL %s: output differs from zlib's (crc %08x/%08x, size %llu/%llu)\n", label,
                   o.crc, b.crc, static_cast<unsigned long long>(o.compressed),
                   static_cast<unsigned long long>(b.compressed));
            ++failures;
            return;
        }
        if (o.seconds < best_ours.seconds)
            best_ours = o;
        if (b.seconds < best_bare.seconds)
            best_bare = b;
    }
    double mb = static_cast<double>(bytes) / 1e6;
    double ratio = best_bare.seconds / best_ours.seconds;
    printf("%-30s writer %8.1f MB/s   bare zlib %8.1f MB/s   ratio %5.1f%%   (%.0f MB -> %.1f MB, CPU time)\n",
           label, mb / best_ours.seconds, mb / best_bare.seconds, ratio * 100, mb,
           static_cast<double>(best_ours.compressed) / 1e6);
    char what[128];
    snprintf(what, sizeof what, "%s: writer at >= %.0f%% of bare zlib", label, MIN_RATIO * 100);
    verdict(ratio >= MIN_RATIO, what);
}

// Peak resident size of a fresh child that streams a member of the given
// size from a pipe (as command output arrives) to /dev/null.
long member_peak_rss_kb(uint64_t size)
{
    int result_pipe[2];
    if (pipe(result_pipe) != 0)
        return -1;
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        close(result_pipe[0]);
        int data[2];
        if (pipe(data) != 0)
            _exit(2);
        pid_t writer = fork();
        if (writer == 0) {
            close(data[0]);
            LogSource source;
            static char buffer[65536];
            for (uint64_t left = size; left > 0;) {
                size_t count = static_cast<size_t>(std::min<uint64_t>(left, sizeof buffer));
                source.fill(buffer, count);
                if (write(data[1], buffer, count) != static_cast<ssize_t>(count))
                    _exit(2);
                left -= count;
            }
            _exit(0);
        }
        close(data[1]);
        Writer output(Z_DEFAULT_COMPRESSION);
        ZipMember member;
        member.name = "bench/stream.out";
        if (output.zip.begin_member(member) != 0)
            _exit(2);
        for (;;) {
            pollfd slot{data[0], POLLIN, 0};
            if (poll(&slot, 1, -1) < 0 && errno != EINTR)
                _exit(2);
            bool ended = (slot.revents & (POLLIN | POLLHUP)) == POLLHUP;
            if (output.zip.stream().from_fd(member, data[0], ended ? Z_FINISH : Z_NO_FLUSH) != 0)
                _exit(2);
            if (ended)
                break;
        }
        if (output.zip.finish_member(member) != 0 || member.uncompressed_size != (size & 0xffffffffu))
            _exit(3);
        waitpid(writer, nullptr, 0);
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        long peak = usage.ru_maxrss;
        if (write(result_pipe[1], &peak, sizeof peak) != sizeof peak)
            _exit(2);
        _exit(0);
    }
    close(result_pipe[1]);
    long peak = -1;
    if (read(result_pipe[0], &peak, sizeof peak) != sizeof peak)
        peak = -1;
    close(result_pipe[0]);
    int status;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? peak : -1;
}

}  // namespace

int main()
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("archive output benchmark\n");

    // Memory first, while this process is still small: the children it
    // forks start from its pages.
    double start = wall_now();
    long small = member_peak_rss_kb(SMALL_MEMBER);
    long huge = member_peak_rss_kb(HUGE_MEMBER);
    printf("%-30s 10 MB member %6ld KB   1 GB member %6ld KB   (%.1f s)\n", "peak memory (maxrss)", small,
           huge, wall_now() - start);
    verdict(small > 0 && huge > 0 && std::abs(huge - small) <= RSS_SLACK_KB,
            "peak memory: 1 GB member within 1 MB of a 10 MB member");

    int out = open("/dev/null", O_WRONLY);
    std::string data(MEMORY_BYTES, '\0');
    LogSource source;
    source.fill(&data[0], data.size());

    qt::TempDir dir;
    std::string path = dir.file("bench.log");
    {
        FILE *file = fopen(path.c_str(), "w");
        LogSource file_source;
        static char buffer[1 << 20];
        for (size_t left = FILE_BYTES; left > 0;) {
            size_t count = std::min(left, sizeof buffer);
            file_source.fill(buffer, count);
            fwrite(buffer, 1, count, file);
            left -= count;
        }
        fclose(file);
    }

    for (int level_zero : {0, 1}) {
        Writer writer(level_of(level_zero));
        std::string memory_label = std::string("memory, ") + (level_zero ? "level 0 (-C)" : "default level");
        std::string file_label = std::string("file, ") + (level_zero ? "level 0 (-C)" : "default level");
        int rounds = level_zero ? STORED_ROUNDS : ROUNDS;
        compare_rounds(memory_label.c_str(), data.size(), rounds, [&] { return writer_from_memory(data, writer); },
                [&] { return bare_from_memory(data, level_zero, out); });
        compare_rounds(file_label.c_str(), FILE_BYTES, rounds, [&] { return writer_from_file(path, writer); },
                [&] { return bare_from_file(path, level_zero, out); });
    }
    close(out);
    printf("archive output benchmark: %s (%.0f s)\n", failures ? "FAIL" : "PASS", wall_now() - start);
    return failures ? 1 : 0;
}
