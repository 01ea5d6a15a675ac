#include "zip_writer.h"

#include <new>

int ZipWriter::begin_member(ZipMember &member)
{
    const int started = stream_.begin_member(member);
    if (started != 0)
        return started;
    // A collected file always keeps its recorded time, so a file stamped 0
    // reads as 1 January 1980; only generated members take "now" for 0.
    const time_t when = member.mtime == 0 && member.kind != MEMBER_FILE ? time(nullptr) : member.mtime;
    member.dos_datetime = zip_dos_datetime(when);
    if (utf8_flagged(member.name))
        member.flags |= ZIP_FLAG_UTF8;
    member.local_header_offset = stream_.offset();
    Record header;
    add_local_header(header, member);
    return stream_.emit(header);
}

int ZipWriter::finish_member(ZipMember &member)
{
    stream_.end_member(member);
    Record descriptor;
    add_descriptor(descriptor, member);
    if (stream_.emit(descriptor) != 0)
        return -1;
    try {
        members_.push_back(member);
    } catch (const std::bad_alloc &) {
        return -1;
    }
    stream_.owe(directory_record_size(member.name.size()));
    return 0;
}

int ZipWriter::finish_archive()
{
    // One record a sink call; the sink gathers them into large writes. The
    // offset moves once all of it has been sent.
    const uint64_t directory_offset = stream_.offset();
    uint64_t directory_size = 0;
    Record record;
    for (const ZipMember &member : members_) {
        record.clear();
        add_central_record(record, member);
        if (stream_.emit_uncounted(record) != 0)
            return -1;
        directory_size += record.size();
    }
    record.clear();
    add_end_records(record, members_.size(), directory_size, directory_offset);
    if (stream_.emit_uncounted(record) != 0 || stream_.sink().flush() != 0)
        return -1;
    stream_.advance(directory_size + record.size());
    return 0;
}
