// What the collecting rooms share during a run: where the members go, what
// the operator and the progress channel see, the limits, and the entry
// under way with its text buffers and the names made for it.
#ifndef QUELVANE_CONTEXT_H
#define QUELVANE_CONTEXT_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "config.h"
#include "console.h"
#include "pacing.h"
#include "progress.h"
#include "scrub.h"
#include "text_buffer.h"
#include "zip_writer.h"

// How an entry went, worst last, as the progress channel names them.
enum class EntryResult { ok, error, timeout, interrupted, skipped };
const char *entry_result_name(EntryResult result);

// The names of one piece of an entry's work, made once from the raw text
// and scrubbed there, before any flattening or escaping: what made it (a
// command line, a file's path), its member, and its ".err" member.
struct EntryNames {
    std::string origin;
    std::string out;
    std::string err;
};

// An entry the deadline or the budget left out.
struct Skipped {
    const char *reason;  // "deadline" or "max-size"
    size_t number;       // its place among the selected entries, from 1
    const char *kind;
    std::string member;

    std::string line() const;  // "<reason> <number> <kind> <member>\n"
};

struct Context {
    Context(Console &console_, ProgressChannel &progress_, Pacing &pacing_, Scrubber &scrub_, ZipWriter &zip_,
            std::string prefix_)
        : console(console_), progress(progress_), pacing(pacing_), scrub(scrub_), zip(zip_), prefix(std::move(prefix_)),
          err_scrub(scrub_)
    {
    }

    Console &console;
    ProgressChannel &progress;
    Pacing &pacing;
    Scrubber &scrub;
    ZipWriter &zip;
    std::string prefix;  // the archive's top directory (-a less ".zip"), scrubbed

    // The entry under way.
    EntryResult result = EntryResult::ok;
    TextBuffer err_text;  // a command's standard error, or our lines about a file
    Scrubber::Stream err_scrub;  // standard error scrubbed as it comes, before the cap
    TextBuffer notes;     // our own lines about a command, after its standard error
    // Under a budget: what the SKIPPED member may still need, and the least
    // it takes (its last line alone).
    uint64_t skipped_reserve = 0;
    uint64_t skipped_least = 0;
    // Why the walk stops early ("deadline", "max-size"); null while it goes on.
    const char *stop_reason = nullptr;
    std::vector<Skipped> skipped;

    void note(EntryResult worse)
    {
        if (worse > result)
            result = worse;
    }
    // A member of the archive's top directory.
    std::string top_name(const char *leaf);
    EntryNames command_names(const ConfigEntry &entry, const std::string &command);
    EntryNames file_names(const ConfigEntry &entry, const std::string &path);
    // Whether more work making these members may start: not past the
    // deadline and, under a budget, with room for a little data and the
    // ".err" member's notes on top of what SKIPPED may need; that room for
    // the notes is then held.
    bool admit(const EntryNames &names);
    // A member made of text (then more text, if there is any): 0, or -1
    // when the output failed.
    int write_text_member(ZipMember &member, const TextBuffer &text, const TextBuffer *more = nullptr);
    // The note in a cut member's ".err": where its data stopped, and why.
    int add_cut_note(const ZipMember &member);
};

#endif
