// Data generation and the output sink.
#include "quelvane_datagen.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
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

ssize_t write_retrying(int fd, const void *data, size_t length)
{
    ssize_t written;
    do {
        written = write(fd, data, length);
    } while (written == -1 && errno == EINTR);
    return written;
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

    cipher.reset(EVP_CIPHER_CTX_new());
    if (!cipher)
        return -1;
    const EVP_MD *digest = EVP_md5();
    const EVP_CIPHER *aes = EVP_aes_128_cbc();

    unsigned char salt[SALT_LENGTH] = {};
    (void)RAND_bytes(salt, sizeof salt);
    EVP_BytesToKey(aes, digest, salt, reinterpret_cast<const unsigned char *>(password),
                   static_cast<int>(strlen(password)), 1, key, iv);
    int initialised = EVP_EncryptInit_ex(cipher.get(), aes, nullptr, key, iv);
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(iv, sizeof iv);
    if (!initialised)
        return -1;

    if (out_fd >= 0) {
        // A short count is taken as success: the output is a regular file
        // or a blocking pipe.
        if (write_retrying(out_fd, ENCRYPTED_MAGIC, sizeof ENCRYPTED_MAGIC - 1) == -1 ||
            write_retrying(out_fd, salt, sizeof salt) == -1) {
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
    ssize_t last = 0;
    while (length > 0 && last != -1) {
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
        if (count == 0)  // the cipher holds the bytes back for the next block
            break;
        last = write_retrying(out_fd, bytes, count);
        if (last == -1) {
            int error = errno;  // before the catalogue lookup can touch it
            fprintf(stderr, "%s: %s\n", _("Error writing data file"), strerror(error));
        }
        // A short count is taken as done: the rest of the piece is not
        // written again.
    }
    return last == -1 ? -1 : 0;
}

int sink_encrypt_finish(int out_fd)
{
    if (!encryption_active || !cipher)
        return -1;
    if (!EVP_CipherFinal_ex(cipher.get(), staging, &staging_count))
        return -1;
    if (out_fd < 0)
        return -1;
    ssize_t written = write_retrying(out_fd, staging, static_cast<size_t>(staging_count));
    cipher.reset();
    return written == -1 ? -1 : 0;
}

// ---------------------------------------------------------------------------
// Collection
// ---------------------------------------------------------------------------

int quelvane_execute_command(int, ConfigEntry *, ZipWriter *, int) { return -1; }
int zip_init_file_member(ConfigEntry *, ZipMember *, std::string *) { return -1; }
int zip_init_err_member(ConfigEntry *, ZipMember *) { return -1; }
int datagen_collect_file(int, ConfigEntry *, ZipWriter *) { return -1; }
int datagen_collect_file_entry(int, ConfigEntry *, ZipWriter *, unsigned *) { return -1; }
int datagen_write_readme(int, const char *, const char *, ZipWriter *, const char *, const char *,
                         int, int)
{
    return -1;
}
int datagen_write_config(int, ZipWriter *, const char *, const char *) { return -1; }
int datagen_walk_entries(int, ConfigList *, ZipWriter *, uint32_t, int, int) { return -1; }
int datagen_run_command_entry(int, ConfigEntry *, ZipWriter *, unsigned *, int) { return -1; }
