#include "deflater.h"

#include <cstring>

#ifdef QUELVANE_FAST_ENGINE
#include <dlfcn.h>
#include <isa-l/igzip_lib.h>
#endif

namespace {

// A byte of bits carried over and an empty final block.
constexpr uint64_t FINISH_SLACK = 8;

#ifdef QUELVANE_FAST_ENGINE
constexpr const char FAST_LIBRARY[] = "libisal.so.2";

// The library's entry points, looked up once; null when it did not load.
struct FastLibrary {
    void (*init)(isal_zstream *) = nullptr;
    void (*reset)(isal_zstream *) = nullptr;
    int (*deflate)(isal_zstream *) = nullptr;
    uint32_t (*crc)(uint32_t, const unsigned char *, uint64_t) = nullptr;
    std::string error;

    FastLibrary()
    {
        void *handle = dlopen(FAST_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char *why = dlerror();
            error = why != nullptr ? why : FAST_LIBRARY;
            return;
        }
        init = reinterpret_cast<decltype(init)>(dlsym(handle, "isal_deflate_init"));
        reset = reinterpret_cast<decltype(reset)>(dlsym(handle, "isal_deflate_reset"));
        deflate = reinterpret_cast<decltype(deflate)>(dlsym(handle, "isal_deflate"));
        crc = reinterpret_cast<decltype(crc)>(dlsym(handle, "crc32_gzip_refl"));
        if (init == nullptr || reset == nullptr || deflate == nullptr || crc == nullptr) {
            error = std::string(FAST_LIBRARY) + " lacks the deflate entry points";
            init = nullptr;
            dlclose(handle);
        }
    }
    bool loaded() const { return init != nullptr; }
};

const FastLibrary &fast_library()
{
    static const FastLibrary library;
    return library;
}
#endif

}  // namespace

Compression fast_compression(std::string *why)
{
#ifdef QUELVANE_FAST_ENGINE
    if (fast_library().loaded())
        return {Engine::isal, 1};
    *why = fast_library().error;
#else
    *why = "this build has no fast engine";
#endif
    return {Engine::zlib, 1};
}

std::string engines_description()
{
    std::string text = std::string("deflate: zlib ") + zlibVersion() + ", levels 0-9 (--level), 6 by default\n";
#ifdef QUELVANE_FAST_ENGINE
    text += std::string("--fast: ISA-L igzip level 1 from ") + FAST_LIBRARY + ", loaded at run time (" +
            (fast_library().loaded() ? "found" : "not found: zlib level 1 instead") + ")\n";
#else
    text += "--fast: zlib level 1 (this build does not load ISA-L: armhf and s390x have only its portable C)\n";
#endif
    return text;
}

#ifdef QUELVANE_FAST_ENGINE
struct Deflater::Fast {
    isal_zstream stream{};
    std::unique_ptr<uint8_t[]> level_buffer{new uint8_t[ISAL_DEF_LVL1_DEFAULT]};
    bool initialised = false;
};
#else
struct Deflater::Fast {};
#endif

Deflater::Deflater(Compression compression) : compression_(compression)
{
#ifdef QUELVANE_FAST_ENGINE
    if (compression_.engine == Engine::isal && fast_library().loaded())
        fast_ = std::make_unique<Fast>();
#endif
}

Deflater::~Deflater() { end(); }

int Deflater::start()
{
#ifdef QUELVANE_FAST_ENGINE
    if (fast_) {
        const FastLibrary &library = fast_library();
        isal_zstream &s = fast_->stream;
        if (!fast_->initialised)
            library.init(&s);
        else
            library.reset(&s);
        fast_->initialised = true;
        s.level = 1;
        s.level_buf = fast_->level_buffer.get();
        s.level_buf_size = ISAL_DEF_LVL1_DEFAULT;
        s.gzip_flag = IGZIP_DEFLATE;
        s.end_of_stream = 0;
        s.flush = NO_FLUSH;
        ready_ = true;
        return Z_OK;
    }
#endif
    if (ready_)
        return deflateReset(&zlib_);
    zlib_ = z_stream{};
    // Window bits -15: raw deflate, no zlib header or Adler-32 trailer.
    const int result = deflateInit2(&zlib_, compression_.level, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
    ready_ = result == Z_OK;
    return result;
}

int Deflater::end()
{
    const int result = ready_ && !fast_ ? deflateEnd(&zlib_) : Z_OK;
    ready_ = false;
    return result;
}

void Deflater::set_input(const unsigned char *data, unsigned length)
{
#ifdef QUELVANE_FAST_ENGINE
    if (fast_) {
        fast_->stream.next_in = const_cast<uint8_t *>(data);
        fast_->stream.avail_in = length;
        return;
    }
#endif
    zlib_.next_in = const_cast<Bytef *>(data);
    zlib_.avail_in = length;
}

void Deflater::set_output(unsigned char *buffer, unsigned length)
{
#ifdef QUELVANE_FAST_ENGINE
    if (fast_) {
        fast_->stream.next_out = buffer;
        fast_->stream.avail_out = length;
        return;
    }
#endif
    zlib_.next_out = buffer;
    zlib_.avail_out = length;
}

#ifdef QUELVANE_FAST_ENGINE
#define FAST_OR_ZLIB(fast_value, zlib_value) (fast_ ? (fast_value) : (zlib_value))
#else
#define FAST_OR_ZLIB(fast_value, zlib_value) (zlib_value)
#endif

unsigned Deflater::avail_in() const { return FAST_OR_ZLIB(fast_->stream.avail_in, zlib_.avail_in); }
unsigned Deflater::avail_out() const { return FAST_OR_ZLIB(fast_->stream.avail_out, zlib_.avail_out); }
uint32_t Deflater::total_out() const
{
    return FAST_OR_ZLIB(fast_->stream.total_out, static_cast<uint32_t>(zlib_.total_out));
}

uint32_t Deflater::crc32(uint32_t crc, const unsigned char *data, size_t length) const
{
    return FAST_OR_ZLIB(fast_library().crc(crc, data, length), static_cast<uint32_t>(::crc32_z(crc, data, length)));
}

int Deflater::step(int flush)
{
#ifdef QUELVANE_FAST_ENGINE
    if (fast_) {
        isal_zstream &s = fast_->stream;
        // Every flush but the end is a sync flush: the block ends on a byte.
        s.end_of_stream = flush == Z_FINISH;
        s.flush = flush == Z_NO_FLUSH || flush == Z_FINISH ? NO_FLUSH : SYNC_FLUSH;
        if (fast_library().deflate(&s) != COMP_OK)
            return Z_STREAM_ERROR;
        return s.internal_state.state == ZSTATE_END ? Z_STREAM_END : Z_OK;
    }
#endif
    return deflate(&zlib_, flush);
}

void Deflater::forget_sync()
{
    if (fast_ || !ready_)
        return;
    zlib_.avail_in = 0;
    (void)deflate(&zlib_, Z_NO_FLUSH);
}

uint64_t Deflater::pending() const
{
    // The fast engine cannot tell; its bound covers what it holds.
    if (fast_ || !ready_)
        return 0;
    unsigned bytes = 0;
    int bits = 0;
    deflatePending(const_cast<z_stream *>(&zlib_), &bytes, &bits);
    return bytes + (bits > 0);
}

uint64_t Deflater::bound(uint64_t length) const
{
    if (fast_) {
        // igzip falls back to stored blocks, but is held here to an eighth
        // more than the input besides a largest block header per 16 KiB:
        // what any Huffman code of bytes can cost.
        return length + length / 8 + (length / 16384 + 1) * (328 + 16) + FINISH_SLACK;
    }
    // zlib's own bound for the stream's settings; it holds for any run of
    // input that starts a block, whatever the window holds.
    return deflateBound(const_cast<z_stream *>(&zlib_), static_cast<uLong>(length)) + FINISH_SLACK;
}
