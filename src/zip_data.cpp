#include "zip_data.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "console.h"
#include "pacing.h"

namespace {

constexpr unsigned OUTPUT_SIZE = 32768;
constexpr size_t FILE_READ_SIZE = 32768;
// Small reads keep the command runner responsive to its time-outs.
constexpr size_t PIPE_READ_SIZE = 1024;
// A budget piece smaller than this ends the member instead.
constexpr unsigned MIN_PIECE = 64;
// An empty sync block, and the bits before it.
constexpr uint64_t KEEPALIVE_ROOM = 16;

void report_zlib_error(int code)
{
    const char *text = code == Z_STREAM_ERROR    ? _("Invalid arguments to compression stream\n")
                       : code == Z_MEM_ERROR     ? _("Compression stream out of memory\n")
                       : code == Z_BUF_ERROR     ? _("Buffer error on compression stream\n")
                       : code == Z_VERSION_ERROR ? _("Version mismatch between this program and compression library\n")
                                                 : nullptr;
    if (text != nullptr)
        fputs(text, stderr);
}

bool piece_failed(int result) { return result != Z_OK && result != Z_STREAM_END; }

// Up to want bytes, as fread gives them: short only at the end or on an
// error (then -1, errno set, and what came before it is dropped).
ssize_t read_full(int fd, unsigned char *buffer, size_t want)
{
    size_t got = 0;
    while (got < want) {
        const ssize_t count = read(fd, buffer + got, want - got);
        if (count == -1 && errno == EINTR)
            continue;  // an interrupted read is retried, keeping what came before it
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        got += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(got);
}

}  // namespace

ZipData::ZipData(Sink &sink, const Scrubber &scrub, Compression compression, bool hash)
    : sink_(sink), scrub_(scrub), scrub_stream_(scrub), hash_(hash), deflater_(compression),
      output_(new unsigned char[OUTPUT_SIZE]),
      input_(new unsigned char[FILE_READ_SIZE])
{
    if (hash_)
        digest_ = std::make_unique<Sha256>();
}

ZipData::~ZipData() { end_stream(); }

void ZipData::rewind_output() { deflater_.set_output(output_.get(), OUTPUT_SIZE); }

int ZipData::start_stream()
{
    // The output buffer is not cleared: deflate writes every byte that is
    // sent, and 32 KB of zeros per member was most of a small member's cost.
    open_input_ = 0;
    // Rewind too: a member abandoned after a sink failure must not leave
    // its held-back bytes at the front of the next member's data.
    const bool first = !deflater_.ready();
    const int result = deflater_.start();
    if (result != Z_OK) {
        if (first)
            report_zlib_error(result);
        return result;
    }
    rewind_output();
    return Z_OK;
}

int ZipData::end_stream() { return deflater_.ready() ? deflater_.end() : -1; }

int ZipData::emit_uncounted(const Record &record) { return sink_.write(record.text().data(), record.size()); }

int ZipData::emit(const Record &record)
{
    if (emit_uncounted(record) != 0)
        return -1;
    offset_ += record.size();
    return 0;
}

int ZipData::begin_member(ZipMember &member)
{
    member.crc32 = 0;
    member.engine = deflater_.compression().engine_name();
    member.level = deflater_.compression().level_number();
    const int started = start_stream();
    if (started != Z_OK)
        return started;
    scrub_stream_.reset();
    if (hash_) {
        digest_->restart();
        member.started_ms = clock_ms(CLOCK_REALTIME);
        started_ = clock_ms(CLOCK_MONOTONIC);
    }
    return 0;
}

void ZipData::end_member(ZipMember &member)
{
    // A file cut for the budget or the deadline, or scrubbed, declares what
    // it holds, so that it stays valid.
    if ((member.budget_cut || member.deadline_cut || scrub_.active()) && member.kind == MEMBER_FILE)
        member.uncompressed_size = static_cast<uint32_t>(member.data_in);
    if (hash_) {
        digest_->finish(member.sha256);
        member.duration_ms = clock_ms(CLOCK_MONOTONIC) - started_;
    }
}

// Deflates length bytes into the member and sends every full buffer.
int ZipData::deflate_piece(ZipMember &member, const unsigned char *data, unsigned length, int flush)
{
    member.data_in += length;
    data_total_ += length;
    deflater_.set_input(data, length);
    // CRC on the input as it passes; a collected file keeps its stat size.
    member.crc32 = deflater_.crc32(member.crc32, data, length);
    if (hash_)
        digest_->update(data, length);
    if (member.kind == MEMBER_GENERATED)
        member.uncompressed_size += length;
    for (;;) {
        const int result = deflater_.step(flush);
        if (result == Z_STREAM_ERROR || result == Z_BUF_ERROR) {
            report_zlib_error(result);
            return result;
        }
        // Output is held until the buffer is full or the member ends: no
        // intermediate flushes, only large writes.
        const bool full = deflater_.avail_out() == 0;
        if (full || result == Z_STREAM_END) {
            const unsigned count = OUTPUT_SIZE - deflater_.avail_out();
            errno = 0;
            if (sink_.write(output_.get(), count) != 0)
                return -1;
            offset_ += count;
            rewind_output();
        }
        if (flush == Z_FINISH && result != Z_STREAM_END)
            continue;
        if (deflater_.avail_in() != 0 || (flush != Z_NO_FLUSH && full))
            continue;
        member.compressed_size = deflater_.total_out();
        return result;
    }
}

uint64_t ZipData::deflate_bound(uint64_t length) const { return deflater_.bound(length); }

// Bytes the archive may still take: not written, not waiting in the deflate
// buffers, and not owed to records still to come.
uint64_t ZipData::budget_room(const ZipMember *open_member) const
{
    uint64_t used = offset_ + directory_bytes_ + END_RESERVE + reserve_ + deflater_.pending();
    if (open_member != nullptr)
        used += (OUTPUT_SIZE - deflater_.avail_out()) + DESCRIPTOR_SIZE + directory_record_size(open_member->name.size());
    return used < budget_limit_ ? budget_limit_ - used : 0;
}

void ZipData::set_budget(uint64_t limit)
{
    budget_limit_ = limit;
    reserve_ = 0;
    open_input_ = 0;
    budget_spent_ = false;
}

bool ZipData::admits(uint64_t bytes)
{
    if (budget_limit_ == 0)
        return true;
    if (!budget_spent_ && bytes <= budget_room(nullptr))
        return true;
    budget_spent_ = true;
    return false;
}

uint64_t ZipData::member_cost(size_t name_length, uint64_t data_length) const
{
    return LOCAL_HEADER_SIZE + name_length + deflate_bound(data_length) + DESCRIPTOR_SIZE +
           directory_record_size(name_length);
}

// Under a budget: deflates as much of the data as surely fits. While the
// bound of everything deflated since the last exact measure fits, data goes
// through as usual; otherwise the open block is ended so that its size is
// known, and pieces that fit follow, each ended too, until none is worth it.
int ZipData::deflate_within_budget(ZipMember &member, const unsigned char *data, unsigned length, int flush)
{
    while (length > 0 && !member.budget_cut) {
        const uint64_t room = budget_room(&member);
        if (deflate_bound(open_input_ + length) <= room) {
            open_input_ += length;
            return deflate_piece(member, data, length, flush);
        }
        unsigned piece = 0;
        if (open_input_ == 0) {
            unsigned low = 0, high = length;
            while (low < high) {
                const unsigned middle = low + (high - low + 1) / 2;
                if (deflate_bound(middle) <= room)
                    low = middle;
                else
                    high = middle - 1;
            }
            piece = low;
            if (piece < MIN_PIECE) {
                member.cut = member.budget_cut = true;
                budget_spent_ = true;
                break;
            }
        }
        const int result = deflate_piece(member, data, piece, Z_BLOCK);
        if (result != Z_OK)
            return result;
        open_input_ = 0;
        data += piece;
        length -= piece;
    }
    static const unsigned char nothing = 0;
    return flush == Z_FINISH ? deflate_piece(member, &nothing, 0, Z_FINISH) : Z_OK;
}

int ZipData::chunk(ZipMember &member, const void *data, unsigned length, int flush)
{
    // Secrets are replaced before anything counts or sees the data.
    if (scrub_.active()) {
        scrubbed_.clear();
        try {
            scrub_stream_.feed(static_cast<const unsigned char *>(data), length, flush == Z_FINISH, &scrubbed_);
        } catch (const std::bad_alloc &) {
            report_zlib_error(Z_MEM_ERROR);
            return Z_MEM_ERROR;
        }
        data = scrubbed_.data() != nullptr ? scrubbed_.data() : data;
        length = static_cast<unsigned>(scrubbed_.size());
    }
    return put(member, data, length, flush);
}

int ZipData::put(ZipMember &member, const void *data, unsigned length, int flush)
{
    // Past the member limit the rest of the data is dropped: the member
    // stays valid and the producer says in its ".err" member where it ended.
    const uint64_t room = member.data_in < ZIP_MEMBER_LIMIT ? ZIP_MEMBER_LIMIT - member.data_in : 0;
    if (length > room) {
        length = static_cast<unsigned>(room);
        member.cut = true;
    }
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (budget_limit_ != 0)
        return deflate_within_budget(member, bytes, length, flush);
    if (length == 0 && flush != Z_FINISH)
        return Z_OK;  // deflate would call no input an error
    return deflate_piece(member, bytes, length, flush);
}

int ZipData::from_file(ZipMember &member, int fd, int *read_error)
{
    *read_error = 0;
    // A file read up to the size it declared: a log that grows meanwhile is
    // not chased to its moving end. Size 0 (/proc, /sys) means read to the end.
    const bool sized = member.kind == MEMBER_FILE && member.uncompressed_size > 0;
    uint64_t left = sized ? member.uncompressed_size : UINT64_MAX;
    unsigned char *buffer = input_.get();
    for (bool at_end = false; !at_end;) {
        const size_t want = left < FILE_READ_SIZE ? static_cast<size_t>(left) : FILE_READ_SIZE;
        const ssize_t count = want > 0 ? read_full(fd, buffer, want) : 0;
        if (count < 0)
            return *read_error = errno != 0 ? errno : EIO;
        left -= static_cast<uint64_t>(count);
        at_end = static_cast<size_t>(count) < want || left == 0;
        if (!at_end && member.data_in + static_cast<uint64_t>(count) >= ZIP_MEMBER_LIMIT) {
            member.cut = true;
            at_end = true;
        }
        int result = chunk(member, buffer, static_cast<unsigned>(count), at_end ? Z_FINISH : Z_NO_FLUSH);
        if (!at_end && !member.budget_cut && deadline_ms_ >= 0 && clock_ms(CLOCK_MONOTONIC) >= deadline_ms_)
            member.cut = member.deadline_cut = true;
        if ((member.budget_cut || member.deadline_cut) && !at_end) {
            // Nothing more fits, or the time is up: end the member where
            // its data stopped.
            at_end = true;
            result = chunk(member, buffer, 0, Z_FINISH);
        }
        if (piece_failed(result)) {
            // The piece has printed zlib's message already; printing it
            // again here is intended.
            report_zlib_error(result);
            return result;
        }
    }
    return 0;
}

int ZipData::from_fd(ZipMember &member, int fd, int final_flush)
{
    unsigned char buffer[PIPE_READ_SIZE];
    for (;;) {
        errno = 0;
        const ssize_t count = read(fd, buffer, sizeof buffer);
        const int error = count < 0 ? errno : 0;
        const bool interrupted = error == EINTR;
        const bool nothing_now = error == EAGAIN || error == EWOULDBLOCK;
        const size_t got = count > 0 ? static_cast<size_t>(count) : 0;
        int flush = Z_NO_FLUSH;
        if (final_flush == Z_FINISH && !interrupted && (got < PIPE_READ_SIZE || nothing_now))
            flush = Z_FINISH;
        if (got > 0 || flush == Z_FINISH) {
            const int result = chunk(member, buffer, static_cast<unsigned>(got), flush);
            if (piece_failed(result)) {
                report_zlib_error(result);
                return result;
            }
        }
        // Go round again only after an interruption or a full read.
        if (interrupted || got == PIPE_READ_SIZE)
            continue;
        if (count < 0 && !nothing_now)
            return error != 0 ? error : EIO;
        return 0;
    }
}

int ZipData::keepalive(ZipMember &member)
{
    // Under a budget only where the block surely fits.
    if (budget_limit_ != 0 && budget_room(&member) < deflate_bound(open_input_) + KEEPALIVE_ROOM)
        return 0;
    deflater_.forget_sync();
    static const unsigned char nothing = 0;
    if (deflate_piece(member, &nothing, 0, Z_SYNC_FLUSH) != Z_OK)
        return -1;
    open_input_ = 0;  // all of it is out: measured exactly
    const unsigned count = OUTPUT_SIZE - deflater_.avail_out();
    if (count > 0 && sink_.write(output_.get(), count) != 0)
        return -1;
    offset_ += count;
    rewind_output();
    return sink_.flush();
}

int ZipData::from_text(ZipMember &member, const TextBuffer &text, int finish)
{
    int result = Z_OK;
    text.each_piece([&](const char *piece, size_t length, bool last) {
        result = put(member, piece, static_cast<unsigned>(length), last ? finish : Z_NO_FLUSH);
        return !piece_failed(result);
    });
    return result;
}
