#include "testsupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

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
    if (mkdtemp(pattern) == nullptr)
        abort();
    path_ = pattern;
}

TempDir::~TempDir()
{
    // Tests may leave read-only files or directories behind.
    if (system(("chmod -R u+rwx '" + path_ + "' 2>/dev/null; rm -rf '" + path_ + "'").c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

namespace {

bool write_all(int fd, const std::string &data)
{
    for (size_t done = 0; done < data.size();) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// An anonymous in-memory file holding data, positioned at its start.
int memory_file(const std::string &data)
{
    const int fd = memfd_create("run", 0);
    if (fd < 0 || !write_all(fd, data))
        abort();
    lseek(fd, 0, SEEK_SET);
    return fd;
}

}  // namespace

bool write_file(const std::string &path, const std::string &content, unsigned mode)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    const bool written = fd >= 0 && write_all(fd, content);
    return fd >= 0 && close(fd) == 0 && written && chmod(path.c_str(), mode) == 0;
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

std::string sha256(const std::string &data)
{
    return run_program("/usr/bin/sha256sum", {}, data).out.substr(0, 64);
}

bool make_certificate(const TempDir &dir)
{
    return run_program("/usr/bin/openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=support",
                                            "-keyout", dir.file("support.key"), "-out", dir.file("support.pem")})
               .status == 0;
}

std::string capture_stderr(const std::function<void()> &call)
{
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

long resident_peak_kb(pid_t pid, const std::string &program)
{
    // Until it has called exec, the child is a copy of us: its peak is ours.
    const std::string name = program.substr(program.rfind('/') + 1).substr(0, 15);
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmHWM:");
    if (status.compare(0, 6 + name.size() + 1, "Name:\t" + name + "\n") != 0 || at == std::string::npos)
        return 0;
    return atol(status.c_str() + at + 6);
}

namespace {

// argv for the program; a cross build's tool runs under its emulator, which
// hands it the argv[0] it would have had (-0).
std::vector<std::string> command_of(const RunSpec &job, std::string *program)
{
    std::vector<std::string> argv;
#ifdef QUELVANE_EMULATOR
    if (*program == quelvane_binary()) {
        std::istringstream words(QUELVANE_EMULATOR);
        for (std::string word; words >> word;)
            argv.push_back(word);
        argv.insert(argv.end(), {"-0", job.argv0.empty() ? *program : job.argv0, *program});
        *program = argv[0].find('/') == std::string::npos ? "/usr/bin/" + argv[0] : argv[0];
    }
#endif
    if (argv.empty())
        argv.push_back(job.argv0.empty() ? *program : job.argv0);
    argv.insert(argv.end(), job.args.begin(), job.args.end());
    return argv;
}

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (std::string &text : texts)
        result.push_back(&text[0]);
    result.push_back(nullptr);
    return result;
}

// In the child: the planned descriptors in place, nothing else open, the
// signals as a new process has them.
[[noreturn]] void start_child(const RunSpec &job, std::vector<std::pair<int, int>> plan, const std::string &program,
                              std::vector<std::string> argv, std::vector<std::string> env)
{
    // Every source moves above the targets first, so no dup2 clobbers one.
    for (auto &step : plan)
        step.first = fcntl(step.first, F_DUPFD, 900);
    std::set<int> targets;
    for (const auto &step : plan)
        targets.insert(dup2(step.first, step.second));
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
    execve(program.c_str(), pointers(argv).data(), pointers(env).data());
    _exit(127);
}

}  // namespace

RunResult run(const RunSpec &job)
{
    std::string program = job.program.empty() ? quelvane_binary() : job.program;
    const std::vector<std::string> argv = command_of(job, &program);
    // The first definition of a name wins, so the test's own come first;
    // sanitizer settings reach the child so that its reports are not lost.
    std::vector<std::string> env = job.env;
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"})
        if (const char *value = getenv(name))
            env.push_back(std::string(name) + "=" + value);
    env.push_back("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
    env.push_back("LC_ALL=C");
    // Standard input, output, error and the extra descriptors, as the child
    // will see them.
    std::vector<std::pair<int, int>> plan = {{memory_file(job.stdin_data), 0}, {memory_file(""), 1}, {memory_file(""), 2}};
    for (const auto &fd_data : job.fds)
        plan.push_back({memory_file(fd_data.second), fd_data.first});
    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0)
        abort();
    if (pid == 0)
        start_child(job, plan, program, argv, env);
    for (const auto &step : plan)
        if (step.second != 1 && step.second != 2)
            close(step.first);
    if (job.during)
        job.during(pid);
    RunResult result;
    int status = 0;
    struct rusage usage;
    long peak_kb = 0;
    for (bool killed = false;;) {
        peak_kb = std::max(peak_kb, resident_peak_kb(pid, program));
        const pid_t done = wait4(pid, &status, WNOHANG, &usage);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            abort();
        if (!killed && std::chrono::steady_clock::now() > started + std::chrono::seconds(job.timeout_seconds))
            killed = kill(pid, SIGKILL) == 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // The rusage peak counts the harness's own pages, which the child held
    // between fork and exec; the peak seen while it ran is the program's.
    result.maxrss_kb = peak_kb > 0 ? peak_kb : usage.ru_maxrss;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = read_file("/proc/self/fd/" + std::to_string(plan[1].first));
    result.err = read_file("/proc/self/fd/" + std::to_string(plan[2].first));
    close(plan[1].first);
    close(plan[2].first);
    return result;
}

RunResult run_program(const std::string &program, const std::vector<std::string> &args, const std::string &stdin_data)
{
    RunSpec job;
    job.program = program;
    job.args = args;
    job.stdin_data = stdin_data;
    job.timeout_seconds = 120;
    return run(job);
}

const std::string RUN_MARK = "QUELVANE_TEST_RUN=";

RunResult run_quelvane(const TempDir &dir, const std::vector<std::string> &args, RunSpec job)
{
    mkdir(dir.file("home").c_str(), 0755);
    job.args.insert(job.args.begin(), args.begin(), args.end());
    job.env.push_back("QUELVANE_HOME=" + dir.file("home"));
    job.env.push_back(RUN_MARK + dir.path());
    if (job.cwd.empty())
        job.cwd = dir.path();
    return run(job);
}

std::string left_running(const std::string &mark)
{
    const std::string wanted = RUN_MARK + mark + '\0';
    auto scan = [&](bool kill_them) {  // pid (name) state of each
        std::string found;
        DIR *proc = opendir("/proc");
        while (const dirent *entry = proc != nullptr ? readdir(proc) : nullptr) {
            const std::string at = std::string("/proc/") + entry->d_name;
            if (entry->d_name[0] < '1' || entry->d_name[0] > '9' || read_file(at + "/environ").find(wanted) == std::string::npos)
                continue;
            const std::string stat = read_file(at + "/stat");
            found += stat.substr(0, stat.find(')') + 3) + " ";
            if (kill_them)
                kill(atoi(entry->d_name), SIGKILL);
        }
        if (proc != nullptr)
            closedir(proc);
        return found;
    };
    // A process that is ending may take a moment on a busy machine; one that stays is left.
    for (int pass = 0; pass < 20 && !scan(false).empty(); ++pass)
        usleep(50000);
    return scan(true);
}

// ---------------------------------------------------------------------------
// Reading archives
// ---------------------------------------------------------------------------

std::vector<std::string> Archive::names() const
{
    std::vector<std::string> names;
    for (const Member &m : members)
        names.push_back(m.name);
    return names;
}

const Member *Archive::find(const std::string &name) const
{
    for (const Member &m : members)
        if (m.name == name)
            return &m;
    return nullptr;
}

std::string Archive::data(const std::string &name) const
{
    const Member *m = find(name);
    return m != nullptr ? m->data : "(no " + name + ")";
}

namespace {

// Lists every member (its fields as a line, then its name and its data inflated from
// the raw bytes, unless past 1 GiB), checks each local header and data descriptor against the central
// record, and adds, as lines "! ...", what any reader finds wrong: zipfile, unzip -t,
// unzip's listing of names, and bsdtar, which flag exactly the members named after the path.
const char *const READER = R"(import os, struct, subprocess, sys, zipfile, zlib
path, flagged = sys.argv[1], {os.fsencode(name) for name in sys.argv[2:]}
os.environ['LC_ALL'] = 'C.UTF-8'  # the readers as an operator's shell runs them
out, problems, refused, names = sys.stdout.buffer, [], set(), []
# unzip -t, and bsdtar reading the stream front to back from a pipe, as a browser download
# would arrive (an archive past 1 GiB, a sparse one, from its file), beside our own look.
unzip = subprocess.Popen(['unzip', '-t', '-q', path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
tar = subprocess.Popen(['bsdtar', '-xOf', path] if os.path.getsize(path) > 1 << 30 else ['sh', '-c', 'cat "$0" | bsdtar -xOf -', path],
                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
with zipfile.ZipFile(path) as z, open(path, 'rb') as f:
    for i in z.infolist():
        name = i.orig_filename.encode('utf-8' if i.flag_bits & 0x800 else 'cp437', 'surrogateescape')
        t = i.date_time
        dos = (t[0] - 1980) << 25 | t[1] << 21 | t[2] << 16 | t[3] << 11 | t[4] << 5 | t[5] // 2
        f.seek(i.header_offset)
        h = struct.unpack('<IHHHHHIIIHH', f.read(30))
        if h != (0x04034b50, 20, i.flag_bits, 8, dos & 0xffff, dos >> 16, 0, 0, 0, len(name) & 0xffff, 0) or f.read(h[9]) != name[:h[9]]:
            problems.append('local header of %s disagrees with its central record' % i.filename)
        inflate, data, size, left = zlib.decompressobj(-15), [], 0, i.compress_size
        while left or inflate.unconsumed_tail:  # 16 MiB at a time, so that gigabytes pass
            raw = inflate.unconsumed_tail
            if not raw:
                raw = f.read(min(1 << 24, left))
                left = left - len(raw) if raw else 0  # a file cut short ends it
            piece = inflate.decompress(raw, 1 << 24)
            size += len(piece)
            data += [piece] if size <= 1 << 30 else []
        version = 45 if i.header_offset >= 0xffffffff else 20
        if struct.unpack('<IIII', f.read(16)) != (0x08074b50, i.CRC, i.compress_size, i.file_size) or (i.create_version, i.extract_version) != (version, version):
            problems.append('descriptor or versions of %s disagree with its central record' % i.filename)
        data = b''.join(data) if size <= 1 << 30 else b''  # the data of members past 1 GiB left out
        try:
            with z.open(i) as member:
                while member.read(1 << 24):
                    pass
        except Exception:
            refused.add(name)
        names.append((name, i.flag_bits))
        try:  # bit 11 says a name is UTF-8, and only a name that needs saying
            utf8 = not name.isascii() and bool(name.decode())
        except UnicodeDecodeError:
            utf8 = False
        if bool(i.flag_bits & 0x800) != utf8:
            problems.append('bit 11 of %r is %d' % (name, i.flag_bits >> 11 & 1))
        out.write(b'%d %d %d %d %d %d %d %d %d\n' % (i.flag_bits, dos, i.CRC, i.compress_size, i.file_size, i.header_offset, size, len(name), len(data)) + name + data)
    f.seek(-22, 2)
    if f.read(4) != b'PK\x05\x06':
        problems.append('bytes after the end record')
said = unzip.communicate()[0]
if unzip.returncode != 0:
    problems.append('unzip -t failed (%d): %r' % (unzip.returncode, said))
# unzip shows each name that is ASCII or flagged UTF-8 as it is, control bytes aside.
for (name, flags), listed in zip(names, subprocess.run(['unzip', '-Z1', path], capture_output=True).stdout.split(b'\n')):
    if (name.isascii() or flags & 0x800) and listed != name and all(c >= 32 for c in name):
        problems.append('unzip -Z1 lists %r for %r' % (listed, name))
tar = tar.communicate()[1].split(b'\n')
wrong = {line.split(b': ZIP uncompressed data is wrong size')[0] for line in tar if b'data is wrong size' in line}
problems += ['bsdtar -x: %r' % line for line in tar if line and b'data is wrong size' not in line and b'Error exit delayed' not in line]
for reader, seen in (('python zipfile', refused), ('bsdtar', wrong)):
    if seen != flagged:
        problems.append('%s flagged %r, expected %r' % (reader, sorted(seen), sorted(flagged)))
out.write(b''.join(b'! %s\n' % p.encode() for p in problems))
)";

// The members our reader listed, its problems appended to *problems.
std::vector<Member> parse_listing(const std::string &listing, std::string *problems)
{
    std::vector<Member> members;
    for (size_t at = 0; at < listing.size();) {
        const size_t end = listing.find('\n', at);
        const std::string line = listing.substr(at, end - at);
        at = end + 1;
        if (line.rfind("! ", 0) == 0) {
            *problems += line.substr(2) + "\n";
            continue;
        }
        Member m;
        size_t name_size = 0, size = 0;
        sscanf(line.c_str(), "%u %u %u %llu %llu %llu %llu %zu %zu", &m.flags, &m.dos_datetime, &m.crc, &m.compressed,
               &m.declared, &m.offset, &m.size, &name_size, &size);
        m.name = listing.substr(at, name_size);
        m.data = listing.substr(at + name_size, size);
        at += name_size + size;
        members.push_back(std::move(m));
    }
    return members;
}

}  // namespace

Archive read_archive(const std::string &path, const std::set<std::string> &flagged)
{
    RunSpec job;
    job.program = "/usr/bin/python3";
    job.args = {"-c", READER, path};
    job.args.insert(job.args.end(), flagged.begin(), flagged.end());
    job.timeout_seconds = 600;  // gigabytes on a machine that may be busy
    const RunResult reader = run(job);
    Archive archive;
    archive.members = parse_listing(reader.out, &archive.problems);
    if (reader.status != 0)
        archive.problems += "the readers failed (" + std::to_string(reader.status) + "): " + reader.err;
    return archive;
}

std::string openssl_decrypt(const std::string &in, const std::string &password, const std::string &out)
{
    const RunResult r = run_program("/usr/bin/openssl", {"enc", "-d", "-aes-128-cbc", "-md", "md5", "-pass",
                                                         "pass:" + password, "-in", in, "-out", out});
    return r.status == 0 ? std::string() : "openssl enc -d failed: " + r.err;
}

Collection collect(const TempDir &dir, const Collect &c)
{
    Collection result;
    result.config = c.config;
    result.flagged = c.flagged;
    write_file(dir.file("q.conf"), c.config);
    const std::string written = c.out == "-" ? dir.file("stdout") : dir.file(c.out);
    std::vector<std::string> args = {"-f", "q.conf", "-a", c.archive, "-o", c.out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    RunSpec job = c.job;
    if (c.progress) {
        args.push_back("--progress-fd=3");
        job.in_child = [&c, progress = dir.file("progress")] {
            dup2(open(progress.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 3);
            if (c.job.in_child)
                c.job.in_child();
        };
    }
    result.run = run_quelvane(dir, args, job);
    if (c.status >= 0) {
        EXPECT_EQ(result.run.status, c.status) << result.run.err;
    }
    if (c.progress)
        result.progress = split_lines(read_file(dir.file("progress")));
    struct stat status;
    const bool regular = stat(written.c_str(), &status) == 0 && S_ISREG(status.st_mode);  // never a device
    result.sent = c.out == "-" ? result.run.out : regular ? read_file(written) : "";
    if (result.sent.rfind("Cache-Control:", 0) == 0) {
        result.header = result.sent.substr(0, result.sent.find("\n\n") + 2);
        result.sent.erase(0, result.header.size());
    }
    result.path = dir.file("plain.zip");
    std::vector<std::string> decrypt = c.decrypt;
    if (!c.password.empty())
        decrypt = {"enc", "-d", "-aes-128-cbc", "-md", "md5", "-pass", "pass:" + c.password};
    // Nothing to read, or something only the test can open.
    if (result.sent.empty() || (decrypt.empty() && result.sent.rfind("PK", 0) != 0))
        return result;
    write_file(dir.file("sent"), result.sent);
    if (decrypt.empty()) {
        rename(dir.file("sent").c_str(), result.path.c_str());
    } else {
        decrypt.insert(decrypt.end(), {"-in", dir.file("sent"), "-out", result.path});
        const RunResult opened = run_program("/usr/bin/openssl", decrypt);
        if (opened.status != 0)
            result.zip.problems = "openssl " + decrypt[0] + " could not decrypt it: " + opened.err;
    }
    if (result.zip.problems.empty())
        result.zip = read_archive(result.path, c.flagged);
    if (c.status >= 0) {
        EXPECT_EQ(result.zip.problems, "");
    }
    return result;
}

std::string readme(const std::string &letters, bool down, bool log_only)
{
    return "Archive Name: t.zip\nConfig File: q.conf\nVersion: " QUELVANE_VERSION "\nLOG-ONLY MODE: " +
           std::string(log_only ? "yes" : "no") + "\nLog Sets: " + letters + "\nSP SW DOWN: " + (down ? "yes" : "no") +
           "\nMax Domains: 1\n";
}

void expect_members(const Collection &c, const Members &rest, const std::string &readme_text)
{
    Members members = {{"t/README", readme_text}, {"t/CONFIG", c.config}};
    members.insert(members.end(), rest.begin(), rest.end());
    ASSERT_EQ(c.zip.names().size(), members.size()) << testing::PrintToString(c.zip.names());
    for (size_t i = 0; i < members.size(); ++i) {
        const Member &m = c.zip.members[i];
        EXPECT_EQ(m.name, members[i].first);
        EXPECT_TRUE(m.data == members[i].second) << m.name << ": " << m.data.substr(0, 300);
        const bool err = m.name.size() > 4 && m.name.compare(m.name.size() - 4, 4, ".err") == 0;
        EXPECT_TRUE(c.flagged.count(m.name) == 0 || !err || m.dos_datetime == 0x00210000u) << m.name;
    }
}

}  // namespace qt
