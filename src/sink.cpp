#include "sink.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>

#include "console.h"
#include "pacing.h"
#include "signals.h"

namespace {

const char ENCRYPTED_MAGIC[] = "Salted__";
constexpr size_t SALT_LENGTH = 8;
constexpr size_t CIPHER_PIECE = 1024;
// Archive bytes gather here and leave in large writes.
constexpr size_t PENDING_SIZE = 64 * 1024;
// Past the stall limit a reader still gets half a second to make room before
// each write: one that is slow but reading finishes the archive.
constexpr int64_t LAST_WAIT_MS = 500;

// The archive's format is fixed: no system configuration may change the
// cipher or digest (or make MD5 unavailable), and not reading it keeps a
// megabyte of provider set-up out of memory.
void init_crypto() { OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr); }

struct BioFree {
    void operator()(BIO *bio) const { BIO_free_all(bio); }
};
struct CmsFree {
    void operator()(CMS_ContentInfo *cms) const { CMS_ContentInfo_free(cms); }
};
struct CipherFree {
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};

}  // namespace

const char *failure_text(int error)
{
    return error == ETIMEDOUT ? _("the reader stalled") : strerror(error);
}

void Sha256::Free::operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }

Sha256::Sha256() : context_(EVP_MD_CTX_new())
{
    if (!context_ || !EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr))
        throw std::bad_alloc();
}

Sha256::~Sha256() = default;

void Sha256::restart() { EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr); }

void Sha256::update(const void *data, size_t length) { EVP_DigestUpdate(context_.get(), data, length); }

void Sha256::finish(unsigned char digest[32]) { EVP_DigestFinal_ex(context_.get(), digest, nullptr); }

std::string hex(const unsigned char *bytes, size_t count)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i)
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

Certificate::~Certificate() { X509_free(certificate_); }

Result Certificate::load(const std::string &path)
{
    init_crypto();
    path_ = path;
    if (FILE *file = fopen(path.c_str(), "r")) {
        certificate_ = PEM_read_X509(file, nullptr, nullptr, nullptr);
        fclose(file);
    }
    if (certificate_ == nullptr) {
        fprintf(stderr, _("Unable to read a PEM certificate from %s\n"), path.c_str());
        return Result::refused;
    }
    // Only keys that CMS can encrypt to: RSA (key transport) and EC (key agreement).
    const EVP_PKEY *key = X509_get0_pubkey(certificate_);
    const int type = key != nullptr ? EVP_PKEY_get_base_id(key) : EVP_PKEY_NONE;
    if (type != EVP_PKEY_RSA && type != EVP_PKEY_EC) {
        fprintf(stderr, _("Refusing certificate %s: its key cannot receive an encrypted archive (RSA or EC only)\n"),
                path.c_str());
        return Result::refused;
    }
    const ASN1_TIME *from = X509_get0_notBefore(certificate_), *until = X509_get0_notAfter(certificate_);
    if (X509_cmp_current_time(from) < 0 && X509_cmp_current_time(until) > 0)
        return Result::ok;
    std::string dates[2];
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<BIO, BioFree> text(BIO_new(BIO_s_mem()));
        char *data = nullptr;
        if (text && ASN1_TIME_print(text.get(), i == 0 ? from : until) == 1) {
            const long length = BIO_get_mem_data(text.get(), &data);
            dates[i].assign(data, static_cast<size_t>(length));
        }
    }
    fprintf(stderr, _("Refusing certificate %s: valid from %s until %s, not now\n"), path.c_str(), dates[0].c_str(),
            dates[1].c_str());
    return Result::refused;
}

// Either a password's cipher, or CMS to a certificate: the CMS filter writes
// into a memory BIO that is emptied to the output after every write, so
// memory stays flat.
struct Sink::Cipher {
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> context;
    // One piece of input plus room for the block the cipher carries over.
    unsigned char staging[CIPHER_PIECE + 32];
    std::unique_ptr<CMS_ContentInfo, CmsFree> cms;
    std::unique_ptr<BIO, BioFree> chain;  // the CMS filter over out
    BIO *out = nullptr;
};

Sink::Sink() : pending_(new unsigned char[PENDING_SIZE]) {}

Sink::~Sink() { close_output(); }

void Sink::attach(int fd, bool owned)
{
    fd_ = fd;
    owned_ = owned;
    // Only a pipe or a socket has a reader that can stop reading.
    struct stat status;
    may_stall_ = fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

// Room in a pipe or socket: true when a write of up to PIPE_BUF bytes will
// not block. Otherwise false with errno ETIMEDOUT (the reader stalled),
// EINTR (an interrupt came) or poll's own. The watched signals are held
// back outside the poll, so one arriving just before it still ends it.
bool Sink::wait_for_room() const
{
    const sigset_t watched = watched_signals();
    for (;;) {
        int64_t wait_ms = -1;
        if (stall_limit_ms_ >= 0)
            wait_ms = std::max(stall_limit_ms_ - clock_ms(CLOCK_MONOTONIC), int64_t{0}) + LAST_WAIT_MS;
        struct timespec wait = {static_cast<time_t>(wait_ms / 1000), static_cast<long>(wait_ms % 1000 * 1000000)};
        struct pollfd slot = {fd_, POLLOUT, 0};
        sigset_t previous;
        sigprocmask(SIG_BLOCK, &watched, &previous);
        const int ready = interrupted_by_user ? (errno = EINTR, -1) : ppoll(&slot, 1, wait_ms < 0 ? nullptr : &wait, &previous);
        const int error = errno;
        sigprocmask(SIG_SETMASK, &previous, nullptr);
        if (ready > 0)
            return true;
        errno = ready == 0 ? ETIMEDOUT : error;
        if (ready == 0 || error != EINTR || interrupted_by_user)
            return false;
    }
}

// Writes all of it. A short count goes on with the rest: a record that
// meets a full device or a file-size limit then fails with that error
// instead of passing for written. Only an interrupt ends a write that a
// signal broke.
bool Sink::write_all(const void *data, size_t length) const
{
    const char *bytes = static_cast<const char *>(data);
    for (size_t done = 0; done < length;) {
        if (may_stall_ && !wait_for_room())
            return false;
        const size_t piece = may_stall_ ? std::min(length - done, size_t{PIPE_BUF}) : length - done;
        const ssize_t written = ::write(fd_, bytes + done, piece);
        if (written == -1 && errno == EINTR && !interrupted_by_user)
            continue;
        if (written <= 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

void Sink::close_output()
{
    if (owned_ && fd_ != -1)
        ::close(fd_);
    fd_ = -1;
    owned_ = false;
}

bool Sink::sync() const { return fsync(fd_) == 0; }

Result Sink::send_header(const std::string &text)
{
    // Whole, so the web server sees the header before any data.
    if (write_all(text.data(), text.size()))
        return Result::ok;
    const int error = errno;  // the catalogue lookup may change errno
    if (error == EINTR)
        return Result::interrupted;
    fprintf(stderr, _("Error writing html file download header: %s\n"), failure_text(error));
    return Result::output_failure;
}

int Sink::deliver(const void *bytes, size_t count)
{
    if (!write_all(bytes, count))
        return -1;
    delivered_ += count;
    if (digest_)
        digest_->update(bytes, count);
    return 0;
}

int Sink::drain_cms()
{
    char *bytes = nullptr;
    const long count = BIO_get_mem_data(cipher_->out, &bytes);
    const int result = count > 0 ? deliver(bytes, static_cast<size_t>(count)) : 0;
    (void)BIO_reset(cipher_->out);
    return result;
}

// Every byte that leaves for the output passes here, the CMS filter first
// when there is one.
int Sink::write_out(const void *bytes, size_t count)
{
    int result;
    if (cipher_ && cipher_->chain)
        result = BIO_write(cipher_->chain.get(), bytes, static_cast<int>(count)) == static_cast<int>(count)
                     ? drain_cms()
                     : -1;
    else
        result = deliver(bytes, count);
    if (result == 0)
        return 0;
    const int error = errno;  // before the catalogue lookup can touch it
    if (error != EINTR)  // an interrupt is the run's to report
        fprintf(stderr, "%s: %s\n", _("Error writing data file"), failure_text(error));
    errno = error;
    return -1;
}

int Sink::flush_pending()
{
    const size_t count = pending_count_;
    pending_count_ = 0;
    return count == 0 ? 0 : write_out(pending_.get(), count);
}

int Sink::gather(const void *bytes, size_t count)
{
    if (pending_count_ + count > PENDING_SIZE && flush_pending() != 0)
        return -1;
    if (count >= PENDING_SIZE)
        return write_out(bytes, count);
    memcpy(pending_.get() + pending_count_, bytes, count);
    pending_count_ += count;
    return 0;
}

int Sink::flush() { return flush_pending(); }

Result Sink::start_password(const char *password, unsigned pbkdf2_iterations)
{
    init_crypto();
    auto cipher = std::make_unique<Cipher>();
    cipher->context.reset(EVP_CIPHER_CTX_new());
    if (!cipher->context)
        return Result::output_failure;
    const EVP_CIPHER *aes = EVP_aes_128_cbc();
    unsigned char salt[SALT_LENGTH] = {};
    (void)RAND_bytes(salt, sizeof salt);
    unsigned char key[32] = {}, iv[16] = {};
    const int length = static_cast<int>(strlen(password));
    bool derived = true;
    if (pbkdf2_iterations > 0) {
        // What openssl enc -pbkdf2 -iter N derives: key and IV from one run.
        unsigned char both[32];
        derived = PKCS5_PBKDF2_HMAC(password, length, salt, sizeof salt, static_cast<int>(pbkdf2_iterations),
                                    EVP_sha256(), sizeof both, both) == 1;
        memcpy(key, both, 16);
        memcpy(iv, both + 16, 16);
        OPENSSL_cleanse(both, sizeof both);
    } else {
        EVP_BytesToKey(aes, EVP_md5(), salt, reinterpret_cast<const unsigned char *>(password), length, 1, key, iv);
    }
    const bool initialised = derived && EVP_EncryptInit_ex(cipher->context.get(), aes, nullptr, key, iv) == 1;
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
    if (!initialised || flush_pending() != 0 || deliver(ENCRYPTED_MAGIC, sizeof ENCRYPTED_MAGIC - 1) != 0 ||
        deliver(salt, sizeof salt) != 0)
        return Result::output_failure;
    cipher_ = std::move(cipher);
    return Result::ok;
}

Result Sink::start_recipient(const Certificate &certificate)
{
    init_crypto();
    auto cipher = std::make_unique<Cipher>();
    STACK_OF(X509) *recipients = sk_X509_new_null();
    if (recipients != nullptr && X509_up_ref(certificate.get()) == 1 &&
        !sk_X509_push(recipients, certificate.get()))
        X509_free(certificate.get());
    // Streaming: the content is not given here but written through the BIO.
    if (recipients != nullptr && sk_X509_num(recipients) == 1)
        cipher->cms.reset(CMS_encrypt(recipients, nullptr, EVP_aes_256_cbc(), CMS_BINARY | CMS_STREAM));
    sk_X509_pop_free(recipients, X509_free);
    cipher->out = cipher->cms ? BIO_new(BIO_s_mem()) : nullptr;
    BIO *chain = cipher->out != nullptr ? BIO_new_CMS(cipher->out, cipher->cms.get()) : nullptr;
    if (chain == nullptr) {
        BIO_free(cipher->out);
        fprintf(stderr, _("Unable to encrypt to the certificate in %s\n"), certificate.path().c_str());
        return Result::refused;
    }
    cipher->chain.reset(chain);
    if (flush_pending() != 0)
        return Result::output_failure;
    cipher_ = std::move(cipher);
    return drain_cms() == 0 ? Result::ok : Result::output_failure;
}

int Sink::write(const void *data, size_t length)
{
    const unsigned char *input = static_cast<const unsigned char *>(data);
    if (!cipher_ || !cipher_->context)
        return length == 0 ? 0 : gather(input, length);
    while (length > 0) {
        const int piece = static_cast<int>(std::min(length, CIPHER_PIECE));
        int count = 0;
        if (!EVP_EncryptUpdate(cipher_->context.get(), cipher_->staging, &count, input, piece)) {
            fputs(_("ERROR: EncryptUpdate\n"), stderr);
            return -1;
        }
        input += piece;
        length -= static_cast<size_t>(piece);
        // Nothing when the cipher holds the bytes back for the next block.
        if (count > 0 && gather(cipher_->staging, static_cast<size_t>(count)) != 0)
            return -1;
    }
    return 0;
}

int Sink::finish()
{
    if (!cipher_)
        return 0;
    int result;
    if (cipher_->chain) {
        result = flush_pending() == 0 && BIO_flush(cipher_->chain.get()) == 1 ? drain_cms() : -1;
    } else {
        int count = 0;
        if (!EVP_CipherFinal_ex(cipher_->context.get(), cipher_->staging, &count))
            return -1;
        result = flush_pending() == 0 ? deliver(cipher_->staging, static_cast<size_t>(count)) : -1;
    }
    cipher_.reset();
    return result;
}

void Sink::hash_delivered() { digest_ = std::make_unique<Sha256>(); }

std::string Sink::delivered_sha256()
{
    if (!digest_)
        return "";
    unsigned char digest[32];
    digest_->finish(digest);
    digest_.reset();
    return hex(digest, sizeof digest);
}
