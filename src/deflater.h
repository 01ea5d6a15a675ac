// Raw deflate on one of two engines: zlib, at any level, and the fast
// engine (ISA-L's igzip level 1), loaded from libisal.so.2 at run time where
// the build has it, so that the binary needs no more than the C library.
// Either is driven as zlib is: input, output, a flush code, zlib's results.
#ifndef QUELVANE_DEFLATER_H
#define QUELVANE_DEFLATER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <zlib.h>

enum class Engine { zlib, isal };

struct Compression {
    Engine engine = Engine::zlib;
    int level = Z_DEFAULT_COMPRESSION;  // zlib's; the fast engine has only its level 1

    const char *engine_name() const { return engine == Engine::isal ? "isa-l" : "zlib"; }
    int level_number() const { return level == Z_DEFAULT_COMPRESSION ? 6 : level; }
};

// What --fast gets on this machine: the fast engine when it loads, else
// zlib level 1; *why says why not.
Compression fast_compression(std::string *why);
// The engines this binary has, for --version.
std::string engines_description();

class Deflater {
public:
    explicit Deflater(Compression compression);
    ~Deflater();
    Deflater(const Deflater &) = delete;
    Deflater &operator=(const Deflater &) = delete;

    const Compression &compression() const { return compression_; }
    // A new stream, or the next one: Z_OK, or zlib's error.
    int start();
    // Z_OK, or zlib's complaint about a stream not ended.
    int end();
    bool ready() const { return ready_; }

    void set_input(const unsigned char *data, unsigned length);
    void set_output(unsigned char *buffer, unsigned length);
    unsigned avail_in() const;
    unsigned avail_out() const;
    // One step with zlib's flush codes (Z_NO_FLUSH, Z_BLOCK, Z_SYNC_FLUSH,
    // Z_FINISH) and results: Z_OK, Z_STREAM_END, or an error.
    int step(int flush);
    // zlib makes no second sync block without input between: this makes it
    // forget the last one.
    void forget_sync();
    uint32_t total_out() const;
    // Output held inside the engine, where it can tell.
    uint64_t pending() const;
    // The most that length bytes of input, starting a block, can become.
    uint64_t bound(uint64_t length) const;
    // CRC-32 on the engine's own routine.
    uint32_t crc32(uint32_t crc, const unsigned char *data, size_t length) const;

private:
    struct Fast;
    const Compression compression_;
    z_stream zlib_{};
    std::unique_ptr<Fast> fast_;
    bool ready_ = false;
};

#endif
