#include "testsupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace qt {

std::string quelvane_binary() { return QUELVANE_BINARY; }

#ifdef QUELVANE_EMULATOR
bool emulated() { return true; }
#else
bool emulated() { return false; }
#endif

TempDir::TempDir()
{
    char pattern[] = "/tmp/quelvane-test-XXXXXX";
    const char *made = mkdtemp(pattern);
    if (made == nullptr) {
        perror("mkdtemp");
        abort();
    }
    path_ = made;
}

TempDir::~TempDir()
{
    // Tests may leave read-only files or directories behind.
    std::string command = "chmod -R u+rwx '" + path_ + "' 2>/dev/null; rm -rf '" + path_ + "'";
    if (system(command.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

namespace {

bool write_all(int fd, const std::string &data)
{
    for (size_t done = 0; done < data.size();) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// An anonymous in-memory file holding data, positioned at its start.
int memory_file(const std::string &data)
{
    int fd = memfd_create("run", 0);
    if (fd < 0 || !write_all(fd, data)) {
        perror("memfd");
        abort();
    }
    lseek(fd, 0, SEEK_SET);
    return fd;
}

}  // namespace

bool write_file(const std::string &path, const std::string &content, unsigned mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0)
        return false;
    bool written = write_all(fd, content);
    return close(fd) == 0 && written && chmod(path.c_str(), mode) == 0;
}

std::string script(const TempDir &dir, const std::string &name, const std::string &body)
{
    write_file(dir.file(name), "#!/bin/sh\n" + body, 0755);
    return dir.file(name);
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string flat(std::string path)
{
    std::replace(path.begin(), path.end(), '/', '@');
    return path;
}

bool make_certificate(const TempDir &dir)
{
    return run_program("/usr/bin/openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=support",
                                            "-keyout", dir.file("support.key"), "-out", dir.file("support.pem")})
               .status == 0;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string capture_stderr(const std::function<void()> &call)
{
    fflush(stderr);
    const int saved = dup(2), fd = memory_file("");
    dup2(fd, 2);
    call();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    std::string text = read_file("/proc/self/fd/" + std::to_string(fd));
    close(fd);
    return text;
}

long resident_peak_kb(pid_t pid, const std::string &program)
{
    // Until it has called exec, the child is a copy of us: its peak is ours.
    const std::string name = program.substr(program.rfind('/') + 1).substr(0, 15);
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("VmHWM:");
    if (status.compare(0, 6 + name.size() + 1, "Name:\t" + name + "\n") != 0 || at == std::string::npos)
        return 0;
    return atol(status.c_str() + at + 6);
}

RunResult run(const RunSpec &job)
{
    std::string program = job.program.empty() ? quelvane_binary() : job.program;
    std::vector<std::string> argv_text;
#ifdef QUELVANE_EMULATOR
    // The tool of a cross build runs under its emulator, which hands it the
    // argv[0] it would have had (-0), so that its program name is the same.
    if (program == quelvane_binary()) {
        std::istringstream words(QUELVANE_EMULATOR);
        for (std::string word; words >> word;)
            argv_text.push_back(word);
        argv_text.insert(argv_text.end(), {"-0", job.argv0.empty() ? program : job.argv0, program});
        program = argv_text[0].find('/') == std::string::npos ? "/usr/bin/" + argv_text[0] : argv_text[0];
    }
#endif
    if (argv_text.empty())
        argv_text.push_back(job.argv0.empty() ? program : job.argv0);
    argv_text.insert(argv_text.end(), job.args.begin(), job.args.end());

    // The first definition of a name wins, so the test's own come first;
    // sanitizer settings reach the child so that its reports are not lost.
    std::vector<std::string> env_text = job.env;
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char *value = getenv(name))
            env_text.push_back(std::string(name) + "=" + value);
    env_text.push_back("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    env_text.push_back("LC_ALL=C");

    std::vector<char *> argv;
    for (std::string &a : argv_text)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<char *> envp;
    for (std::string &e : env_text)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    // Standard input, output, error and the extra descriptors, as the
    // child will see them.
    std::vector<std::pair<int, int>> plan = {
        {memory_file(job.stdin_data), 0}, {memory_file(""), 1}, {memory_file(""), 2}};
    for (const auto &fd_data : job.fds)
        plan.push_back({memory_file(fd_data.second), fd_data.first});

    auto started = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        abort();
    }
    if (pid == 0) {
        // Every source moves above the targets first, so no dup2 clobbers
        // one; then only the targets stay open.
        for (auto &step : plan)
            step.first = fcntl(step.first, F_DUPFD, 900);
        std::set<int> targets;
        for (const auto &step : plan) {
            dup2(step.first, step.second);
            targets.insert(step.second);
        }
        for (int fd = 3; fd < 1024; fd++)
            if (targets.count(fd) == 0)
                close(fd);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int s = 1; s < NSIG; s++)
            signal(s, SIG_DFL);
        if (!job.cwd.empty() && chdir(job.cwd.c_str()) != 0)
            _exit(126);
        if (job.in_child)
            job.in_child();
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }

    for (size_t i = 0; i < plan.size(); i++)
        if (plan[i].second != 1 && plan[i].second != 2)
            close(plan[i].first);
    if (job.during)
        job.during(pid);

    RunResult result;
    int status = 0;
    struct rusage usage;
    long peak_kb = 0;
    auto deadline = started + std::chrono::seconds(job.timeout_seconds);
    for (;;) {
        peak_kb = std::max(peak_kb, resident_peak_kb(pid, program));
        pid_t done = wait4(pid, &status, WNOHANG, &usage);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR) {
            perror("wait4");
            abort();
        }
        if (std::chrono::steady_clock::now() > deadline && !result.timed_out) {
            result.timed_out = true;
            kill(pid, SIGKILL);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // The rusage peak counts the harness's own pages, which the child held
    // between fork and exec; the peak seen while it ran is the program's.
    result.maxrss_kb = peak_kb > 0 ? peak_kb : usage.ru_maxrss;
    if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    result.out = read_file("/proc/self/fd/" + std::to_string(plan[1].first));
    result.err = read_file("/proc/self/fd/" + std::to_string(plan[2].first));
    close(plan[1].first);
    close(plan[2].first);
    return result;
}

RunResult run_quelvane(const TempDir &dir, const std::vector<std::string> &args, RunSpec job)
{
    mkdir(dir.file("home").c_str(), 0755);
    job.args.insert(job.args.begin(), args.begin(), args.end());
    job.env.push_back("QUELVANE_HOME=" + dir.file("home"));
    if (job.cwd.empty())
        job.cwd = dir.path();
    return run(job);
}

const std::string RUN_MARK = "QUELVANE_TEST_RUN=";

std::string left_running(const std::string &mark)
{
    std::string found;
    const std::string wanted = RUN_MARK + mark + '\0';
    DIR *proc = opendir("/proc");
    while (const dirent *entry = proc != nullptr ? readdir(proc) : nullptr) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        if (read_file(std::string("/proc/") + entry->d_name + "/environ").find(wanted) != std::string::npos) {
            found += std::string(entry->d_name) + " ";
            kill(atoi(entry->d_name), SIGKILL);
        }
    }
    if (proc != nullptr)
        closedir(proc);
    return found;
}

int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        abort();
    close(fd);
    return ntohs(address.sin_port);
}

RunResult run_program(const std::string &program, const std::vector<std::string> &args,
                      const std::string &stdin_data)
{
    RunSpec job;
    job.program = program;
    job.args = args;
    job.stdin_data = stdin_data;
    job.timeout_seconds = 120;
    return run(job);
}

// ---------------------------------------------------------------------------
// Our own reader
// ---------------------------------------------------------------------------

std::vector<std::string> ZipArchive::names() const
{
    std::vector<std::string> names;
    for (const ZipEntry &e : entries)
        names.push_back(e.name);
    return names;
}

const ZipEntry *ZipArchive::find(const std::string &name) const
{
    for (const ZipEntry &e : entries)
        if (e.name == name)
            return &e;
    return nullptr;
}

namespace {

struct Cursor {
    const std::string &bytes;
    size_t pos;
    bool ok = true;

    bool has(size_t n) const { return pos + n <= bytes.size(); }
    uint64_t get(int width)
    {
        if (!has(static_cast<size_t>(width))) {
            ok = false;
            return 0;
        }
        uint64_t value = 0;
        for (int i = width - 1; i >= 0; i--)
            value = value << 8 | static_cast<unsigned char>(bytes[pos + static_cast<size_t>(i)]);
        pos += static_cast<size_t>(width);
        return value;
    }
    uint32_t peek4() const
    {
        Cursor copy = *this;
        return static_cast<uint32_t>(copy.get(4));
    }
    uint32_t get32(int width) { return static_cast<uint32_t>(get(width)); }
    std::string take(size_t n)
    {
        if (!has(n)) {
            ok = false;
            return {};
        }
        std::string s = bytes.substr(pos, n);
        pos += n;
        return s;
    }
};

// Inflates the raw deflate stream at bytes[pos]; sets consumed to its length.
bool inflate_raw(const std::string &bytes, size_t pos, std::string *out, size_t *consumed)
{
    z_stream z{};
    if (inflateInit2(&z, -15) != Z_OK)
        return false;
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data() + pos));
    z.avail_in = static_cast<uInt>(bytes.size() - pos);
    char buffer[65536];
    int rc;
    do {
        z.next_out = reinterpret_cast<Bytef *>(buffer);
        z.avail_out = sizeof buffer;
        rc = inflate(&z, Z_NO_FLUSH);
        out->append(buffer, sizeof buffer - z.avail_out);
    } while (rc == Z_OK);
    *consumed = z.total_in;
    inflateEnd(&z);
    return rc == Z_STREAM_END;
}

std::string hex(uint32_t v)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

}  // namespace

ZipArchive read_zip(const std::string &bytes)
{
    ZipArchive archive;
    Cursor c{bytes, 0};
    auto fail = [&](const std::string &why) {
        archive.error = why + " at offset " + std::to_string(c.pos);
        return archive;
    };

    while (c.peek4() == 0x04034b50) {
        ZipEntry e;
        e.offset = c.pos;
        c.get32(4);
        e.version = static_cast<uint16_t>(c.get32(2));
        e.flags = static_cast<uint16_t>(c.get32(2));
        e.method = static_cast<uint16_t>(c.get32(2));
        uint32_t time = c.get32(2);
        uint32_t date = c.get32(2);
        e.dos_datetime = date << 16 | time;
        uint32_t crc = c.get32(4), csize = c.get32(4), usize = c.get32(4);
        uint32_t name_length = c.get32(2), extra_length = c.get32(2);
        e.name = c.take(name_length);
        c.take(extra_length);
        if (!c.ok)
            return fail("truncated local header");
        if (crc != 0 || csize != 0 || usize != 0)
            return fail("local header of " + e.name + " carries CRC or sizes");
        size_t consumed = 0;
        if (!inflate_raw(bytes, c.pos, &e.data, &consumed))
            return fail("bad deflate data in " + e.name);
        c.pos += consumed;
        if (c.get32(4) != 0x08074b50)
            return fail("no data descriptor after " + e.name);
        e.crc = c.get32(4);
        e.compressed_size = c.get32(4);
        e.declared_size = c.get32(4);
        if (!c.ok)
            return fail("truncated data descriptor");
        uint32_t actual = static_cast<uint32_t>(
            crc32(0, reinterpret_cast<const Bytef *>(e.data.data()), static_cast<uInt>(e.data.size())));
        if (e.crc != actual)
            return fail("CRC of " + e.name + " is " + hex(e.crc) + ", data gives " + hex(actual));
        if (e.compressed_size != consumed)
            return fail("compressed size of " + e.name + " is " + std::to_string(e.compressed_size) +
                        ", data has " + std::to_string(consumed));
        archive.entries.push_back(e);
    }
    uint64_t directory_offset = c.pos;
    size_t index = 0;
    while (c.peek4() == 0x02014b50) {
        c.get32(4);
        uint32_t made_by = c.get32(2), version = c.get32(2), flags = c.get32(2), method = c.get32(2);
        uint32_t time = c.get32(2), date = c.get32(2);
        uint32_t crc = c.get32(4), csize = c.get32(4), usize = c.get32(4);
        uint32_t name_length = c.get32(2), extra_length = c.get32(2), comment_length = c.get32(2);
        c.get32(2);  // disk number
        c.get32(2);  // internal attributes
        c.get32(4);  // external attributes
        uint64_t offset = c.get32(4);
        std::string name = c.take(name_length);
        std::string extra = c.take(extra_length);
        c.take(comment_length);
        // A ZIP64 extra field carries the offset that no longer fits; then
        // the record says version 4.5.
        bool zip64 = offset == 0xffffffffu;
        if (zip64) {
            Cursor x{extra, 0};
            if (x.get32(2) != 1 || x.get32(2) != 8 || (offset = x.get(8), !x.ok) || offset < 0xffffffffu)
                return fail("bad ZIP64 extra field for " + name);
        } else if (!extra.empty()) {
            return fail("unexpected extra field for " + name);
        }
        const uint32_t want_version = zip64 ? 45 : 20;
        if (!c.ok)
            return fail("truncated central directory record");
        if (index >= archive.entries.size())
            return fail("central directory lists more members than the stream holds");
        const ZipEntry &e = archive.entries[index++];
        if (name != e.name || offset != e.offset || crc != e.crc || csize != e.compressed_size ||
            usize != e.declared_size || version != want_version || made_by != want_version ||
            e.version != 20 ||
            flags != e.flags || method != e.method || (date << 16 | time) != e.dos_datetime)
            return fail("central directory record of " + name + " disagrees with its local header");
    }
    if (index != archive.entries.size())
        return fail("central directory lists " + std::to_string(index) + " of " +
                    std::to_string(archive.entries.size()) + " members");
    uint64_t directory_size = c.pos - directory_offset;
    // Past 65,534 members or 4 GiB: a ZIP64 end record and its locator,
    // and all-ones in the end record's fields that overflow.
    const bool zip64 = index >= 0xffff || directory_offset >= 0xffffffffu;
    if (zip64) {
        uint64_t zip64_offset = c.pos;
        if (c.get32(4) != 0x06064b50 || c.get(8) != 44 || c.get32(2) != 45 || c.get32(2) != 45 ||
            c.get32(4) != 0 || c.get32(4) != 0 || c.get(8) != index || c.get(8) != index ||
            c.get(8) != directory_size || c.get(8) != directory_offset)
            return fail("bad ZIP64 end record");
        if (c.get32(4) != 0x07064b50 || c.get32(4) != 0 || c.get(8) != zip64_offset || c.get32(4) != 1)
            return fail("bad ZIP64 locator");
    }
    if (c.get32(4) != 0x06054b50)
        return fail("no end record");
    uint32_t disk = c.get32(2), directory_disk = c.get32(2), on_disk = c.get32(2), total = c.get32(2);
    uint32_t size = c.get32(4), offset = c.get32(4), comment = c.get32(2);
    if (!c.ok)
        return fail("truncated end record");
    auto fits = [](uint64_t value, uint32_t all_ones) { return value >= all_ones ? all_ones : static_cast<uint32_t>(value); };
    if (disk != 0 || directory_disk != 0 || on_disk != total || total != fits(index, 0xffff) ||
        size != fits(directory_size, 0xffffffffu) || offset != fits(directory_offset, 0xffffffffu) || comment != 0)
        return fail("end record disagrees with the central directory");
    if (c.pos != bytes.size())
        return fail("bytes after the end record");
    return archive;
}

// ---------------------------------------------------------------------------
// Real clients
// ---------------------------------------------------------------------------

namespace {

const char *PYTHON_CHECK = R"(
import sys, zipfile
bad = []
with zipfile.ZipFile(sys.argv[1]) as z:
    for info in z.infolist():
        try:
            z.read(info.filename)
        except Exception as e:
            bad.append(info.filename)
for name in bad:
    print(name)
)";

std::set<std::string> lines_of(const std::string &text)
{
    const std::vector<std::string> lines = split_lines(text);
    return std::set<std::string>(lines.begin(), lines.end());
}

std::string describe(const std::set<std::string> &names)
{
    std::string text = "{";
    for (const std::string &n : names)
        text += (text.size() > 1 ? ", " : "") + n;
    return text + "}";
}

}  // namespace

std::string check_real_readers(const std::string &zip_path, const std::set<std::string> &flagged)
{
    std::string problems;
    RunResult unzip = run_program("/usr/bin/unzip", {"-t", "-q", zip_path});
    if (unzip.status != 0)
        problems += "unzip -t failed (" + std::to_string(unzip.status) + "): " + unzip.out + unzip.err;

    RunResult python = run_program("/usr/bin/python3", {"-c", PYTHON_CHECK, zip_path});
    if (python.status != 0)
        problems += "python zipfile could not open it: " + python.err;
    else if (lines_of(python.out) != flagged)
        problems += "python zipfile flagged " + describe(lines_of(python.out)) + ", expected " +
                    describe(flagged) + "\n";

    // bsdtar reads the stream front to back from a pipe, as a browser
    // download would arrive.
    std::string bytes = read_file(zip_path);
    RunResult list = run_program("/usr/bin/bsdtar", {"-tf", "-"}, bytes);
    if (list.status != 0)
        problems += "bsdtar -tf - failed: " + list.err;
    RunResult extract = run_program("/usr/bin/bsdtar", {"-xOf", "-"}, bytes);
    std::set<std::string> wrong_size;
    for (const std::string &line : lines_of(extract.err)) {
        size_t at = line.find(": ZIP uncompressed data is wrong size");
        if (at != std::string::npos)
            wrong_size.insert(line.substr(0, at));
        else if (line.find("Error exit delayed") == std::string::npos)
            problems += "bsdtar -x: " + line + "\n";
    }
    if (wrong_size != flagged)
        problems += "bsdtar flagged " + describe(wrong_size) + ", expected " + describe(flagged) + "\n";
    if ((extract.status != 0) != !flagged.empty())
        problems += "bsdtar -x exit status " + std::to_string(extract.status) + "\n";
    return problems;
}

std::string openssl_decrypt(const std::string &in_path, const std::string &password,
                            const std::string &out_path)
{
    RunResult r = run_program("/usr/bin/openssl", {"enc", "-d", "-aes-128-cbc", "-md", "md5", "-pass",
                                                   "pass:" + password, "-in", in_path, "-out", out_path});
    return r.status == 0 ? std::string() : "openssl enc -d failed: " + r.err;
}

}  // namespace qt
