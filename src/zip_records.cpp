#include "zip_records.h"

namespace {

constexpr uint32_t LOCAL_HEADER_SIGNATURE = 0x04034b50;
constexpr uint32_t DESCRIPTOR_SIGNATURE = 0x08074b50;
constexpr uint32_t CENTRAL_SIGNATURE = 0x02014b50;
constexpr uint32_t END_SIGNATURE = 0x06054b50;
constexpr uint32_t ZIP64_END_SIGNATURE = 0x06064b50;
constexpr uint32_t ZIP64_LOCATOR_SIGNATURE = 0x07064b50;

// ZIP64: the version that readers need for it, the extra field that carries
// a 64-bit offset, and the field values that say "see the ZIP64 record".
constexpr uint32_t ZIP64_VERSION = 45;
constexpr uint32_t ZIP64_EXTRA_ID = 0x0001;
constexpr uint32_t MAX_U16 = 0xffff;
// A member with a UTF-8 name comes from a Unix host, as a regular file.
constexpr uint32_t HOST_UNIX = 3;
constexpr uint32_t UNIX_FILE_ATTRIBUTES = 0100644u << 16;
constexpr uint32_t MAX_U32 = 0xffffffff;

}  // namespace

void member_from_stat(ZipMember *member, int64_t size, time_t mtime)
{
    const uint64_t bytes = size > 0 ? static_cast<uint64_t>(size) : 0;
    member->cut = bytes > ZIP_MEMBER_LIMIT;
    member->uncompressed_size = member->cut ? ZIP_MEMBER_LIMIT : static_cast<uint32_t>(bytes);
    member->mtime = mtime;
}

uint32_t zip_dos_datetime(time_t t)
{
    struct tm parts;
    // MS-DOS dates start in 1980; anything earlier is clamped to its first
    // second rather than wrapping into a nonsense year.
    if (localtime_r(&t, &parts) == nullptr || parts.tm_year < 80)
        return 0x00210000;
    const uint32_t date =
        static_cast<uint32_t>((parts.tm_year - 80) << 9 | (parts.tm_mon + 1) << 5 | parts.tm_mday);
    const uint32_t time_of_day =
        static_cast<uint32_t>(parts.tm_hour << 11 | parts.tm_min << 5 | parts.tm_sec / 2);
    return (date & 0xffff) << 16 | (time_of_day & 0xffff);
}

Record &Record::bytes(const char *data, size_t count)
{
    bytes_.append(data, count);
    return *this;
}

Record &Record::put(uint64_t value, int count)
{
    for (int i = 0; i < count; ++i, value >>= 8)
        bytes_.push_back(static_cast<char>(value & 0xff));
    return *this;
}

uint32_t wrapped_name_length(const ZipMember &member)
{
    return static_cast<uint32_t>(member.name.size()) & 0xffff;
}

void add_local_header(Record &record, const ZipMember &member)
{
    // CRC and sizes are not known until the data has streamed past, and the
    // output cannot be rewound: they are zero here and come in the data
    // descriptor (flag bit 3).
    record.u32(LOCAL_HEADER_SIGNATURE)                  // local header signature
        .u16(ZIP_VERSION)                               // version needed to extract
        .u16(member.flags)                              // general-purpose flags
        .u16(ZIP_METHOD_DEFLATE)                        // compression method
        .u16(member.dos_datetime & 0xffff)              // modification time
        .u16(member.dos_datetime >> 16)                 // modification date
        .u32(0)                                         // CRC-32, in the descriptor
        .u32(0)                                         // compressed size, ditto
        .u32(0)                                         // uncompressed size, ditto
        .u16(wrapped_name_length(member))               // file name length
        .u16(0)                                         // extra field length
        .bytes(member.name.data(), wrapped_name_length(member));  // file name
}

void add_descriptor(Record &record, const ZipMember &member)
{
    // Sizes always fit 32 bits: data stops at ZIP_MEMBER_LIMIT.
    record.u32(DESCRIPTOR_SIGNATURE)                    // data descriptor signature
        .u32(member.crc32)                              // CRC-32
        .u32(member.compressed_size)                    // compressed size
        .u32(member.uncompressed_size);                 // uncompressed size
}

void add_central_record(Record &record, const ZipMember &member)
{
    // An offset past 32 bits moves into a ZIP64 extra field; below that the
    // record is the plain ZIP 2.0 one.
    const bool zip64 = member.local_header_offset >= MAX_U32;
    const uint32_t version = zip64 ? ZIP64_VERSION : ZIP_VERSION;
    // A UTF-8 name comes from a Unix host: unzip converts the names of
    // MS-DOS hosts from their code page whatever the flag says. That host's
    // attributes are a mode, rw-r--r--.
    const bool unix_host = (member.flags & ZIP_FLAG_UTF8) != 0;
    record.u32(CENTRAL_SIGNATURE)                       // central header signature
        .u16((unix_host ? HOST_UNIX << 8 : 0) | version)  // version made by (host, then version)
        .u16(version)                                   // version needed to extract
        .u16(member.flags)                              // general-purpose flags
        .u16(ZIP_METHOD_DEFLATE)                        // compression method
        .u16(member.dos_datetime & 0xffff)              // modification time
        .u16(member.dos_datetime >> 16)                 // modification date
        .u32(member.crc32)                              // CRC-32
        .u32(member.compressed_size)                    // compressed size
        .u32(member.uncompressed_size)                  // uncompressed size
        .u16(wrapped_name_length(member))               // file name length
        .u16(zip64 ? ZIP64_OFFSET_EXTRA_SIZE : 0)       // extra field length
        .u16(0)                                         // file comment length
        .u16(0)                                         // disk number start
        .u16(0)                                         // internal attributes
        .u32(unix_host ? UNIX_FILE_ATTRIBUTES : 0)      // external attributes
        .u32(zip64 ? MAX_U32 : static_cast<uint32_t>(member.local_header_offset));  // local header offset
    // Unlike the local header, the whole name follows even when its length
    // wrapped; the directory size counts it all.
    record.bytes(member.name.data(), member.name.size());  // file name
    if (zip64)
        record.u16(ZIP64_EXTRA_ID)                      // ZIP64 extra field tag
            .u16(ZIP64_OFFSET_EXTRA_SIZE - 4)           // its data size
            .u64(member.local_header_offset);           // local header offset
}

uint64_t directory_record_size(size_t name_length)
{
    return CENTRAL_RECORD_SIZE + name_length + ZIP64_OFFSET_EXTRA_SIZE;
}

void add_end_records(Record &record, uint64_t count, uint64_t directory_size, uint64_t directory_offset)
{
    // Past 65,534 members or 4 GiB the end record cannot say where the
    // directory is: a ZIP64 end record and its locator go first, and the
    // fields that overflow hold their all-ones marker.
    const bool zip64 = count >= MAX_U16 || directory_size >= MAX_U32 || directory_offset >= MAX_U32;
    if (zip64) {
        record.u32(ZIP64_END_SIGNATURE)                 // ZIP64 end record signature
            .u64(ZIP64_END_SIZE - 12)                   // size of the rest of it
            .u16(ZIP64_VERSION)                         // version made by
            .u16(ZIP64_VERSION)                         // version needed to extract
            .u32(0)                                     // number of this disk
            .u32(0)                                     // disk of the directory
            .u64(count)                                 // records on this disk
            .u64(count)                                 // records in total
            .u64(directory_size)                        // directory size
            .u64(directory_offset);                     // directory offset
        record.u32(ZIP64_LOCATOR_SIGNATURE)             // ZIP64 locator signature
            .u32(0)                                     // disk of the ZIP64 end record
            .u64(directory_offset + directory_size)     // its offset
            .u32(1);                                    // number of disks
    }
    const uint32_t short_count = zip64 && count >= MAX_U16 ? MAX_U16 : static_cast<uint32_t>(count);
    record.u32(END_SIGNATURE)                           // end record signature
        .u16(0)                                         // number of this disk
        .u16(0)                                         // disk of the directory
        .u16(short_count)                               // records on this disk
        .u16(short_count)                               // records in total
        .u32(directory_size >= MAX_U32 ? MAX_U32 : static_cast<uint32_t>(directory_size))  // directory size
        .u32(directory_offset >= MAX_U32 ? MAX_U32 : static_cast<uint32_t>(directory_offset))  // directory offset
        .u16(0);                                        // comment length
}

// The length of the valid UTF-8 sequence at text[at], or 0.
size_t utf8_length(const std::string &text, size_t at)
{
    const auto byte = [&](size_t i) { return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0; };
    const unsigned char first = byte(0);
    const auto follows = [&](size_t i, unsigned char low, unsigned char high) { return byte(i) >= low && byte(i) <= high; };
    if (first < 0x80)
        return 1;
    if (first >= 0xc2 && first <= 0xdf)
        return follows(1, 0x80, 0xbf) ? 2 : 0;
    if (first >= 0xe0 && first <= 0xef) {
        // No overlong forms, no surrogates.
        const unsigned char low = first == 0xe0 ? 0xa0 : 0x80, high = first == 0xed ? 0x9f : 0xbf;
        return follows(1, low, high) && follows(2, 0x80, 0xbf) ? 3 : 0;
    }
    if (first >= 0xf0 && first <= 0xf4) {
        const unsigned char low = first == 0xf0 ? 0x90 : 0x80, high = first == 0xf4 ? 0x8f : 0xbf;
        return follows(1, low, high) && follows(2, 0x80, 0xbf) && follows(3, 0x80, 0xbf) ? 4 : 0;
    }
    return 0;
}

bool utf8_flagged(const std::string &name)
{
    bool past_ascii = false;
    for (size_t at = 0, length; at < name.size(); at += length) {
        if ((length = utf8_length(name, at)) == 0)
            return false;
        past_ascii = past_ascii || length > 1;
    }
    return past_ascii;
}
