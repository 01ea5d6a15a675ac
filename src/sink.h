// The only way out for the archive's bytes: it owns the output descriptor,
// gathers small writes into large ones, encrypts on request (salted
// AES-128-CBC as openssl enc reads it, or CMS to a certificate), and counts
// and hashes what it delivers.
#ifndef QUELVANE_SINK_H
#define QUELVANE_SINK_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <openssl/types.h>

#include "result.h"

// The SHA-256 of what is handed to update().
class Sha256 {
public:
    Sha256();
    ~Sha256();
    void restart();
    void update(const void *data, size_t length);
    // The digest of everything since the start.
    void finish(unsigned char digest[32]);

private:
    struct Free {
        void operator()(EVP_MD_CTX *context) const;
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

std::string hex(const unsigned char *bytes, size_t count);
// A write's errno as the output's failure reads: ETIMEDOUT is a stalled reader.
const char *failure_text(int error);

// A certificate to encrypt to, read before any output is opened.
class Certificate {
public:
    ~Certificate();
    // Refused after a message when path holds no PEM certificate.
    Result load(const std::string &path);
    X509 *get() const { return certificate_; }
    const std::string &path() const { return path_; }

private:
    X509 *certificate_ = nullptr;
    std::string path_;
};

class Sink {
public:
    Sink();
    ~Sink();
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    // The output from now on; owned ones are closed by close().
    void attach(int fd, bool owned);
    // A write that waits for a pipe's or socket's reader gives up at this
    // CLOCK_MONOTONIC time (or a second after it), as one that stalled.
    void set_stall_limit(int64_t at_ms) { stall_limit_ms_ = at_ms; }
    // Written as it stands, before the archive: neither encrypted, counted
    // nor hashed. Refused after a message.
    Result send_header(const std::string &text);
    // Encryption of everything written from now on. With pbkdf2_iterations
    // 0 the key comes from one MD5 pass (openssl enc -md md5), otherwise
    // from PBKDF2-SHA256 (openssl enc -pbkdf2 -iter N).
    Result start_password(const char *password, unsigned pbkdf2_iterations);
    // The archive streams as CMS enveloped data (BER) to the certificate's key.
    Result start_recipient(const Certificate &certificate);
    // 0, or -1 after the write error's message.
    int write(const void *data, size_t length);
    // Sends what write() has gathered: wherever a reader could otherwise
    // wait for it (before a command is waited on, at the archive's end).
    int flush();
    // Ends the encryption: the last cipher block or the CMS trailer.
    int finish();
    // From now on the delivered bytes are hashed; delivered_sha256() gives
    // the hex digest once.
    void hash_delivered();
    std::string delivered_sha256();
    // Archive bytes delivered so far, encryption included.
    uint64_t delivered() const { return delivered_; }
    // What the password encryption adds at most: header, salt and a block.
    static constexpr uint64_t PASSWORD_OVERHEAD = 32;
    // The output's data on its device; false with errno set.
    bool sync() const;
    void close_output();

private:
    struct Cipher;
    bool wait_for_room() const;
    bool write_all(const void *data, size_t length) const;
    int gather(const void *bytes, size_t count);
    int write_out(const void *bytes, size_t count);
    int deliver(const void *bytes, size_t count);
    int drain_cms();
    int flush_pending();

    int fd_ = -1;
    bool owned_ = false;
    bool may_stall_ = false;
    int64_t stall_limit_ms_ = -1;
    std::unique_ptr<unsigned char[]> pending_;  // gathered for one large write
    size_t pending_count_ = 0;
    uint64_t delivered_ = 0;
    std::unique_ptr<Sha256> digest_;
    std::unique_ptr<Cipher> cipher_;
};

#endif
