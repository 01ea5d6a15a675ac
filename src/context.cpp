#include "context.h"

namespace {

// What an entry's ".err" member needs for our own lines (a cut, a time-out,
// an exit code), and the least data an entry must have room for to start.
constexpr uint64_t NOTE_RESERVE = 512;
constexpr uint64_t MIN_DATA = 256;

const char CUT_NOTE[] = "QUELVANE MSG: Data cut at %lu bytes, the largest member an archive holds\n";
const char BUDGET_CUT_NOTE[] = "QUELVANE MSG: Data cut at %llu bytes, the archive's size limit\n";
const char DEADLINE_CUT_NOTE[] = "QUELVANE MSG: Data cut at %llu bytes, the run's deadline\n";

}  // namespace

const char *entry_result_name(EntryResult result)
{
    static const char *const NAMES[] = {"ok", "error", "timeout", "interrupted", "skipped"};
    return NAMES[static_cast<int>(result)];
}

std::string Skipped::line() const
{
    return std::string(reason) + " " + std::to_string(number) + " " + kind + " " + member + "\n";
}

std::string Context::top_name(const char *leaf)
{
    return prefix.empty() ? leaf : prefix + "/" + leaf;
}

EntryNames Context::command_names(const ConfigEntry &entry, const std::string &command)
{
    const std::string directory = scrub.text(entry.member_name);
    std::string origin = scrub.text(command);
    return {origin, member_name(directory, origin, ".out", true), member_name(directory, origin, ".err", true)};
}

EntryNames Context::file_names(const ConfigEntry &entry, const std::string &path)
{
    const std::string directory = scrub.text(entry.member_name);
    std::string origin = scrub.text(path);
    return {origin, member_name(directory, origin, nullptr, false), member_name(directory, origin, ".err", false)};
}

bool Context::admit(const EntryNames &names)
{
    ZipData &data = zip.stream();
    if (stop_reason == nullptr && data.budget_exhausted())
        stop_reason = "max-size";
    if (stop_reason == nullptr && pacing.deadline_passed())
        stop_reason = "deadline";
    if (stop_reason == nullptr && data.budget_active()) {
        const uint64_t err_cost = data.member_cost(names.err.size(), NOTE_RESERVE);
        data.hold(skipped_reserve);
        if (data.admits(data.member_cost(names.out.size(), MIN_DATA) + err_cost))
            data.hold(skipped_reserve + err_cost);
        else
            stop_reason = "max-size";
    }
    return stop_reason == nullptr;
}

int Context::write_text_member(ZipMember &member, const TextBuffer &text, const TextBuffer *more)
{
    ZipData &data = zip.stream();
    const bool two = more != nullptr && !more->empty();
    if (zip.begin_member(member) != 0 || data.from_text(member, text, two ? Z_NO_FLUSH : Z_FINISH) < 0)
        return -1;
    // Our own lines use the room held for them, even after data the
    // budget cut.
    if (data.budget_active())
        data.hold(skipped_reserve);
    const bool cut = member.budget_cut;
    member.budget_cut = false;
    const bool failed = two && data.from_text(member, *more, Z_FINISH) < 0;
    member.budget_cut = member.budget_cut || cut;
    return failed || zip.finish_member(member) != 0 ? -1 : 0;
}

int Context::add_cut_note(const ZipMember &member)
{
    if (member.budget_cut || member.deadline_cut)
        return notes.printf(member.budget_cut ? _(BUDGET_CUT_NOTE) : _(DEADLINE_CUT_NOTE),
                            static_cast<unsigned long long>(member.data_in));
    return notes.printf(_(CUT_NOTE), static_cast<unsigned long>(ZIP_MEMBER_LIMIT));
}
