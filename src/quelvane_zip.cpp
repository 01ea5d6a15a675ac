// One-pass ZIP writer and the raw deflate stream.
//
// The archive is written front to back with no seeking (the output may be a
// pipe or an encrypted stream), so each member's CRC and sizes travel in a
// data descriptor after its data, and the central directory is written at
// the end from the list of finished members.
#include "quelvane_zip.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include <openssl/evp.h>
#include <new>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "quelvane_datagen.h"
#include "quelvane_util.h"

namespace {

constexpr uint32_t LOCAL_HEADER_SIGNATURE = 0x04034b50;
constexpr uint32_t DESCRIPTOR_SIGNATURE = 0x08074b50;
constexpr uint32_t CENTRAL_SIGNATURE = 0x02014b50;
constexpr uint32_t END_SIGNATURE = 0x06054b50;
constexpr uint32_t ZIP64_END_SIGNATURE = 0x06064b50;
constexpr uint32_t ZIP64_LOCATOR_SIGNATURE = 0x07064b50;

constexpr uint32_t LOCAL_HEADER_SIZE = 30;
constexpr uint32_t DESCRIPTOR_SIZE = 16;
constexpr uint32_t END_RECORD_SIZE = 22;
constexpr uint32_t ZIP64_END_SIZE = 56;
constexpr uint32_t ZIP64_LOCATOR_SIZE = 20;

// ZIP64: the version that readers need for it, the extra field that carries
// a 64-bit offset, and the field values that say "see the ZIP64 record".
constexpr uint32_t ZIP64_VERSION = 45;
constexpr uint32_t ZIP64_EXTRA_ID = 0x0001;
constexpr uint32_t ZIP64_OFFSET_EXTRA_SIZE = 8;
constexpr uint32_t MAX_U16 = 0xffff;
constexpr uint32_t MAX_U32 = 0xffffffff;


constexpr unsigned OUTPUT_BUFFER_SIZE = 32768;
constexpr size_t FILE_READ_SIZE = 32768;
constexpr size_t PIPE_READ_SIZE = 1024;

std::vector<ZipMember> members;

// The budget: plain ZIP bytes (0: none), the directory records owed so far,
// the producer's reserve, and the input deflated since its output was last
// measured exactly.
uint64_t budget_limit;
uint64_t directory_bytes;
uint64_t budget_reserve;
uint64_t open_input;
bool budget_spent;
uint64_t data_total;

// The member's data as it is deflated: its SHA-256 when the manifest wants
// one, and its scrubbed form when secrets are scrubbed.
struct DigestFree {
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
};
bool hash_members;
std::unique_ptr<EVP_MD_CTX, DigestFree> member_digest;
std::vector<unsigned char> scrubbed;
struct timespec member_started;

int64_t milliseconds(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

constexpr uint32_t CENTRAL_RECORD_SIZE = 46;
constexpr uint32_t ZIP64_EXTRA_SIZE = 4 + 8;
// The end record, and ZIP64's end record and locator in case they are needed.
constexpr uint64_t END_RESERVE = 22 + 56 + 20;
// A byte of bits carried from the last block and an empty final block.
constexpr uint64_t FINISH_SLACK = 8;
// A budget piece smaller than this ends the member instead.
constexpr unsigned MIN_PIECE = 64;

z_stream stream;
int deflate_ready;
unsigned char output_buffer[OUTPUT_BUFFER_SIZE];
// The file reader's 32 KB, kept off the caller's stack.
unsigned char file_buffer[FILE_READ_SIZE];

void rewind_output()
{
    stream.next_out = output_buffer;
    stream.avail_out = OUTPUT_BUFFER_SIZE;
}

// The header's name length field is 16 bits; longer names wrap rather than
// being refused, and the local header carries only that many name bytes.
uint32_t wrapped_name_length(const ZipMember &member)
{
    return static_cast<uint32_t>(member.name.size()) & 0xffff;
}

// A header or record assembled in memory, least significant byte first, so
// that it leaves through the sink in one call: the bytes are those of a
// field-by-field write, without a system call per byte.
class Record {
public:
    Record &u16(uint32_t value) { return put(value, 2); }
    Record &u32(uint32_t value) { return put(value, 4); }
    Record &u64(uint64_t value) { return put(value, 8); }
    Record &bytes(const char *data, size_t count)
    {
        bytes_.append(data, count);
        return *this;
    }
    size_t size() const { return bytes_.size(); }
    void clear() { bytes_.clear(); }
    int send(int out_fd) const
    {
        if (out_fd < 0)
            return -1;
        return bytes_.empty() ? 0 : sink_write(bytes_.data(), bytes_.size(), out_fd);
    }

private:
    Record &put(uint64_t value, int count)
    {
        for (int i = 0; i < count; ++i, value >>= 8)
            bytes_.push_back(static_cast<char>(value & 0xff));
        return *this;
    }
    std::string bytes_;
};

void add_central_record(Record &record, const ZipMember &member)
{
    // An offset past 32 bits moves into a ZIP64 extra field; below that the
    // record is the plain ZIP 2.0 one.
    const bool zip64 = member.local_header_offset >= MAX_U32;
    const uint32_t version = zip64 ? ZIP64_VERSION : static_cast<uint32_t>(member.version_needed);
    record.u32(CENTRAL_SIGNATURE)                                     // central header signature
        .u16(version)                                                 // version made by (host byte 0)
        .u16(version)                                                 // version needed to extract
        .u16(member.flags)                                            // general-purpose flags
        .u16(member.method)                                           // compression method
        .u16(member.dos_datetime & 0xffff)                            // modification time
        .u16(member.dos_datetime >> 16)                               // modification date
        .u32(member.crc32)                                            // CRC-32
        .u32(member.compressed_size)                                  // compressed size
        .u32(member.uncompressed_size)                                // uncompressed size
        .u16(wrapped_name_length(member))                             // file name length
        .u16(zip64 ? 4 + ZIP64_OFFSET_EXTRA_SIZE : 0)                 // extra field length
        .u16(0)                                                       // file comment length
        .u16(0)                                                       // disk number start
        .u16(0)                                                       // internal attributes
        .u32(0)                                                       // external attributes
        .u32(zip64 ? MAX_U32 : static_cast<uint32_t>(member.local_header_offset));  // local header offset
    // Unlike the local header, the whole name follows even when its length
    // wrapped; the directory size counts it all.
    record.bytes(member.name.data(), member.name.size());              // file name
    if (zip64)
        record.u16(ZIP64_EXTRA_ID)                                    // ZIP64 extra field tag
            .u16(ZIP64_OFFSET_EXTRA_SIZE)                             // its data size
            .u64(member.local_header_offset);                         // local header offset
}

}  // namespace

// ---------------------------------------------------------------------------
// Header fields: zip_write_u8/16/32 send one byte per sink call, least
// significant first; the records below send the same bytes a record at a
// time.
// ---------------------------------------------------------------------------

void zip_member_init(ZipMember *member, int32_t kind)
{
    *member = ZipMember{};
    member->version_needed = ZIP_VERSION;
    member->flags = ZIP_FLAG_DESCRIPTOR;
    member->method = ZIP_METHOD_DEFLATE;
    member->kind = kind;
}

void zip_member_from_stat(ZipMember *member, const struct stat &status)
{
    const uint64_t size = status.st_size > 0 ? static_cast<uint64_t>(status.st_size) : 0;
    member->cut = size > ZIP_MEMBER_LIMIT;
    member->uncompressed_size = member->cut ? ZIP_MEMBER_LIMIT : static_cast<uint32_t>(size);
    member->dos_datetime = static_cast<uint32_t>(status.st_mtime);
}

// ---------------------------------------------------------------------------
// Budget
// ---------------------------------------------------------------------------

namespace {

uint64_t deflate_bound(uint64_t length)
{
    // zlib's own bound for the stream's settings; it holds for any run of
    // input that starts a block, whatever the window holds.
    return deflateBound(&stream, static_cast<uLong>(length)) + FINISH_SLACK;
}

uint64_t directory_record_size(size_t name_length)
{
    return CENTRAL_RECORD_SIZE + name_length + ZIP64_EXTRA_SIZE;
}

// Bytes the archive already holds or has promised: written, waiting in the
// deflate buffers, and every record still owed.
uint64_t budget_used(uint64_t total_written, const ZipMember *open_member)
{
    unsigned pending = 0;
    int bits = 0;
    if (deflate_ready)
        deflatePending(&stream, &pending, &bits);
    uint64_t used = total_written + directory_bytes + END_RESERVE + budget_reserve + pending + (bits > 0);
    if (open_member != nullptr)
        used += (OUTPUT_BUFFER_SIZE - stream.avail_out) + DESCRIPTOR_SIZE +
                directory_record_size(open_member->name.size());
    return used;
}

uint64_t budget_room(uint64_t total_written, const ZipMember *open_member)
{
    uint64_t used = budget_used(total_written, open_member);
    return used < budget_limit ? budget_limit - used : 0;
}

}  // namespace

void zip_budget_set(uint64_t limit)
{
    budget_limit = limit;
    budget_reserve = 0;
    open_input = 0;
    budget_spent = false;
}

bool zip_budget_active() { return budget_limit != 0; }

bool zip_budget_admits(uint64_t total_written, uint64_t bytes)
{
    if (budget_limit == 0)
        return true;
    if (!budget_spent && bytes <= budget_room(total_written, nullptr))
        return true;
    budget_spent = true;
    return false;
}

void zip_budget_hold(uint64_t bytes) { budget_reserve = bytes; }

bool zip_budget_exhausted() { return budget_spent; }

uint64_t zip_member_cost(size_t name_length, uint64_t data_length)
{
    return LOCAL_HEADER_SIZE + name_length + deflate_bound(data_length) + DESCRIPTOR_SIZE +
           directory_record_size(name_length);
}

int zip_write_u8(int out_fd, uint32_t value)
{
    if (out_fd < 0)
        return -1;
    unsigned char byte = static_cast<unsigned char>(value & 0xff);
    return sink_write(&byte, 1, out_fd);
}

namespace {

int write_little_endian(int out_fd, uint32_t value, int bytes)
{
    if (out_fd < 0)
        return -1;
    for (int i = 0; i < bytes; ++i, value >>= 8)
        if (zip_write_u8(out_fd, value) != 0)
            return -1;
    return 0;
}

}  // namespace

int zip_write_u16(int out_fd, uint32_t value)
{
    return write_little_endian(out_fd, value, 2);
}

int zip_write_u32(int out_fd, uint32_t value)
{
    return write_little_endian(out_fd, value, 4);
}

uint32_t zip_dos_datetime(time_t t)
{
    struct tm parts;
    // MS-DOS dates start in 1980; anything earlier is clamped to its first
    // second rather than wrapping into a nonsense year.
    if (localtime_r(&t, &parts) == nullptr || parts.tm_year < 80)
        return 0x00210000;
    uint32_t date = static_cast<uint32_t>((parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 |
                                          parts.tm_mday);
    uint32_t time_of_day =
        static_cast<uint32_t>(parts.tm_hour << 11 | parts.tm_min << 5 | parts.tm_sec / 2);
    return (date & 0xffff) << 16 | (time_of_day & 0xffff);
}

// ---------------------------------------------------------------------------
// Member lifecycle
// ---------------------------------------------------------------------------

int quelvane_z_output_local_file_header(int out_fd, ZipMember *member, uint64_t *total_written)
{
    if (out_fd < 0 || member == nullptr || total_written == nullptr) {
        fprintf(stderr, "outfd=%d zep=%p total_written=%p\n", out_fd,
                static_cast<void *>(member), static_cast<void *>(total_written));
        return -1;
    }
    member->crc32 = crc32(0, nullptr, 0);
    int started = zip_deflate_start();
    if (started != 0)
        return started;
    if (scrub_active()) {
        scrub_reset();
        member->name = scrub_text(member->name);  // names come from command lines too
    }
    if (hash_members) {
        if (!member_digest)
            member_digest.reset(EVP_MD_CTX_new());
        if (!member_digest || !EVP_DigestInit_ex(member_digest.get(), EVP_sha256(), nullptr))
            return -1;
    }
    if (hash_members) {
        member->started_ms = milliseconds(CLOCK_REALTIME);
        clock_gettime(CLOCK_MONOTONIC, &member_started);
    }

    // A collected file always keeps its recorded time, so a file stamped 0
    // reads as 1 January 1980; only generated members take "now" for 0.
    time_t when = static_cast<time_t>(member->dos_datetime);
    if (when == 0 && member->kind != MEMBER_FILE)
        when = time(nullptr);
    member->dos_datetime = zip_dos_datetime(when);
    member->local_header_offset = *total_written;

    uint32_t name_length = wrapped_name_length(*member);
    // CRC and sizes are not known until the data has streamed past, and the
    // output cannot be rewound: they are zero here and come in the data
    // descriptor (flag bit 3).
    Record header;
    header.u32(LOCAL_HEADER_SIGNATURE)                                // local header signature
        .u16(member->version_needed)                                  // version needed to extract
        .u16(member->flags)                                           // general-purpose flags
        .u16(member->method)                                          // compression method
        .u16(member->dos_datetime & 0xffff)                           // modification time
        .u16(member->dos_datetime >> 16)                              // modification date
        .u32(0)                                                       // CRC-32, in the descriptor
        .u32(0)                                                       // compressed size, ditto
        .u32(0)                                                       // uncompressed size, ditto
        .u16(name_length)                                             // file name length
        .u16(0)                                                       // extra field length
        .bytes(member->name.data(), name_length);                     // file name
    if (header.send(out_fd) != 0)
        return -1;
    *total_written += LOCAL_HEADER_SIZE + name_length;
    return 0;
}

int zip_finish_member(int out_fd, ZipMember *member, uint64_t *total_written)
{
    if (out_fd < 0 || member == nullptr || total_written == nullptr)
        return -1;
    // A file cut for the budget, or scrubbed, declares what it holds, so
    // that it stays valid.
    if ((member->budget_cut || scrub_active()) && member->kind == MEMBER_FILE)
        member->uncompressed_size = static_cast<uint32_t>(member->data_in);
    if (hash_members && member_digest) {
        EVP_DigestFinal_ex(member_digest.get(), member->sha256, nullptr);
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        member->duration_ms = (now.tv_sec - member_started.tv_sec) * 1000LL +
                              (now.tv_nsec - member_started.tv_nsec) / 1000000;
    }
    // Sizes always fit 32 bits: data stops at ZIP_MEMBER_LIMIT.
    Record descriptor;
    descriptor.u32(DESCRIPTOR_SIGNATURE)                              // data descriptor signature
        .u32(member->crc32)                                           // CRC-32
        .u32(member->compressed_size)                                 // compressed size
        .u32(member->uncompressed_size);                              // uncompressed size
    if (descriptor.send(out_fd) != 0)
        return -1;
    *total_written += DESCRIPTOR_SIZE;
    return zip_member_list_add(member);
}

int zip_finish_archive(int out_fd, uint64_t *total_written)
{
    if (out_fd < 0 || total_written == nullptr)
        return -1;
    const uint64_t directory_offset = *total_written;
    uint64_t directory_size = 0;
    // One record a sink call; the sink gathers them into large writes.
    Record record;
    for (const ZipMember &member : members) {
        record.clear();
        add_central_record(record, member);
        if (record.send(out_fd) != 0)
            return -1;
        directory_size += record.size();
    }

    // Past 65,534 members or 4 GiB the end record cannot say where the
    // directory is: a ZIP64 end record and its locator go first, and the
    // fields that overflow hold their all-ones marker.
    const uint64_t count = members.size();
    const uint64_t zip64_end_offset = directory_offset + directory_size;
    const bool zip64 = count >= MAX_U16 || directory_size >= MAX_U32 || directory_offset >= MAX_U32;
    Record end;
    if (zip64) {
        end.u32(ZIP64_END_SIGNATURE)                                  // ZIP64 end record signature
            .u64(ZIP64_END_SIZE - 12)                                 // size of the rest of it
            .u16(ZIP64_VERSION)                                       // version made by
            .u16(ZIP64_VERSION)                                       // version needed to extract
            .u32(0)                                                   // number of this disk
            .u32(0)                                                   // disk of the directory
            .u64(count)                                               // records on this disk
            .u64(count)                                               // records in total
            .u64(directory_size)                                      // directory size
            .u64(directory_offset);                                   // directory offset
        end.u32(ZIP64_LOCATOR_SIGNATURE)                              // ZIP64 locator signature
            .u32(0)                                                   // disk of the ZIP64 end record
            .u64(zip64_end_offset)                                    // its offset
            .u32(1);                                                  // number of disks
    }
    const uint32_t short_count = zip64 && count >= MAX_U16 ? MAX_U16 : static_cast<uint32_t>(count);
    end.u32(END_SIGNATURE)                                            // end record signature
        .u16(0)                                                       // number of this disk
        .u16(0)                                                       // disk of the directory
        .u16(short_count)                                             // records on this disk
        .u16(short_count)                                             // records in total
        .u32(directory_size >= MAX_U32 ? MAX_U32 : static_cast<uint32_t>(directory_size))  // directory size
        .u32(directory_offset >= MAX_U32 ? MAX_U32 : static_cast<uint32_t>(directory_offset))  // directory offset
        .u16(0);                                                      // comment length
    if (end.send(out_fd) != 0 || sink_flush(out_fd) != 0)
        return -1;
    *total_written += directory_size + END_RECORD_SIZE + (zip64 ? ZIP64_END_SIZE + ZIP64_LOCATOR_SIZE : 0);
    return 0;
}

int zip_member_list_add(const ZipMember *member)
{
    if (member == nullptr)
        return -1;
    try {
        members.push_back(*member);
    } catch (const std::bad_alloc &) {
        return -1;
    }
    // The caller closes its own stream; a copy holding it would close it twice.
    members.back().source_file = nullptr;
    directory_bytes += directory_record_size(member->name.size());
    return 0;
}

void zip_member_list_free()
{
    for (ZipMember &member : members)
        if (member.source_file != nullptr)
            fclose(member.source_file);
    std::vector<ZipMember>().swap(members);
    directory_bytes = 0;
}

const std::vector<ZipMember> &zip_member_list() { return members; }

int zip_open_member_file(ZipMember *member)
{
    if (member == nullptr)
        return -1;
    // Opened first, then checked through the descriptor: a fresh look at
    // what we will read, without a second walk of the path. O_NONBLOCK keeps
    // a FIFO put in the file's place from blocking the open; it means
    // nothing for the regular file we go on to read.
    int fd = open(member->source_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1)
        return -1;
    struct stat status;
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        int error = S_ISREG(status.st_mode) ? errno : EINVAL;
        close(fd);
        errno = error;
        return -1;
    }
    member->source_file = fdopen(fd, "r");
    if (member->source_file == nullptr) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    // Reads are 32 KB into our own buffer: a stdio buffer would only add a
    // copy, an allocation and another fstat.
    setvbuf(member->source_file, nullptr, _IONBF, 0);
    return 0;
}

int zip_close_member_file(ZipMember *member)
{
    if (member == nullptr || member->source_file == nullptr)
        return -1;
    fclose(member->source_file);
    member->source_file = nullptr;
    return 0;
}

// ---------------------------------------------------------------------------
// Deflate stream
// ---------------------------------------------------------------------------

int zip_deflate_start()
{
    // The output buffer is not cleared: deflate writes every byte that is
    // sent, and 32 KB of zeros per member was most of a small member's cost.
    open_input = 0;
    if (deflate_ready) {
        // Rewind too: a member abandoned after a sink failure must not leave
        // its held-back bytes at the front of the next member's data.
        rewind_output();
        return deflateReset(&stream);
    }
    stream = z_stream{};
    // The macro passes the version of the zlib headers we were built with,
    // which is what the library checks its structure layout against (it
    // compares only the major digit, so an older string would pass too, but
    // would then vouch for a header we never compiled).
    // Window bits -15: raw deflate, no zlib header or Adler-32 trailer.
    int result = deflateInit2(&stream, no_compression ? 0 : Z_DEFAULT_COMPRESSION, Z_DEFLATED,
                              -15, 9, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) {
        zip_report_error(result);
        return result;
    }
    rewind_output();
    deflate_ready = 1;
    return 0;
}

int zip_deflate_end()
{
    if (deflate_ready != 1)
        return -1;
    int result = deflateEnd(&stream);
    deflate_ready = 0;
    return result;
}

namespace {

// Deflates length bytes into the member and sends every full buffer.
int run_deflate(ZipMember *member, int out_fd, const unsigned char *data, unsigned length, int flush,
                uint64_t *total_written)
{
    member->data_in += length;
    data_total += length;
    stream.next_in = const_cast<Bytef *>(data);
    stream.avail_in = length;
    // CRC on the input as it passes; a collected file keeps its stat size.
    member->crc32 = crc32(member->crc32, data, length);
    if (hash_members && member_digest)
        EVP_DigestUpdate(member_digest.get(), data, length);
    if (member->kind == MEMBER_GENERATED)
        member->uncompressed_size += length;

    for (;;) {
        int result = deflate(&stream, flush);
        if (result == Z_STREAM_ERROR || result == Z_BUF_ERROR) {
            zip_report_error(result);
            return result;
        }
        // Output is held until the buffer is full or the member ends: no
        // intermediate flushes, only large writes.
        const bool full = stream.avail_out == 0;
        if (full || result == Z_STREAM_END) {
            unsigned count = OUTPUT_BUFFER_SIZE - stream.avail_out;
            errno = 0;
            if (sink_write(output_buffer, count, out_fd) != 0)
                return -1;
            *total_written += count;
            rewind_output();
        }
        if (flush == Z_FINISH && result != Z_STREAM_END)
            continue;
        if (stream.avail_in != 0 || (flush == Z_BLOCK && full))
            continue;
        member->compressed_size = static_cast<uint32_t>(stream.total_out);
        return result;
    }
}

// Under a budget: deflates as much of the data as surely fits. While the
// bound of everything deflated since the last exact measure fits, data goes
// through as usual; otherwise the open block is ended so that its size is
// known, and pieces that fit follow, each ended too, until none is worth it.
int deflate_within_budget(ZipMember *member, int out_fd, const unsigned char *data, unsigned length,
                          int flush, uint64_t *total_written)
{
    while (length > 0 && !member->budget_cut) {
        uint64_t room = budget_room(*total_written, member);
        if (deflate_bound(open_input + length) <= room) {
            open_input += length;
            return run_deflate(member, out_fd, data, length, flush, total_written);
        }
        unsigned piece = 0;
        if (open_input == 0) {
            unsigned low = 0, high = length;
            while (low < high) {
                unsigned middle = low + (high - low + 1) / 2;
                if (deflate_bound(middle) <= room)
                    low = middle;
                else
                    high = middle - 1;
            }
            piece = low;
            if (piece < MIN_PIECE) {
                member->cut = member->budget_cut = true;
                budget_spent = true;
                break;
            }
        }
        int result = run_deflate(member, out_fd, data, piece, Z_BLOCK, total_written);
        if (result != Z_OK)
            return result;
        open_input = 0;
        data += piece;
        length -= piece;
    }
    static const unsigned char nothing = 0;
    return flush == Z_FINISH ? run_deflate(member, out_fd, &nothing, 0, Z_FINISH, total_written) : Z_OK;
}

}  // namespace

int zip_deflate_chunk(ZipMember *member, int out_fd, const void *data, unsigned length, int flush,
                      uint64_t *total_written)
{
    if (member == nullptr || out_fd < 0 || data == nullptr || total_written == nullptr)
        return -1;
    // Secrets are replaced before anything counts or sees the data.
    if (scrub_active()) {
        scrubbed.clear();
        try {
            scrub_feed(static_cast<const unsigned char *>(data), length, flush == Z_FINISH, &scrubbed);
        } catch (const std::bad_alloc &) {
            zip_report_error(Z_MEM_ERROR);
            return Z_MEM_ERROR;
        }
        data = scrubbed.data() != nullptr ? scrubbed.data() : data;
        length = static_cast<unsigned>(scrubbed.size());
    }
    // Past the member limit the rest of the data is dropped: the member
    // stays valid and the producer says in its ".err" member where it ended.
    const uint64_t room = member->data_in < ZIP_MEMBER_LIMIT ? ZIP_MEMBER_LIMIT - member->data_in : 0;
    if (length > room) {
        length = static_cast<unsigned>(room);
        member->cut = true;
    }
    const unsigned char *bytes = static_cast<const unsigned char *>(data);
    if (budget_limit != 0)
        return deflate_within_budget(member, out_fd, bytes, length, flush, total_written);
    if (length == 0 && flush != Z_FINISH)
        return Z_OK;  // deflate would call no input an error
    return run_deflate(member, out_fd, bytes, length, flush, total_written);
}

int zip_deflate_file(int out_fd, ZipMember *member, uint64_t *total_written, int *error_out)
{
    if (error_out != nullptr)
        *error_out = 0;
    if (out_fd < 0 || member == nullptr || total_written == nullptr ||
        member->source_file == nullptr)
        return -1;
    FILE *source = member->source_file;
    // A file read up to the size it declared: a log that grows meanwhile is
    // not chased to its moving end. Size 0 (/proc, /sys) means read to the end.
    const bool sized = member->kind == MEMBER_FILE && member->uncompressed_size > 0;
    uint64_t left = sized ? member->uncompressed_size : UINT64_MAX;
    bool at_end = false;
    while (!at_end) {
        errno = 0;
        size_t want = left < sizeof file_buffer ? static_cast<size_t>(left) : sizeof file_buffer;
        size_t count = want > 0 ? fread(file_buffer, 1, want, source) : 0;
        if (ferror(source)) {
            if (errno != EINTR) {
                int error = errno != 0 ? errno : EIO;
                if (error_out != nullptr)
                    *error_out = error;
                return error;
            }
            // Retry the interrupted read, keeping what came before it.
            clearerr(source);
        }
        left -= count;
        at_end = feof(source) || left == 0;
        if (!at_end && member->data_in + count >= ZIP_MEMBER_LIMIT) {
            member->cut = true;
            at_end = true;
        }
        if (count == 0 && !at_end)
            continue;
        int result = zip_deflate_chunk(member, out_fd, file_buffer, static_cast<unsigned>(count),
                                       at_end ? Z_FINISH : Z_NO_FLUSH, total_written);
        if (member->budget_cut && !at_end) {
            // Nothing more fits: end the member where its data stopped.
            at_end = true;
            result = zip_deflate_chunk(member, out_fd, file_buffer, 0, Z_FINISH, total_written);
        }
        if (result != Z_OK && result != Z_STREAM_END) {
            // The chunk has printed a zlib message already; printing it
            // again here is intended.
            zip_report_error(result);
            return result;
        }
    }
    return 0;
}

int zip_deflate_fd(int out_fd, ZipMember *member, int source_fd, int final_flush,
                   uint64_t *total_written)
{
    if (out_fd < 0 || source_fd < 0 || member == nullptr || total_written == nullptr)
        return -1;
    unsigned char buffer[PIPE_READ_SIZE];
    for (;;) {
        errno = 0;
        ssize_t count = read(source_fd, buffer, sizeof buffer);
        int error = count < 0 ? errno : 0;
        bool interrupted = error == EINTR;
        bool nothing_now = error == EAGAIN || error == EWOULDBLOCK;
        size_t got = count > 0 ? static_cast<size_t>(count) : 0;

        int flush = Z_NO_FLUSH;
        if (final_flush == Z_FINISH && !interrupted && (got < PIPE_READ_SIZE || nothing_now))
            flush = Z_FINISH;
        if (got > 0 || flush == Z_FINISH) {
            int result = zip_deflate_chunk(member, out_fd, buffer, static_cast<unsigned>(got),
                                           flush, total_written);
            if (result != Z_OK && result != Z_STREAM_END) {
                zip_report_error(result);
                return result;
            }
        }
        // Small reads keep the command runner responsive to its time-outs:
        // go round again only after an interruption or a full read.
        if (interrupted || got == PIPE_READ_SIZE)
            continue;
        if (count < 0 && !nothing_now)
            return error != 0 ? error : EIO;
        return 0;
    }
}

uint64_t zip_data_total() { return data_total; }

void zip_hash_members(bool on) { hash_members = on; }

void zip_report_error(int code)
{
    const char *text = nullptr;
    switch (code) {
    case Z_STREAM_ERROR:
        text = _("Invalid arguments to compression stream\n");
        break;
    case Z_MEM_ERROR:
        text = _("Compression stream out of memory\n");
        break;
    case Z_BUF_ERROR:
        text = _("Buffer error on compression stream\n");
        break;
    case Z_VERSION_ERROR:
        text = _("Version mismatch between this program and compression library\n");
        break;
    default:
        return;
    }
    fputs(text, stderr);
}
