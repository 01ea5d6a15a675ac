// The archive written front to back in one pass: each member's local
// header, its data (through ZipData), its data descriptor; at the end the
// central directory of every finished member and the end records.
#ifndef QUELVANE_ZIP_WRITER_H
#define QUELVANE_ZIP_WRITER_H

#include <vector>

#include "zip_data.h"
#include "zip_records.h"

class ZipWriter {
public:
    ZipWriter(Sink &sink, const Scrubber &scrub, Compression compression, bool hash)
        : stream_(sink, scrub, compression, hash)
    {
    }

    ZipData &stream() { return stream_; }
    // The local header: 0, -1 after the sink's message, or zlib's error
    // starting the member's deflate stream.
    int begin_member(ZipMember &member);
    // The data descriptor, then the member joins the directory: 0 or -1.
    int finish_member(ZipMember &member);
    // The central directory and end records, then everything is sent.
    int finish_archive();
    // The finished members, in order.
    const std::vector<ZipMember> &members() const { return members_; }

private:
    ZipData stream_;
    std::vector<ZipMember> members_;
};

#endif
