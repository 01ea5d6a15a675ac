// One-pass ZIP writer and the process-wide raw deflate stream.
#ifndef QUELVANE_ZIP_H
#define QUELVANE_ZIP_H

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

enum {
    MEMBER_GENERATED = 1,  // size counted while deflating
    MEMBER_FILE = 2,       // size and time taken from stat by the producer
};

// What every member declares: ZIP 2.0, deflate, and CRC and sizes in a data
// descriptor after the data (bit 3), since the output cannot be rewound.
enum : int32_t {
    ZIP_VERSION = 20,
    ZIP_FLAG_DESCRIPTOR = 8,
    ZIP_METHOD_DEFLATE = 8,
};

// No member holds more data than this: both 32-bit size fields of its data
// descriptor must hold, and deflate may add a little to incompressible data.
constexpr uint32_t ZIP_MEMBER_LIMIT = 0xFFC00000u;  // 4 GiB - 4 MiB

// One archive member. Producers reset it (member = ZipMember{}) and fill it;
// the writer completes CRC, sizes, offset and date.
struct ZipMember {
    int32_t version_needed = 0;
    int32_t flags = 0;
    int32_t method = 0;
    uint32_t dos_datetime = 0;  // time_t in; MS-DOS date << 16 | time once begun
    std::string name;
    std::string source_path;    // collected files only
    uint32_t crc32 = 0;
    uint32_t compressed_size = 0;
    uint32_t uncompressed_size = 0;
    uint64_t local_header_offset = 0;  // past 4 GiB the directory says so in ZIP64 form
    FILE *source_file = nullptr;
    int32_t kind = 0;
    uint64_t data_in = 0;  // bytes handed to the deflate stream
    bool cut = false;      // data stopped at ZIP_MEMBER_LIMIT or at the budget
    bool budget_cut = false;  // data stopped at the archive's budget
    // For the manifest: the command line that made it (with source_path, a
    // file's path), how that went, the SHA-256 of its data, when it began
    // (ms since the epoch) and how long it took; timed only for the manifest.
    std::string command;
    std::string status = "ok";              // ok, exit, timeout, interrupted, missing, error
    int exit_status = 0;                    // with "exit"
    std::string error;                      // with "error": the errno text
    unsigned char sha256[32] = {};
    int64_t started_ms = 0;
    int64_t duration_ms = 0;
};

// The archive's running state: the offset of the next byte of the plain ZIP
// stream. Every archive operation receives a pointer to it.
struct ZipWriter {
    uint64_t total_written = 0;
};

// A fresh record of the given kind carrying the constants above.
void zip_member_init(ZipMember *member, int32_t kind);
// Size and time of a collected file, its size clamped (and marked cut) at
// ZIP_MEMBER_LIMIT.
void zip_member_from_stat(ZipMember *member, const struct stat &status);

int zip_write_u32(int out_fd, uint32_t value);
int zip_write_u16(int out_fd, uint32_t value);
int zip_write_u8(int out_fd, uint32_t value);
uint32_t zip_dos_datetime(time_t t);

// Member lifecycle: begin (local header), data (deflate), finish (descriptor
// and a copy into the member list); once per archive: central directory.
int quelvane_z_output_local_file_header(int out_fd, ZipMember *member, uint64_t *total_written);
int zip_finish_member(int out_fd, ZipMember *member, uint64_t *total_written);
int zip_finish_archive(int out_fd, uint64_t *total_written);

int zip_member_list_add(const ZipMember *member);
void zip_member_list_free();
const std::vector<ZipMember> &zip_member_list();

// The archive's budget: with a limit set, no byte past it is ever written.
// Member data is cut where the next piece might not fit, keeping in reserve
// the directory and end records still owed, the open member's descriptor
// and directory record, and what the producer holds for later.
void zip_budget_set(uint64_t limit);  // plain ZIP bytes; 0: no budget, and a fresh start
bool zip_budget_active();
// Whether bytes more of records and members fit after what is owed; a
// refusal exhausts the budget.
bool zip_budget_admits(uint64_t total_written, uint64_t bytes);
// The producer's reserve for members it must still write.
void zip_budget_hold(uint64_t bytes);
// Set once a member was cut or refused for the budget.
bool zip_budget_exhausted();
// The most a member with this name and this much data adds to the archive,
// its directory record included.
uint64_t zip_member_cost(size_t name_length, uint64_t data_length);

int zip_open_member_file(ZipMember *member);
int zip_close_member_file(ZipMember *member);

// The deflate stream, shared by every member of the process.
int zip_deflate_start();
int zip_deflate_end();
int zip_deflate_chunk(ZipMember *member, int out_fd, const void *data, unsigned length,
                      int flush, uint64_t *total_written);
int zip_deflate_file(int out_fd, ZipMember *member, uint64_t *total_written, int *error_out);
int zip_deflate_fd(int out_fd, ZipMember *member, int source_fd, int final_flush,
                   uint64_t *total_written);
void zip_report_error(int code);
// Bytes deflated into every member so far.
uint64_t zip_data_total();
// Whether members get a SHA-256 of their data (for the manifest).
void zip_hash_members(bool on);

#endif
