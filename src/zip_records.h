// The ZIP format's records, laid out in memory: a member's description, the
// local header, the data descriptor, the central directory record and the
// end records, and MS-DOS time. No I/O: the writer hands the bytes on.
#ifndef QUELVANE_ZIP_RECORDS_H
#define QUELVANE_ZIP_RECORDS_H

#include <cstdint>
#include <ctime>
#include <string>

enum MemberKind : int32_t {
    MEMBER_GENERATED = 1,  // size counted while deflating; time 0 means now
    MEMBER_FILE = 2,       // size and time taken from stat by the producer
};

// What every member declares: ZIP 2.0, deflate, and CRC and sizes in a data
// descriptor after the data (bit 3), since the output cannot be rewound.
constexpr uint32_t ZIP_VERSION = 20;
constexpr uint32_t ZIP_FLAG_DESCRIPTOR = 8;
// The name is UTF-8 (the language-encoding flag).
constexpr uint32_t ZIP_FLAG_UTF8 = 0x800;
constexpr uint32_t ZIP_METHOD_DEFLATE = 8;

constexpr uint32_t LOCAL_HEADER_SIZE = 30;
constexpr uint32_t DESCRIPTOR_SIZE = 16;
constexpr uint32_t CENTRAL_RECORD_SIZE = 46;
constexpr uint32_t END_RECORD_SIZE = 22;
constexpr uint32_t ZIP64_END_SIZE = 56;
constexpr uint32_t ZIP64_LOCATOR_SIZE = 20;
constexpr uint32_t ZIP64_OFFSET_EXTRA_SIZE = 4 + 8;

// No member holds more data than this: both 32-bit size fields of its data
// descriptor must hold, and deflate may add a little to incompressible data.
constexpr uint32_t ZIP_MEMBER_LIMIT = 0xFFC00000u;  // 4 GiB - 4 MiB

// One archive member: the producer fills name, kind and (for a collected
// file) size and time; the writer completes the rest.
struct ZipMember {
    std::string name;
    int32_t kind = MEMBER_GENERATED;
    uint32_t flags = ZIP_FLAG_DESCRIPTOR;
    time_t mtime = 0;             // a collected file's modification time
    uint32_t dos_datetime = 0;    // MS-DOS date << 16 | time, once begun
    uint32_t crc32 = 0;
    uint32_t compressed_size = 0;
    uint32_t uncompressed_size = 0;
    uint64_t local_header_offset = 0;  // past 4 GiB the directory says so in ZIP64 form
    uint64_t data_in = 0;              // bytes handed to the deflate stream
    bool cut = false;                  // data stopped at ZIP_MEMBER_LIMIT or at the budget
    bool budget_cut = false;           // data stopped at the archive's budget
    bool deadline_cut = false;         // data stopped at the run's deadline
    // For the manifest: the command line that made it or the file's path,
    // how that went, the SHA-256 of its data, when it began (ms since the
    // epoch) and how long it took.
    std::string command;
    std::string source_path;
    std::string status = "ok";  // ok, exit, timeout, interrupted, missing, error
    int exit_status = 0;        // with "exit"
    std::string error;          // with "error": the errno text
    unsigned char sha256[32] = {};
    int64_t started_ms = 0;
    int64_t duration_ms = 0;
    const char *engine = "zlib";  // what deflated it, at what level
    int level = 6;
};

// A collected file's size and time; the size is clamped (and marked cut)
// at ZIP_MEMBER_LIMIT.
void member_from_stat(ZipMember *member, int64_t size, time_t mtime);

// The length of the valid UTF-8 sequence at text[at], or 0.
size_t utf8_length(const std::string &text, size_t at);
// Whether a member name takes ZIP_FLAG_UTF8: it holds bytes past ASCII, and
// all of it is valid UTF-8. Other names keep the flags they had.
bool utf8_flagged(const std::string &name);

// t as MS-DOS date << 16 | time, local time; before 1980 its first second.
uint32_t zip_dos_datetime(time_t t);

// A record assembled in memory, least significant byte first, so that it
// leaves in one piece.
class Record {
public:
    Record &u16(uint32_t value) { return put(value, 2); }
    Record &u32(uint32_t value) { return put(value, 4); }
    Record &u64(uint64_t value) { return put(value, 8); }
    Record &bytes(const char *data, size_t count);
    const std::string &text() const { return bytes_; }
    size_t size() const { return bytes_.size(); }
    void clear() { bytes_.clear(); }

private:
    Record &put(uint64_t value, int count);
    std::string bytes_;
};

// The header's name length field is 16 bits; longer names wrap rather than
// being refused, and the local header carries only that many name bytes.
uint32_t wrapped_name_length(const ZipMember &member);

void add_local_header(Record &record, const ZipMember &member);
void add_descriptor(Record &record, const ZipMember &member);
void add_central_record(Record &record, const ZipMember &member);
// What a member's central record takes, at most: its ZIP64 extra included.
uint64_t directory_record_size(size_t name_length);
// The records that end an archive of count members whose directory of
// directory_size bytes starts at directory_offset.
void add_end_records(Record &record, uint64_t count, uint64_t directory_size, uint64_t directory_offset);
// The most the end records take.
constexpr uint64_t END_RESERVE = END_RECORD_SIZE + ZIP64_END_SIZE + ZIP64_LOCATOR_SIZE;

#endif
