// Data generation and the output sink.
#include "quelvane_datagen.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include "quelvane_bufchain.h"
#include "quelvane_util.h"

// ---------------------------------------------------------------------------
// Output sink
// ---------------------------------------------------------------------------

namespace {

const char ENCRYPTED_MAGIC[] = "Salted__";
constexpr size_t SALT_LENGTH = 8;
constexpr size_t CIPHER_PIECE = 1024;

struct CipherContextFree {
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};

// Set once the cipher is initialised and the header written; never cleared,
// so a second start is a no-op and a second finish fails.
int encryption_active;
std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree> cipher;
// One piece of input plus room for the block the cipher carries over.
unsigned char staging[CIPHER_PIECE + 32];
int staging_count;

// Archive bytes gather here and leave in large writes: when the buffer is
// full, and at sink_flush, which runs wherever a reader could otherwise wait
// for them (before we wait on a command, at the archive's end).
constexpr size_t PENDING_SIZE = 64 * 1024;
unsigned char pending[PENDING_SIZE];
size_t pending_count;
int pending_fd = -1;

// Writes all of it, retrying after EINTR. A short count goes on with the
// rest: a record that meets a full device or a file-size limit then fails
// with that error instead of passing for written.
ssize_t write_retrying(int fd, const void *data, size_t length)
{
    const char *bytes = static_cast<const char *>(data);
    size_t done = 0;
    while (done < length) {
        ssize_t written = write(fd, bytes + done, length - done);
        if (written == -1 && errno == EINTR)
            continue;
        if (written <= 0)
            return -1;
        done += static_cast<size_t>(written);
    }
    return static_cast<ssize_t>(done);
}

std::string hex(const unsigned char *bytes, size_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

// Archive bytes handed to the output so far, the encryption header included,
// and their SHA-256 when a checksum is asked for.
uint64_t delivered;
struct DigestFree {
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};
std::unique_ptr<EVP_MD_CTX, DigestFree> delivered_digest;

// Encryption to a certificate: the CMS filter writes into a memory BIO that
// is emptied to the output after every write, so memory stays flat.
struct BioFree {
    void operator()(BIO *bio) const { BIO_free_all(bio); }
};
struct CmsFree {
    void operator()(CMS_ContentInfo *cms) const { CMS_ContentInfo_free(cms); }
};
std::unique_ptr<CMS_ContentInfo, CmsFree> cms;
std::unique_ptr<BIO, BioFree> cms_chain;  // the CMS filter over cms_out
BIO *cms_out;

// Every byte that leaves for the output passes here.
int deliver(int fd, const void *bytes, size_t count)
{
    if (write_retrying(fd, bytes, count) == -1)
        return -1;
    delivered += count;
    if (delivered_digest)
        EVP_DigestUpdate(delivered_digest.get(), bytes, count);
    return 0;
}

// What the CMS filter has made so far goes out.
int drain_cms(int fd)
{
    char *bytes = nullptr;
    long count = BIO_get_mem_data(cms_out, &bytes);
    int result = count > 0 ? deliver(fd, bytes, static_cast<size_t>(count)) : 0;
    (void)BIO_reset(cms_out);
    return result;
}

int write_out(int fd, const void *bytes, size_t count)
{
    int result;
    if (cms_chain)
        result = BIO_write(cms_chain.get(), bytes, static_cast<int>(count)) == static_cast<int>(count) ? drain_cms(fd)
                                                                                                     : -1;
    else
        result = deliver(fd, bytes, count);
    if (result == 0)
        return 0;
    int error = errno;  // before the catalogue lookup can touch it
    fprintf(stderr, "%s: %s\n", _("Error writing data file"), strerror(error));
    errno = error;
    return -1;
}

// PBKDF2-SHA256 iterations for the salted format; 0: one MD5 pass.
unsigned pbkdf2_iterations;

int flush_pending()
{
    const size_t count = pending_count;
    pending_count = 0;
    return count == 0 ? 0 : write_out(pending_fd, pending, count);
}

int send(int out_fd, const void *bytes, size_t count)
{
    if (pending_count > 0 && (out_fd != pending_fd || pending_count + count > PENDING_SIZE) &&
        flush_pending() != 0)
        return -1;
    if (count >= PENDING_SIZE)
        return write_out(out_fd, bytes, count);
    memcpy(pending + pending_count, bytes, count);
    pending_count += count;
    pending_fd = out_fd;
    return 0;
}

}  // namespace

int sink_encrypt_start(const char *password, int out_fd)
{
    unsigned char key[32] = {};
    unsigned char iv[16] = {};
    if (password == nullptr)
        return -1;
    if (encryption_active)
        return 0;

    // The archive's format is fixed: no system configuration may change the
    // cipher or digest (or make MD5 unavailable), and not reading it keeps
    // a megabyte of provider set-up out of memory.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    cipher.reset(EVP_CIPHER_CTX_new());
    if (!cipher)
        return -1;
    const EVP_MD *digest = EVP_md5();
    const EVP_CIPHER *aes = EVP_aes_128_cbc();

    unsigned char salt[SALT_LENGTH] = {};
    (void)RAND_bytes(salt, sizeof salt);
    if (pbkdf2_iterations > 0) {
        // What openssl enc -pbkdf2 -iter N derives: key and IV from one run.
        unsigned char both[32];
        if (!PKCS5_PBKDF2_HMAC(password, static_cast<int>(strlen(password)), salt, sizeof salt,
                               static_cast<int>(pbkdf2_iterations), EVP_sha256(), sizeof both, both))
            return -1;
        memcpy(key, both, 16);
        memcpy(iv, both + 16, 16);
        OPENSSL_cleanse(both, sizeof both);
    } else {
        EVP_BytesToKey(aes, digest, salt, reinterpret_cast<const unsigned char *>(password),
                       static_cast<int>(strlen(password)), 1, key, iv);
    }
    int initialised = EVP_EncryptInit_ex(cipher.get(), aes, nullptr, key, iv);
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
    if (!initialised)
        return -1;

    if (out_fd >= 0) {
        if (flush_pending() != 0 || deliver(out_fd, ENCRYPTED_MAGIC, sizeof ENCRYPTED_MAGIC - 1) == -1 ||
            deliver(out_fd, salt, sizeof salt) == -1) {
            cipher.reset();
            return -1;
        }
    }
    encryption_active = 1;
    return 0;
}

int sink_write(const void *data, size_t length, int out_fd)
{
    if (data == nullptr || out_fd < 0)
        return -1;
    if (encrypt_output && (!encryption_active || !cipher))
        return -1;

    const unsigned char *input = static_cast<const unsigned char *>(data);
    while (length > 0) {
        const void *bytes;
        size_t count;
        if (encrypt_output) {
            int piece = static_cast<int>(std::min(length, CIPHER_PIECE));
            if (!EVP_EncryptUpdate(cipher.get(), staging, &staging_count, input, piece)) {
                fputs(_("ERROR: EncryptUpdate\n"), stderr);
                return -1;
            }
            input += piece;
            length -= static_cast<size_t>(piece);
            bytes = staging;
            count = static_cast<size_t>(staging_count);
        } else {
            bytes = input;
            count = length;
            length = 0;
        }
        // Nothing when the cipher holds the bytes back for the next block.
        if (count > 0 && send(out_fd, bytes, count) != 0)
            return -1;
    }
    return 0;
}

int sink_flush(int out_fd)
{
    return out_fd < 0 ? -1 : flush_pending();
}

int sink_encrypt_finish(int out_fd)
{
    if (!encryption_active || !cipher)
        return -1;
    if (!EVP_CipherFinal_ex(cipher.get(), staging, &staging_count))
        return -1;
    if (out_fd < 0)
        return -1;
    int written = flush_pending() == 0 ? deliver(out_fd, staging, static_cast<size_t>(staging_count)) : -1;
    cipher.reset();
    return written;
}

uint64_t sink_delivered() { return delivered; }

void sink_use_pbkdf2(unsigned iterations) { pbkdf2_iterations = iterations; }

int sink_recipient_start(const char *cert_path, int out_fd)
{
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    X509 *certificate = nullptr;
    if (FILE *file = fopen(cert_path, "r")) {
        certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    if (certificate == nullptr) {
        fprintf(stderr, _("Unable to read a PEM certificate from %s\n"), cert_path);
        return -1;
    }
    STACK_OF(X509) *recipients = sk_X509_new_null();
    if (recipients == nullptr || !sk_X509_push(recipients, certificate)) {
        X509_free(certificate);
        sk_X509_free(recipients);
        return -1;
    }
    // Streaming: the content is not given here but written through the BIO.
    cms.reset(CMS_encrypt(recipients, nullptr, EVP_aes_256_cbc(), CMS_BINARY | CMS_STREAM));
    sk_X509_pop_free(recipients, X509_free);
    BIO *out = cms ? BIO_new(BIO_s_mem()) : nullptr;
    BIO *chain = out != nullptr ? BIO_new_CMS(out, cms.get()) : nullptr;
    if (chain == nullptr) {
        BIO_free(out);
        cms.reset();
        fprintf(stderr, _("Unable to encrypt to the certificate in %s\n"), cert_path);
        return -1;
    }
    cms_out = out;
    cms_chain.reset(chain);
    return flush_pending() == 0 && drain_cms(out_fd) == 0 ? 0 : -1;
}

int sink_recipient_finish(int out_fd)
{
    if (!cms_chain || flush_pending() != 0)
        return -1;
    int result = BIO_flush(cms_chain.get()) == 1 ? drain_cms(out_fd) : -1;
    cms_chain.reset();
    cms.reset();
    return result;
}

void sink_hash_delivered()
{
    delivered_digest.reset(EVP_MD_CTX_new());
    if (delivered_digest && !EVP_DigestInit_ex(delivered_digest.get(), EVP_sha256(), nullptr))
        delivered_digest.reset();
}

std::string sink_delivered_sha256()
{
    unsigned char digest[32];
    unsigned length = 0;
    if (!delivered_digest || !EVP_DigestFinal_ex(delivered_digest.get(), digest, &length))
        return "";
    delivered_digest.reset();
    return hex(digest, length);
}

// ---------------------------------------------------------------------------
// Collection
// ---------------------------------------------------------------------------

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdlib>
#include <ctime>
#include <new>

namespace {

// Error text of the entry being collected: a command's standard error (or
// our lines about a file), written afterwards as its ".err" member.
Bufchain stderr_chain;
// Our own "QUELVANE MSG: " lines about a command, kept apart so that they
// follow its standard error even when that filled the chain to its cap.
Bufchain message_chain;

const char CUT_MESSAGE[] = "QUELVANE MSG: Data cut at %lu bytes, the largest member an archive holds\n";
const char BUDGET_CUT_MESSAGE[] = "QUELVANE MSG: Data cut at %llu bytes, the archive's size limit\n";

// How the entry being collected went: the worst of its parts.
int entry_result;
void note_result(int result)
{
    if (result > entry_result)
        entry_result = result;
}

// Under a budget: what the SKIPPED member may still need, and what an
// entry's ".err" member needs for our own lines (a cut, a time-out, an exit
// code), kept from its other data.
uint64_t skipped_reserve;
constexpr uint64_t NOTE_RESERVE = 512;
// The least data an entry must have room for to be started at all.
constexpr uint64_t MIN_DATA = 256;
// Why the walk stops early: "deadline" or "max-size"; null while it goes on.
const char *stop_reason;

// Two seconds for a signalled command group to go before the run goes on.
constexpr time_t KILL_GRACE_SECONDS = 2;
constexpr int POLL_SECONDS = 1;

// A descriptor that closes itself.
class Descriptor {
public:
    Descriptor() = default;
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;

    bool open()
    {
        int fds[2];
        // Close-on-exec: no command inherits another pipe's end by mistake;
        // dup2 clears the flag on the two the child keeps.
        if (pipe2(fds, O_CLOEXEC) != 0)
            return false;
        read_end.reset(fds[0]);
        write_end.reset(fds[1]);
        return true;
    }
};

// Empties the chains when the call that filled them returns.
struct ChainReset {
    ChainReset()
    {
        quelvane_bufchain_free(&stderr_chain);
        quelvane_bufchain_free(&message_chain);
    }
    ~ChainReset()
    {
        quelvane_bufchain_free(&stderr_chain);
        quelvane_bufchain_free(&message_chain);
    }
};

struct FileClose {
    ZipMember *member;
    ~FileClose()
    {
        if (member->source_file != nullptr)
            zip_close_member_file(member);
    }
};

void set_timer(time_t seconds)
{
    struct itimerval timer = {};
    timer.it_value.tv_sec = seconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// Kept in release builds too: a child sharing our process group would take
// the tool down with it when its group is signalled.
void require(bool condition, const char *text)
{
    if (condition)
        return;
    fprintf(stderr, "%s: quelvane_execute_command: Assertion `%s' failed.\n",
            program_name != nullptr ? program_name : "quelvane", text);
    abort();
}

bool chain_empty(const Bufchain *chain)
{
    unsigned length = 0;
    return quelvane_bufchain_length(chain, &length) != 0 || length == 0;
}

// Begins the member, deflates the chain (then the second one, if it holds
// anything) into it and finishes it.
int write_chain_member(int out_fd, Bufchain *chain, ZipMember *member, ZipWriter *archive,
                       Bufchain *more = nullptr)
{
    uint64_t *total = &archive->total_written;
    const bool two = more != nullptr && !chain_empty(more);
    if (quelvane_z_output_local_file_header(out_fd, member, total) != 0 ||
        quelvane_bufchain_write(chain, member, out_fd, total, two ? Z_NO_FLUSH : Z_FINISH) != 0)
        return -1;
    // Our own lines use the room held for them.
    if (zip_budget_active())
        zip_budget_hold(skipped_reserve);
    if ((two && quelvane_bufchain_write(more, member, out_fd, total, Z_FINISH) != 0) ||
        zip_finish_member(out_fd, member, total) != 0)
        return -1;
    return 0;
}

int add_cut_message(Bufchain *chain, const ZipMember &member)
{
    if (member.budget_cut)
        return quelvane_vbprintf(chain, _(BUDGET_CUT_MESSAGE), static_cast<unsigned long long>(member.data_in));
    return quelvane_vbprintf(chain, _(CUT_MESSAGE), static_cast<unsigned long>(ZIP_MEMBER_LIMIT));
}

// SIGTERM to the whole command group, then its grace period. Never SIGKILL:
// a group that ignores SIGTERM is left running.
void kill_command(const ConfigEntry *entry, int target)
{
    kill(target, SIGTERM);
    // The child's own SIGCHLD would cut a plain sleep short; its children
    // get the whole grace period too.
    struct timespec left = {KILL_GRACE_SECONDS, 0};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
    if (!child_exited)
        print_progress(_("Command '%s' (pid %d) did not exit.\n"), entry->path.c_str(), abs(target));
}

pid_t wait_child(pid_t pid, int *status, int options)
{
    pid_t got;
    do {
        got = waitpid(pid, status, options);
    } while (got == -1 && errno == EINTR);
    if (got == -1)
        perror("waitpid");
    return got;
}

void read_stderr(int fd, const char *format)
{
    int ret = quelvane_bufchain_read_fd(&stderr_chain, fd);
    if (ret != 0 && bufchain_error != ENOSPC)
        fprintf(stderr, format, ret, fd, errno);
}

// Runs in the forked child; never returns.
[[noreturn]] void run_child(const ConfigEntry *entry, Pipe &out_pipe, Pipe &err_pipe, Pipe &sync_pipe)
{
    // Default actions before the parent can signal us: a SIGTERM that came
    // before exec must not find our handler, which would ignore the next one
    // for the command too. We ignore SIGPIPE and SIGXFSZ to see failed writes
    // as errors; a command's pipeline (yes | head) relies on them.
    for (int signo : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGCHLD, SIGPIPE, SIGXFSZ})
        signal(signo, SIG_DFL);
    char pgid_text[32] = {};
    auto keep_as = [](int fd, int target) {
        if (fd == target)
            fcntl(fd, F_SETFD, 0);  // already in place: keep it across exec
        else
            dup2(fd, target);
    };
    keep_as(out_pipe.write_end.get(), STDOUT_FILENO);
    keep_as(err_pipe.write_end.get(), STDERR_FILENO);
    // A group of its own, so that SIGTERM reaches everything it starts and a
    // terminal interrupt aimed at us does not reach it directly.
    setpgrp();
    snprintf(pgid_text, sizeof pgid_text, "%d", static_cast<int>(getpgid(0)));
    ssize_t ignored = write(sync_pipe.write_end.get(), pgid_text, strlen(pgid_text));
    (void)ignored;
    // The command gets standard input, output and error, nothing more: not
    // the archive, the lock, our pipes nor what we inherited ourselves.
    if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0) {
        for (long fd = STDERR_FILENO + 1, top = sysconf(_SC_OPEN_MAX); fd < top && fd < 65536; ++fd)
            close(static_cast<int>(fd));
    }

    execl("/bin/sh", "sh", "-c", entry->command.c_str(), static_cast<char *>(nullptr));
    int error = errno;
    fprintf(stderr, _("QUELVANE MSG: Unable to exec: '%s' errno: %d\n"), entry->path.c_str(), error);
    errno = error;
    perror(entry->path.c_str());
    close(STDOUT_FILENO);
    fflush(stderr);
    _exit(error);
}

enum class Ending { running, finished, interrupted, timed_out };

// A started command. Whichever way the runner leaves, an output failure
// included, a command still running is stopped with the kill sequence and
// the timer disarmed, so nothing of ours runs on unwatched.
class RunningCommand {
public:
    // target: what the kill sequence signals, the command's process group.
    RunningCommand(const ConfigEntry *entry, pid_t pid, int target) : entry_(entry), pid_(pid), target_(target) {}
    RunningCommand(const RunningCommand &) = delete;
    RunningCommand &operator=(const RunningCommand &) = delete;
    ~RunningCommand()
    {
        // The caller reports the failure that brought us here, not the
        // grace period's interrupted sleep.
        const int error = errno;
        set_timer(0);
        if (!done_)
            stop(nullptr);
        errno = error;
    }
    // The command ended by itself and was reaped.
    void reaped() { done_ = true; }
    // The kill sequence, then a look for its end without waiting.
    void stop(int *status)
    {
        int ignored = 0;
        done_ = true;
        kill_command(entry_, target_);
        wait_child(pid_, status != nullptr ? status : &ignored, WNOHANG);
    }

private:
    const ConfigEntry *entry_;
    pid_t pid_;
    int target_;
    bool done_ = false;
};

}  // namespace

int quelvane_execute_command(int out_fd, ConfigEntry *entry, ZipWriter *archive, int index)
{
    if (out_fd < 0 || entry == nullptr || archive == nullptr)
        return -1;
    print_progress(_("Starting Command: %s\n"), entry->command.c_str());

    ZipMember out_member;
    ZipMember err_member;
    ChainReset chain_reset;
    child_exited = 0;
    command_timed_out = 0;

    if (quelvane_zip_stderr_member(entry, &err_member, index) != 0)
        return -1;
    err_member.command = entry->command;

    const char *program = entry->argv.empty() ? entry->path.c_str() : entry->argv[0].c_str();
    if (access(program, X_OK) != 0) {
        note_result(RESULT_ERROR);
        err_member.status = "missing";
        if (quelvane_vbprintf(&message_chain, _("QUELVANE MSG: %s does not exist on this platform\n"),
                              entry->path.c_str()) < 0)
            return -1;
        if (write_chain_member(out_fd, &stderr_chain, &err_member, archive, &message_chain) != 0) {
            print_progress(_("Error with output\n"));
            return -2;
        }
        return -1;
    }

    if (quelvane_zip_stdout_member(entry, &out_member, index) != 0)
        return -1;
    out_member.command = entry->command;

    Pipe out_pipe;
    Pipe err_pipe;
    Pipe sync_pipe;
    if (!out_pipe.open() || !err_pipe.open() || !sync_pipe.open())
        return -1;

    pid_t pid = fork();
    if (pid < 0) {
        int error = errno;
        fprintf(stderr, _("Can't fork for %s\n"), entry->path.c_str());
        errno = error;
        perror(entry->path.c_str());
        return -1;
    }
    if (pid == 0)
        run_child(entry, out_pipe, err_pipe, sync_pipe);

    // Our own write ends go first, so that a child that dies before it
    // reports its group cannot leave the read below waiting.
    for (Pipe *p : {&out_pipe, &err_pipe, &sync_pipe})
        p->write_end.reset();
    char pgid_text[32] = {};
    ssize_t got;
    do {
        got = read(sync_pipe.read_end.get(), pgid_text, sizeof pgid_text - 1);
    } while (got == -1 && errno == EINTR);
    int childpgrpid = -1;
    sscanf(pgid_text, "%d", &childpgrpid);
    require(childpgrpid != getpgid(0), "childpgrpid != getpgid(0)");
    require(childpgrpid == getpgid(pid), "childpgrpid == getpgid(pid)");
    RunningCommand command(entry, pid, childpgrpid == -1 ? pid : -childpgrpid);
    sync_pipe.read_end.reset();

    const int out_read = out_pipe.read_end.get();
    const int err_read = err_pipe.read_end.get();
    // Never block on a pipe: a background process of the command may hold
    // it open long after the command itself has gone.
    for (int fd : {out_read, err_read})
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);

    // The run's deadline stops the command as its own time-out would.
    struct itimerval timer = {};
    timer.it_value.tv_sec = entry->timeout;
    const long long left_ms = run_deadline_left_ms();
    if (left_ms >= 0 && left_ms < static_cast<long long>(entry->timeout) * 1000) {
        timer.it_value.tv_sec = static_cast<time_t>(left_ms / 1000);
        timer.it_value.tv_usec = static_cast<suseconds_t>(left_ms % 1000 * 1000 + 1);
    }
    if (setitimer(ITIMER_REAL, &timer, nullptr) != 0) {
        perror("setitimer");
        return -1;
    }
    // Everything so far reaches the reader before we wait on the command.
    if (quelvane_z_output_local_file_header(out_fd, &out_member, &archive->total_written) != 0 ||
        sink_flush(out_fd) != 0) {
        perror("quelvane_z_output_local_file_header");
        return -2;
    }

    // The signals that set our flags are held back outside the poll itself:
    // one arriving between the test of the flags and the poll would
    // otherwise leave us waiting out the full second.
    sigset_t watched;
    sigemptyset(&watched);
    for (int signo : {SIGCHLD, SIGALRM, SIGHUP, SIGINT, SIGQUIT, SIGTERM})
        sigaddset(&watched, signo);

    struct pollfd slots[2] = {{out_read, POLLIN, 0}, {err_read, POLLIN, 0}};
    Ending ending = Ending::running;
    int status = 0;
    while (ending == Ending::running) {
        status = 0;
        bufchain_error = 0;
        errno = 0;
        sigset_t previous;
        sigprocmask(SIG_BLOCK, &watched, &previous);
        struct timespec wait = {child_exited || interrupted_by_user || command_timed_out ? 0 : POLL_SECONDS, 0};
        slots[0].revents = slots[1].revents = 0;
        int ready = ppoll(slots, 2, &wait, &previous);
        int poll_error = errno;
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        if (ready == -1 && poll_error != EINTR) {
            fputs(_("poll error"), stderr);
            errno = poll_error;
            perror("poll");
        }

        if (child_exited) {
            // SIGCHLD may come from an earlier command left running, or
            // report a stop: only our child's end finishes the command.
            child_exited = 0;
            pid_t reaped = wait_child(pid, &status, WNOHANG);
            if (reaped != 0) {
                child_exited = 1;
                command.reaped();
                ending = Ending::finished;
                break;
            }
        }
        if (interrupted_by_user) {
            ending = Ending::interrupted;
            break;
        }
        if (command_timed_out) {
            ending = Ending::timed_out;
            break;
        }

        // A hung-up pipe with nothing left to read would wake every poll.
        for (struct pollfd &slot : slots)
            if ((slot.revents & (POLLHUP | POLLERR | POLLNVAL)) && !(slot.revents & POLLIN))
                slot.fd = -1;
        if (slots[0].revents & POLLIN) {
            if (zip_deflate_fd(out_fd, &out_member, out_read, Z_NO_FLUSH, &archive->total_written) != 0) {
                print_progress(_("Error with output\n"));
                return -2;
            }
        }
        if (slots[1].revents & POLLIN)
            read_stderr(err_read, _("Error while buffering stderr ret=%d fd=%d errno=%d\n"));
    }
    set_timer(0);

    if (ending != Ending::finished)
        command.stop(&status);
    // How it ended, for the manifest; only an exit code counts as a failure.
    for (ZipMember *member : {&out_member, &err_member}) {
        const int code = (status & 0x7f) == 0 ? (status >> 8) & 0xff : 0;
        member->status = ending == Ending::timed_out     ? "timeout"
                         : ending == Ending::interrupted ? "interrupted"
                         : code != 0                     ? "exit"
                                                         : "ok";
        member->exit_status = code;
    }

    // Whatever the command left in its pipes, without waiting for the end
    // of a stream that a background process may still hold open.
    if (zip_deflate_fd(out_fd, &out_member, out_read, Z_FINISH, &archive->total_written) != 0 ||
        zip_finish_member(out_fd, &out_member, &archive->total_written) != 0) {
        print_progress(_("Error with output\n"));
        return -2;
    }
    read_stderr(err_read, _("Error buffering stderr ret=%d fd=%d errno=%d\n"));
    if (out_member.cut && add_cut_message(&message_chain, out_member) < 0)
        fputs(_("Error withquelvane_vbprintf: Exit\n"), stderr);

    if (ending == Ending::timed_out) {
        note_result(RESULT_TIMEOUT);
        if (quelvane_vbprintf(&message_chain, _("QUELVANE MSG: Command Timeout: Exit Signal: %d\n"),
                              status & 0x7f) < 0) {
            fputs(_("Error withquelvane_vbprintf: TO message\n"), stderr);
            return -1;
        }
        if (write_chain_member(out_fd, &stderr_chain, &err_member, archive, &message_chain) != 0) {
            print_progress(_("Error with output\n"));
            return -2;
        }
        print_progress(_("Command '%s' timed out\n"), entry->path.c_str());
        return -1;
    }

    // Only an exit code counts as a failure; a command ended by a signal we
    // did not send is reported as having exited normally.
    const int exit_code = (status & 0x7f) == 0 ? (status >> 8) & 0xff : 0;
    if (exit_code != 0) {
        note_result(RESULT_ERROR);
        // The exit code is described as if it were an errno value.
        if (quelvane_vbprintf(&message_chain, _("QUELVANE MSG: Child exited with %d: %s\n"), exit_code,
                              strerror(exit_code)) < 0) {
            fputs(_("Error withquelvane_vbprintf: Exit\n"), stderr);
            return -1;
        }
    }
    const bool interrupted = ending == Ending::interrupted;
    if (interrupted)
        note_result(RESULT_INTERRUPTED);
    if (interrupted && quelvane_vbprintf(&message_chain, _("QUELVANE MSG: User Interrupt\n")) < 0) {
        fputs(_("Error withquelvane_vbprintf: Interrupt Message\n"), stderr);
        return -1;
    }
    if ((!chain_empty(&stderr_chain) || !chain_empty(&message_chain)) &&
        write_chain_member(out_fd, &stderr_chain, &err_member, archive, &message_chain) != 0) {
        print_progress(_("Error with output\n"));
        return -2;
    }

    print_progress(_("Command '%s' "), entry->path.c_str());
    if (interrupted)
        print_progress(_("interrupted by user\n"));
    else if (exit_code != 0)
        print_progress(_("exited with %d: %s\n"), exit_code, strerror(exit_code));
    else
        print_progress(_("exited normally\n"));
    return 0;
}

// ---------------------------------------------------------------------------
// Files and patterns
// ---------------------------------------------------------------------------

int zip_init_file_member(ConfigEntry *entry, ZipMember *member, std::string *error_text)
{
    auto fail = [error_text](const char *text, int code) {
        if (error_text != nullptr)
            *error_text = text;
        return code;
    };
    try {
        if (entry == nullptr || member == nullptr)
            return fail(_("Invalid Arguments"), -1);
        if (entry->path.empty())
            return fail(_("Pathname not supplied for config entry"), -1);

        struct stat st;
        errno = 0;
        if (stat(entry->path.c_str(), &st) != 0) {
            int error = errno != 0 ? errno : ENOENT;
            if (error == ENOENT)
                return fail(_("No such file"), error);
            if (error == EACCES)
                return fail(_("Permission denied"), error);
            return fail(_("Couldn't stat file"), error);
        }
        if (!S_ISREG(st.st_mode))
            return fail(_("Not a file"), EINVAL);

        std::string name = quelvane_config_path_name(entry, nullptr);
        if (name.empty())
            return fail(_("Invalid path name"), -1);
        std::string source;
        try {
            source = entry->path;
        } catch (const std::bad_alloc &) {
            return fail(_("No Memory"), -1);
        }

        zip_member_init(member, MEMBER_FILE);
        // The size declared is the one stat saw, and no more is read: /proc
        // files declare 0 and are read to their end.
        zip_member_from_stat(member, st);
        member->name = std::move(name);
        member->source_path = std::move(source);
        return 0;
    } catch (const std::bad_alloc &) {
        return fail("", -1);
    }
}

int zip_init_err_member(ConfigEntry *entry, ZipMember *member)
{
    if (entry == nullptr || member == nullptr)
        return -1;
    try {
        std::string name = quelvane_config_path_name(entry, ".err");
        if (name.empty())
            return -1;
        // Kind, size 0 and time 0 are kept as a collected file's, so the
        // member declares size 0 and 1 January 1980 whatever text it holds.
        zip_member_init(member, MEMBER_FILE);
        member->name = std::move(name);
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

int datagen_collect_file(int out_fd, ConfigEntry *entry, ZipWriter *archive)
{
    if (out_fd < 0 || entry == nullptr || archive == nullptr)
        return -1;
    ZipMember file_member;
    ZipMember err_member;
    ChainReset chain_reset;
    const char *path = entry->path.c_str();
    print_progress(_("Collecting file: %s"), path);

    if (zip_init_err_member(entry, &err_member) != 0) {
        print_progress(_(" - Status: FAIL\n"));
        print_progress(_("Cannot collect errors for: %s\n"), path);
        return -1;
    }

    int result = 0;
    bool chain_failed = false;
    std::string error_text;
    int code = zip_init_file_member(entry, &file_member, &error_text);
    FileClose file_close{&file_member};
    err_member.source_path = entry->path;
    if (code != 0) {
        err_member.status = "error";
        err_member.error = error_text;
    }
    if (code != 0) {
        print_progress(_(" - Status: No file status\n"));
        print_progress(_("Error for file: %s: %s\n"), path, error_text.c_str());
        result = code > 0 ? -3 : -1;
        if (quelvane_vbprintf(&stderr_chain, _("Error for file: %s: %s\n"), path, error_text.c_str()) < 0) {
            fprintf(stderr, _("quelvane_vbprintf: unable to write stderr buffer: '%s'\n"), path);
            result = -1;
            chain_failed = true;
        }
    } else if (zip_open_member_file(&file_member) != 0) {
        int error = errno;
        result = error == EACCES ? -3 : -1;
        const char *source = file_member.source_path.c_str();
        err_member.status = "error";
        err_member.error = strerror(error);
        print_progress(_(" - Status: FAIL\n"));
        print_progress(_("Unable to open file: %s: %s\n"), source, strerror(error));
        if (quelvane_vbprintf(&stderr_chain, _("Unable to open file: %s: %s\n"), source, strerror(error)) < 0) {
            fprintf(stderr, _("quelvane_vbprintf: unable to write stderr buffer opening: '%s'\n"), path);
            result = -1;
            chain_failed = true;
        }
    } else {
        int read_error = 0;
        bool begun = quelvane_z_output_local_file_header(out_fd, &file_member, &archive->total_written) == 0;
        if (begun && zip_deflate_file(out_fd, &file_member, &archive->total_written, &read_error) == 0 &&
            zip_finish_member(out_fd, &file_member, &archive->total_written) == 0) {
            zip_close_member_file(&file_member);
            print_progress(_(" - Status: ok\n"));
            if (file_member.cut && add_cut_message(&message_chain, file_member) < 0) {
                fprintf(stderr, _("quelvane_vbprintf: unable to write stderr buffer: '%s'\n"), path);
                chain_failed = true;
            }
        } else {
            result = -2;
            print_progress(_(" - Status: FAIL\n"));
            zip_close_member_file(&file_member);
            if (read_error != 0) {
                file_member.status = err_member.status = "error";
                file_member.error = err_member.error = strerror(read_error);
                // A read error is the file's fault, not the archive's. The
                // member is ended where the data stopped, so that the archive
                // stays readable; it keeps its stat size, which readers flag.
                static const unsigned char nothing = 0;
                int ended = zip_deflate_chunk(&file_member, out_fd, &nothing, 0, Z_FINISH,
                                              &archive->total_written);
                if ((ended == Z_OK || ended == Z_STREAM_END) &&
                    zip_finish_member(out_fd, &file_member, &archive->total_written) == 0)
                    result = -1;
                print_progress(_(" - Status: FAIL reading file, errno=%d\n"), read_error);
                if (quelvane_vbprintf(&stderr_chain, _("Unable to read file: %s: %s\n"),
                                      file_member.source_path.c_str(), strerror(read_error)) < 0) {
                    fprintf(stderr, _("quelvane_vbprintf: unable to write stderr buffer opening: '%s'\n"),
                            path);
                    chain_failed = true;
                }
            }
        }
    }

    if (result != -2 && !chain_failed && (!chain_empty(&stderr_chain) || !chain_empty(&message_chain)) &&
        write_chain_member(out_fd, &stderr_chain, &err_member, archive, &message_chain) != 0)
        result = -2;
    return result;
}

namespace {

// Whether the walk may start more work making two members, named by
// names() only under a budget: not past the deadline, and under a budget
// only with room for the first with a little data and for the second with
// our lines, on top of what the SKIPPED member may need. That room for the
// second is then held.
template <class Names>
bool may_start(const ZipWriter *archive, Names names)
{
    if (stop_reason == nullptr && zip_budget_exhausted())
        stop_reason = "max-size";
    if (stop_reason == nullptr && run_deadline_passed())
        stop_reason = "deadline";
    if (stop_reason == nullptr && zip_budget_active()) {
        // Scrubbed as the header will write them.
        std::pair<std::string, std::string> named = names();
        named = {scrub_text(named.first), scrub_text(named.second)};
        const uint64_t err_cost = zip_member_cost(named.second.size(), NOTE_RESERVE);
        zip_budget_hold(skipped_reserve);
        if (zip_budget_admits(archive->total_written, zip_member_cost(named.first.size(), MIN_DATA) + err_cost))
            zip_budget_hold(skipped_reserve + err_cost);
        else
            stop_reason = "max-size";
    }
    return stop_reason == nullptr;
}

bool may_start_file(const ZipWriter *archive, const ConfigEntry *entry)
{
    return may_start(archive, [entry] {
        return std::make_pair(quelvane_config_path_name(entry, nullptr), quelvane_config_path_name(entry, ".err"));
    });
}

bool may_start_command(const ZipWriter *archive, const ConfigEntry *entry, int index)
{
    return may_start(archive, [entry, index] {
        return std::make_pair(quelvane_config_output_name(entry, ".out", index),
                              quelvane_config_output_name(entry, ".err", index));
    });
}

}  // namespace

int datagen_collect_file_entry(int out_fd, ConfigEntry *entry, ZipWriter *archive, unsigned *errors)
{
    if (out_fd < 0 || entry == nullptr || archive == nullptr || errors == nullptr)
        return -1;
    if (entry->literal_path) {
        int result = datagen_collect_file(out_fd, entry, archive);
        if (result == -1)
            ++*errors;
        if (result != 0)
            note_result(RESULT_ERROR);
        return result;
    }
    // A pattern without matches is no error: configurations list files that
    // only some systems have.
    if (config_glob_next(entry) != 0)
        return 0;
    int result = 0;
    do {
        if (!may_start_file(archive, entry)) {
            note_result(RESULT_SKIPPED);
            break;
        }
        result = datagen_collect_file(out_fd, entry, archive);
        if (result == -2)
            return -2;
        if (result != 0)
            note_result(RESULT_ERROR);
        if (result == -1)
            ++*errors;
    } while (config_glob_next(nullptr) == 0);
    return result;
}

// ---------------------------------------------------------------------------
// README and CONFIG
// ---------------------------------------------------------------------------

namespace {

std::string top_member_name(const char *prefix, const char *name)
{
    std::string text = prefix;
    if (!text.empty())
        text += "/";
    return text + name;
}

}  // namespace

int datagen_write_readme(int out_fd, const char *archive_name, const char *config_file,
                         ZipWriter *archive, const char *prefix, const char *log_sets,
                         int sp_sw_down, int max_domains)
{
    if (out_fd < 0 || archive_name == nullptr || config_file == nullptr || archive == nullptr ||
        prefix == nullptr || log_sets == nullptr)
        return -1;
    try {
        ZipMember member;
        zip_member_init(&member, MEMBER_GENERATED);
        member.name = top_member_name(prefix, "README");

        // Scripts read these lines: they are never translated.
        Bufchain text;
        if (quelvane_vbprintf(&text, "Archive Name: %s\n", archive_name) < 0 ||
            quelvane_vbprintf(&text, "Config File: %s\n", config_file) < 0 ||
            quelvane_vbprintf(&text, "Version: %s\n", "1.1") < 0 ||
            quelvane_vbprintf(&text, "LOG-ONLY MODE: %s\n", log_only_mode ? "yes" : "no") < 0 ||
            quelvane_vbprintf(&text, "Log Sets: %s\n", log_sets) < 0 ||
            quelvane_vbprintf(&text, "SP SW DOWN: %s\n", sp_sw_down ? "yes" : "no") < 0 ||
            quelvane_vbprintf(&text, "Max Domains: %d\n", max_domains) < 0) {
            fputs(_("Error buffering README\n"), stderr);
            return -1;
        }
        // Sent at once, so that an output that fails shows here.
        return write_chain_member(out_fd, &text, &member, archive) == 0 && sink_flush(out_fd) == 0 ? 0 : -2;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

int datagen_write_config(int out_fd, ZipWriter *archive, const char *prefix, const char *config_file)
{
    if (out_fd < 0 || archive == nullptr || prefix == nullptr || config_file == nullptr)
        return -1;
    try {
        struct stat st;
        if (stat(config_file, &st) != 0)
            return -1;
        ZipMember member;
        zip_member_init(&member, MEMBER_FILE);
        member.name = top_member_name(prefix, "CONFIG");
        member.source_path = config_file;
        zip_member_from_stat(&member, st);
        // Unreadable although stat saw it: the run goes on without it.
        member.source_file = fopen(config_file, "r");
        if (member.source_file == nullptr)
            return 0;
        FileClose file_close{&member};
        int read_error = 0;
        if (quelvane_z_output_local_file_header(out_fd, &member, &archive->total_written) != 0 ||
            zip_deflate_file(out_fd, &member, &archive->total_written, &read_error) != 0 ||
            zip_finish_member(out_fd, &member, &archive->total_written) != 0 || sink_flush(out_fd) != 0)
            return -2;
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

// ---------------------------------------------------------------------------
// Collection walk
// ---------------------------------------------------------------------------

int datagen_run_command_entry(int out_fd, ConfigEntry *entry, ZipWriter *archive, unsigned *errors,
                              int max_domains)
{
    if (out_fd < 0 || entry == nullptr || archive == nullptr || errors == nullptr)
        return -1;
    int result = 0;
    for (int index = 0;; ++index) {
        try {
            entry->command = quelvane_config_command_string(entry, index);
        } catch (const std::bad_alloc &) {
            entry->command.clear();
        }
        if (entry->command.empty()) {
            ++*errors;
            note_result(RESULT_ERROR);
            result = 0;
        } else if (index > 0 && !may_start_command(archive, entry, index)) {
            note_result(RESULT_SKIPPED);
            break;
        } else {
            result = quelvane_execute_command(out_fd, entry, archive, index);
            if (result == -2)
                return -2;
            if (result == -1) {
                ++*errors;
                note_result(RESULT_ERROR);
            }
        }
        // An interrupt stops the next domain's run as it stops the next entry.
        if (!entry->uses_domain || index + 1 >= max_domains || interrupted_by_user)
            break;
    }
    return result;
}

namespace {

const char *const KIND_NAMES[] = {"cmd", "file", "log", "cut"};
const char *const RESULT_NAMES[] = {"ok", "error", "timeout", "interrupted", "skipped"};

// The entries the limits left out, for the SKIPPED member and the manifest.
struct Skipped {
    const char *reason;
    size_t number;
    const char *kind;
    std::string member;

    std::string line() const
    {
        return std::string(reason) + " " + std::to_string(number) + " " + kind + " " + member + "\n";
    }
};
std::vector<Skipped> skipped_entries;

long long elapsed_ms(const struct timespec &start)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
}

// The entry's member as the progress channel and SKIPPED name it: a
// command's first output member, a file's member or pattern.
std::string entry_member(const ConfigEntry *entry)
{
    if (entry->type == ENTRY_CMD || entry->type == ENTRY_CUT)
        return quelvane_config_output_name(entry, ".out", 0);
    return quelvane_config_path_name(entry, nullptr);
}

}  // namespace

int datagen_walk_entries(int out_fd, ConfigList *list, ZipWriter *archive, uint32_t datasets,
                         int sp_sw_down, int max_domains)
{
    if (out_fd < 0 || list == nullptr || archive == nullptr)
        return -1;
    try {
        std::vector<ConfigEntry *> selected;
        std::vector<std::string> members;
        for (ConfigEntry *entry = list->head; entry != nullptr; entry = entry->next) {
            if ((sp_sw_down && !entry->collect_when_spswdown) || (entry->datasets & datasets) == 0 ||
                entry->type > ENTRY_CUT)
                continue;
            selected.push_back(entry);
            members.push_back(scrub_text(entry_member(entry)));
        }
        // What SKIPPED may still need from each entry on: a line for it and
        // every later one, and the member's records (its name is never longer
        // than an entry's directory plus "/SKIPPED").
        std::vector<uint64_t> reserve(selected.size() + 1, 0);
        if (zip_budget_active()) {
            size_t longest = 0;
            for (size_t i = selected.size(); i-- > 0;) {
                reserve[i] = reserve[i + 1] + Skipped{"max-size", i + 1, KIND_NAMES[selected[i]->type], members[i]}.line().size();
                longest = std::max(longest, selected[i]->member_name.size());
            }
            for (size_t i = 0; i < selected.size(); ++i)
                reserve[i] = zip_member_cost(longest + 8, reserve[i]);
        }
        stop_reason = nullptr;
        skipped_entries.clear();
        progress_event("BEGIN %zu v%d\n", selected.size(), PROGRESS_PROTOCOL);

        unsigned errors = 0;
        for (size_t i = 0; i < selected.size() && !interrupted_by_user; ++i) {
            ConfigEntry *entry = selected[i];
            const size_t number = i + 1;
            const std::string &member = members[i];
            skipped_reserve = reserve[i];
            if (stop_reason == nullptr)
                gentle_pause();
            bool start = entry->type == ENTRY_CMD || entry->type == ENTRY_CUT ? may_start_command(archive, entry, 0)
                                                                              : may_start_file(archive, entry);
            auto leave_out = [&] {
                skipped_entries.push_back({stop_reason, number, KIND_NAMES[entry->type], member});
                ++errors;
            };
            if (!start) {
                leave_out();
                progress_event("END %zu %s skipped 0 0 0\n", number, member.c_str());
                continue;
            }

            progress_event("START %zu %s %s\n", number, KIND_NAMES[entry->type], member.c_str());
            struct timespec started;
            clock_gettime(CLOCK_MONOTONIC, &started);
            const uint64_t in_before = zip_data_total();
            const uint64_t out_before = archive->total_written;
            entry_result = RESULT_OK;
            int result = entry->type == ENTRY_CMD || entry->type == ENTRY_CUT
                             ? datagen_run_command_entry(out_fd, entry, archive, &errors, max_domains)
                             : datagen_collect_file_entry(out_fd, entry, archive, &errors);
            if (result == -2)
                return -2;
            if (entry_result == RESULT_SKIPPED) {
                leave_out();  // partly collected: the rest of its matches or domains
            }
            progress_event("END %zu %s %s %llu %llu %lld\n", number, member.c_str(), RESULT_NAMES[entry_result],
                           static_cast<unsigned long long>(zip_data_total() - in_before),
                           static_cast<unsigned long long>(archive->total_written - out_before),
                           elapsed_ms(started));
        }
        if (interrupted_by_user)
            return -1;
        return static_cast<int>(errors);
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

int datagen_write_skipped(int out_fd, ZipWriter *archive, const char *prefix)
{
    if (out_fd < 0 || archive == nullptr || prefix == nullptr)
        return -1;
    if (skipped_entries.empty())
        return 0;
    try {
        ZipMember member;
        zip_member_init(&member, MEMBER_GENERATED);
        member.name = top_member_name(prefix, "SKIPPED");
        Bufchain text;
        for (const Skipped &entry : skipped_entries) {
            const std::string line = entry.line();
            if (quelvane_bufchain_add(&text, line.data(), static_cast<int>(line.size())) != 0)
                return -1;
        }
        // Its room was held all along; nothing else is left to hold it for.
        zip_budget_hold(0);
        return write_chain_member(out_fd, &text, &member, archive) == 0 ? 0 : -2;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

namespace {

std::string utc_time(int64_t milliseconds)
{
    time_t seconds = static_cast<time_t>(milliseconds / 1000);
    struct tm parts;
    char text[64] = "";
    if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, 32, "%Y-%m-%dT%H:%M:%S", &parts) == 0)
        return "";
    snprintf(text + strlen(text), sizeof text - strlen(text), ".%03dZ", static_cast<int>(milliseconds % 1000));
    return text;
}

nlohmann::ordered_json describe(const ZipMember &member)
{
    nlohmann::ordered_json result = {{"status", member.status}};
    if (member.status == "exit")
        result["exit_status"] = member.exit_status;
    if (!member.error.empty())
        result["error"] = member.error;
    result["cut"] = member.cut;
    char crc_text[16];
    snprintf(crc_text, sizeof crc_text, "%08x", member.crc32);
    nlohmann::ordered_json made;
    if (!member.command.empty())
        made = {{"kind", "command"}, {"command", member.command}};
    else if (!member.source_path.empty())
        made = {{"kind", "file"}, {"path", member.source_path}};
    else
        made = {{"kind", "generated"}};
    return {{"name", member.name},
            {"made_by", made},
            {"result", result},
            {"bytes_in", member.data_in},
            {"bytes_out", member.compressed_size},
            {"crc32", crc_text},
            {"sha256", hex(member.sha256, sizeof member.sha256)},
            {"started", utc_time(member.started_ms)},
            {"duration_ms", member.duration_ms}};
}

// Deflates text into the member as one more piece of it.
int add_text(int out_fd, ZipMember *member, ZipWriter *archive, const std::string &text, int flush)
{
    int result = zip_deflate_chunk(member, out_fd, text.data(), static_cast<unsigned>(text.size()), flush,
                                   &archive->total_written);
    return result == Z_OK || result == Z_STREAM_END ? 0 : -1;
}

}  // namespace

int datagen_write_manifest(int out_fd, ZipWriter *archive, const char *prefix,
                           const std::vector<std::pair<std::string, std::string>> &options)
{
    if (out_fd < 0 || archive == nullptr || prefix == nullptr)
        return -1;
    try {
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        nlohmann::ordered_json given = nlohmann::ordered_json::object();
        for (const auto &option : options)
            given[option.first] = option.second;
        nlohmann::ordered_json head = {{"tool", "quelvane"}, {"version", "1.1"}, {"host", host},
                                       {"created", utc_time(static_cast<int64_t>(time(nullptr)) * 1000)},
                                       {"options", given}};
        nlohmann::ordered_json left_out = nlohmann::ordered_json::array();
        for (const Skipped &entry : skipped_entries)
            left_out.push_back({{"number", entry.number}, {"kind", entry.kind}, {"member", entry.member},
                                {"reason", entry.reason}});
        head["skipped"] = left_out;
        // Members one at a time, so that a large archive's list never sits in
        // memory as text: the head without its closing brace, then each.
        std::string text = head.dump(1);
        text.erase(text.find_last_not_of(" \n", text.find_last_of('}') - 1) + 1);
        text += ",\n \"members\": [";

        ZipMember member;
        zip_member_init(&member, MEMBER_GENERATED);
        member.name = top_member_name(prefix, "MANIFEST.json");
        if (quelvane_z_output_local_file_header(out_fd, &member, &archive->total_written) != 0)
            return -2;
        const std::vector<ZipMember> &members = zip_member_list();
        for (size_t i = 0; i < members.size(); ++i) {
            text += (i == 0 ? "\n  " : ",\n  ") + describe(members[i]).dump(-1, ' ', false,
                                                                             nlohmann::json::error_handler_t::replace);
            if (text.size() >= 32768) {
                if (add_text(out_fd, &member, archive, text, Z_NO_FLUSH) != 0)
                    return -2;
                text.clear();
            }
        }
        text += "\n ]\n}\n";
        if (add_text(out_fd, &member, archive, text, Z_FINISH) != 0 ||
            zip_finish_member(out_fd, &member, &archive->total_written) != 0)
            return -2;
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    } catch (const nlohmann::json::exception &) {
        return -1;
    }
}
