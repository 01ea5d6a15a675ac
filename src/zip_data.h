// The plain ZIP stream on its way to the sink: records pass whole, member
// data takes the data path (scrubbed, capped at the member limit, kept
// within the budget, CRC and SHA-256 taken, deflated), and every byte is
// counted, so the stream's offset is always known.
#ifndef QUELVANE_ZIP_DATA_H
#define QUELVANE_ZIP_DATA_H

#include <cstdint>
#include <memory>
#include <vector>

#include <zlib.h>

#include "deflater.h"
#include "scrub.h"
#include "sink.h"
#include "text_buffer.h"
#include "zip_records.h"

class ZipData {
public:
    // hash: members get a SHA-256 and timing.
    ZipData(Sink &sink, const Scrubber &scrub, Compression compression, bool hash);
    ~ZipData();
    ZipData(const ZipData &) = delete;
    ZipData &operator=(const ZipData &) = delete;

    // The deflate stream, once a run: zlib's result, after its message.
    int start_stream();
    int end_stream();
    // Bytes of the plain ZIP stream so far: the next byte's offset.
    uint64_t offset() const { return offset_; }
    // A record, whole, counted once sent: 0, or -1 after the sink's message.
    int emit(const Record &record);
    // Records sent now and counted later (the directory, counted once it is
    // all sent).
    int emit_uncounted(const Record &record);
    void advance(uint64_t bytes) { offset_ += bytes; }
    Sink &sink() { return sink_; }

    // A member's data: begin, then pieces (the last one flushed with
    // Z_FINISH), then end. The pieces return zlib's result (Z_OK,
    // Z_STREAM_END), a zlib error after its message, or -1 when the sink
    // failed.
    int begin_member(ZipMember &member);
    int chunk(ZipMember &member, const void *data, unsigned length, int flush);
    // The same for text scrubbed where it was made: it skips the scrubber.
    // A member takes its pieces one way or the other, never both.
    int put(ZipMember &member, const void *data, unsigned length, int flush);
    // A collected file's descriptor, up to the size it declared (to its end
    // for size 0): 0, a read's errno (also in *read_error), or a failed
    // piece's result.
    int from_file(ZipMember &member, int fd, int *read_error);
    // What a descriptor has now; with Z_FINISH the member's data ends here.
    // 0, a read's errno, or a failed piece's result.
    int from_fd(ZipMember &member, int fd, int final_flush);
    // An empty sync block in the open member, sent at once: bytes on the
    // wire, the data unchanged. 0, or -1 after the failure's message.
    int keepalive(ZipMember &member);
    // Buffered text, scrubbed where it was made; finish flushes its last piece.
    int from_text(ZipMember &member, const TextBuffer &text, int finish);
    // Sizes, SHA-256 and duration complete, before the descriptor.
    void end_member(ZipMember &member);
    // A collected file still being read at this CLOCK_MONOTONIC time is
    // cut there; -1: never.
    void set_deadline(int64_t at_ms) { deadline_ms_ = at_ms; }
    // Under a budget: bytes the archive may still take.
    uint64_t room() const { return budget_room(nullptr); }
    // Bytes handed to the deflate stream in every member so far.
    uint64_t data_total() const { return data_total_; }

    // The archive's budget: with a limit set, no byte past it is ever
    // written. Member data is cut where the next piece might not fit,
    // keeping in reserve the directory and end records still owed, the open
    // member's descriptor and directory record, and what the producer holds
    // for later.
    void set_budget(uint64_t limit);
    bool budget_active() const { return budget_limit_ != 0; }
    // Whether bytes more fit after what is owed; a refusal exhausts it.
    bool admits(uint64_t bytes);
    // The producer's reserve for members it must still write.
    void hold(uint64_t bytes) { reserve_ = bytes; }
    // Set once a member was cut or refused for the budget.
    bool budget_exhausted() const { return budget_spent_; }
    // The most a member with this name and this much data adds to the
    // archive, its directory record included.
    uint64_t member_cost(size_t name_length, uint64_t data_length) const;
    // A directory record now owed.
    void owe(uint64_t bytes) { directory_bytes_ += bytes; }

private:
    int deflate_piece(ZipMember &member, const unsigned char *data, unsigned length, int flush);
    int deflate_within_budget(ZipMember &member, const unsigned char *data, unsigned length, int flush);
    uint64_t deflate_bound(uint64_t length) const;
    uint64_t budget_room(const ZipMember *open_member) const;
    void rewind_output();

    Sink &sink_;
    const Scrubber &scrub_;
    Scrubber::Stream scrub_stream_;
    const bool hash_;
    Deflater deflater_;
    uint64_t offset_ = 0;
    uint64_t data_total_ = 0;
    std::unique_ptr<unsigned char[]> output_;  // deflate's output, sent when full
    std::unique_ptr<unsigned char[]> input_;   // a file's or pipe's reads
    std::vector<unsigned char> scrubbed_;
    std::unique_ptr<Sha256> digest_;
    int64_t started_ = 0;  // monotonic, with hash
    // The budget: plain ZIP bytes (0: none), the directory records owed so
    // far, the producer's reserve, and the input deflated since its output
    // was last measured exactly.
    uint64_t budget_limit_ = 0;
    uint64_t directory_bytes_ = 0;
    uint64_t reserve_ = 0;
    uint64_t open_input_ = 0;
    bool budget_spent_ = false;
    int64_t deadline_ms_ = -1;
};

#endif
