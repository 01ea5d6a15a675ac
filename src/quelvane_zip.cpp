// One-pass ZIP writer and the raw deflate stream.
#include "quelvane_zip.h"

#include "quelvane_datagen.h"
#include "quelvane_util.h"

int zip_write_u32(int, uint32_t) { return -1; }
int zip_write_u16(int, uint32_t) { return -1; }
int zip_write_u8(int, uint32_t) { return -1; }
uint32_t zip_dos_datetime(time_t) { return 0; }
int quelvane_z_output_local_file_header(int, ZipMember *, uint32_t *) { return -1; }
int zip_finish_member(int, ZipMember *, uint32_t *) { return -1; }
int zip_finish_archive(int, uint32_t *) { return -1; }
int zip_member_list_add(const ZipMember *) { return -1; }
void zip_member_list_free() {}
const std::vector<ZipMember> &zip_member_list()
{
    static std::vector<ZipMember> members;
    return members;
}
int zip_open_member_file(ZipMember *) { return -1; }
int zip_close_member_file(ZipMember *) { return -1; }
int zip_deflate_start() { return -1; }
int zip_deflate_end() { return -1; }
int zip_deflate_chunk(ZipMember *, int, const void *, unsigned, int, uint32_t *) { return -1; }
int zip_deflate_file(int, ZipMember *, uint32_t *, int *) { return -1; }
int zip_deflate_fd(int, ZipMember *, int, int, uint32_t *) { return -1; }
void zip_report_error(int) {}
