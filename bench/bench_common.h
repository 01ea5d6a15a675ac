// What the collection benchmarks share: log-like text to collect.
#ifndef QUELVANE_BENCH_COMMON_H
#define QUELVANE_BENCH_COMMON_H

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// The password of the encrypted cases, for the tool and the loop alike.
const char BENCH_PASSWORD[] = "bench-password";

// Log lines with varying numbers and words: compresses about as real
// logs do, neither trivially nor not at all.
inline std::string log_text(size_t size, uint32_t seed)
{
    static const char *const messages[] = {
        "kernel: [%u.%06u] eth%u: link up, 1000 Mbps, full duplex, rx %u tx %u",
        "sshd[%u]: Accepted publickey for admin from 10.%u.%u.%u port %u ssh2",
        "controller[%u]: fan %u speed %u rpm, inlet %u.%u C, exhaust %u C",
        "cron[%u]: (root) CMD (/usr/lib/ctl/poll --domain %u --interval %u) exit %u",
        "kernel: [%u.%06u] sd %u:0:0:0: [sd%c] %u 512-byte logical blocks, write cache %s",
        "daemon[%u]: heartbeat %u from sp%u ok, latency %u us, queue %u",
    };
    std::string text;
    text.reserve(size + 256);
    uint32_t state = seed * 2654435761u + 1;
    auto next = [&state] {
        state = state * 1664525u + 1013904223u;
        return state >> 8;
    };
    char line[256];
    while (text.size() < size) {
        uint32_t t = next();
        int head = snprintf(line, sizeof line, "Nov %2u %02u:%02u:%02u ctl%u ", 1 + t % 28, t % 24,
                            t / 24 % 60, t / 1440 % 60, t % 4);
        unsigned kind = next() % 6;
        int body;
        if (kind == 4)
            body = snprintf(line + head, sizeof line - head, messages[kind], next() % 90000,
                            next() % 1000000, next() % 8, 'a' + next() % 4, next(),
                            next() % 2 ? "enabled" : "disabled");
        else
            body = snprintf(line + head, sizeof line - head, messages[kind], next() % 90000,
                            next() % 1000000, next() % 8, next() % 100000, next() % 100000,
                            next() % 256);
        text.append(line, static_cast<size_t>(head + body));
        text += '\n';
    }
    text.resize(size);
    return text;
}

// The bare loop's output: buffered, optionally through AES-128-CBC in the
// salted format, as quelvane's sink writes it.
class Output {
public:
    Output(const std::string &path, bool encrypt) : fd_(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644))
    {
        if (!encrypt)
            return;
        unsigned char salt[8], key[32], iv[16];
        RAND_bytes(salt, sizeof salt);
        EVP_BytesToKey(EVP_aes_128_cbc(), EVP_md5(), salt, reinterpret_cast<const unsigned char *>(BENCH_PASSWORD),
                       sizeof BENCH_PASSWORD - 1, 1, key, iv);
        cipher_ = EVP_CIPHER_CTX_new();
        EVP_EncryptInit_ex(cipher_, EVP_aes_128_cbc(), nullptr, key, iv);
        flush_raw("Salted__", 8);
        flush_raw(salt, sizeof salt);
    }
    ~Output()
    {
        put_out();
        if (cipher_ != nullptr) {
            int count = 0;
            EVP_EncryptFinal_ex(cipher_, sealed_, &count);
            flush_raw(sealed_, static_cast<size_t>(count));
            EVP_CIPHER_CTX_free(cipher_);
        }
        close(fd_);
    }
    void put(const void *data, size_t size)
    {
        const char *bytes = static_cast<const char *>(data);
        buffer_.insert(buffer_.end(), bytes, bytes + size);
        if (buffer_.size() >= 65536)
            put_out();
    }
    void u16(uint32_t v) { unsigned char b[2] = {uint8_t(v), uint8_t(v >> 8)}; put(b, 2); }
    void u32(uint32_t v) { u16(v & 0xffff); u16(v >> 16); }

private:
    void put_out()
    {
        for (size_t at = 0; at < buffer_.size(); at += 1024) {
            size_t piece = std::min<size_t>(1024, buffer_.size() - at);
            if (cipher_ == nullptr) {
                flush_raw(buffer_.data() + at, buffer_.size() - at);
                break;
            }
            int count = 0;
            EVP_EncryptUpdate(cipher_, sealed_, &count, reinterpret_cast<unsigned char *>(buffer_.data() + at),
                              static_cast<int>(piece));
            flush_raw(sealed_, static_cast<size_t>(count));
        }
        buffer_.clear();
    }
    void flush_raw(const void *data, size_t size)
    {
        if (write(fd_, data, size) != static_cast<ssize_t>(size))
            abort();
    }
    int fd_;
    EVP_CIPHER_CTX *cipher_ = nullptr;
    unsigned char sealed_[1024 + 32];
    std::vector<char> buffer_;
};

// A real streaming ZIP of the members that read() gives it, one at a time.
class BareZip {
public:
    BareZip(const std::string &path, int level, bool encrypt) : out_(path, encrypt)
    {
        deflateInit2(&stream_, level, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
    }
    ~BareZip()
    {
        uint32_t start = offset_;
        for (const Member &m : members_) {
            out_.u32(0x02014b50); out_.u16(20); out_.u16(20); out_.u16(8); out_.u16(8); out_.u32(0x00210000);
            out_.u32(m.crc); out_.u32(m.csize); out_.u32(m.usize); out_.u16(m.name.size()); out_.u16(0);
            out_.u16(0); out_.u16(0); out_.u16(0); out_.u32(0); out_.u32(m.offset); out_.put(m.name.data(), m.name.size());
            offset_ += 46 + m.name.size();
        }
        out_.u32(0x06054b50); out_.u16(0); out_.u16(0); out_.u16(members_.size()); out_.u16(members_.size());
        out_.u32(offset_ - start); out_.u32(start); out_.u16(0);
        deflateEnd(&stream_);
    }
    // Reads fd to its end into one member.
    void member(const std::string &name, int fd)
    {
        Member m{name, offset_, 0, 0, 0};
        out_.u32(0x04034b50); out_.u16(20); out_.u16(8); out_.u16(8); out_.u32(0x00210000);
        out_.u32(0); out_.u32(0); out_.u32(0); out_.u16(name.size()); out_.u16(0); out_.put(name.data(), name.size());
        deflateReset(&stream_);
        m.crc = crc32(0, nullptr, 0);
        int flush;
        do {
            ssize_t count = read(fd, in_, sizeof in_);
            count = count < 0 ? 0 : count;
            m.crc = crc32(m.crc, in_, static_cast<uInt>(count));
            m.usize += static_cast<uint32_t>(count);
            flush = count == 0 ? Z_FINISH : Z_NO_FLUSH;
            stream_.next_in = in_;
            stream_.avail_in = static_cast<uInt>(count);
            do {
                stream_.next_out = deflated_;
                stream_.avail_out = sizeof deflated_;
                deflate(&stream_, flush);
                out_.put(deflated_, sizeof deflated_ - stream_.avail_out);
            } while (stream_.avail_out == 0);
        } while (flush != Z_FINISH);
        m.csize = static_cast<uint32_t>(stream_.total_out);
        out_.u32(0x08074b50); out_.u32(m.crc); out_.u32(m.csize); out_.u32(m.usize);
        offset_ += 30 + name.size() + m.csize + 16;
        members_.push_back(m);
    }

private:
    struct Member {
        std::string name;
        uint32_t offset, crc, csize, usize;
    };
    Output out_;
    z_stream stream_{};
    unsigned char in_[32768], deflated_[32768];
    uint32_t offset_ = 0;
    std::vector<Member> members_;
};

#endif
