#include "collection.h"

#include <algorithm>

#include "command_runner.h"
#include "file_collector.h"
#include "signals.h"

namespace {

// A command entry, once per domain index while it names the domain.
Result run_command_entry(Context &context, const ConfigEntry &entry, int max_domains, int *errors)
{
    for (int index = 0;; ++index) {
        const std::string command = command_line(entry, index);
        const EntryNames names = context.command_names(entry, command);
        if (index > 0 && !context.admit(names)) {
            context.note(EntryResult::skipped);
            break;
        }
        const Result result = run_command(context, entry, command, names);
        if (result == Result::output_failure)
            return result;
        if (result != Result::ok) {
            ++*errors;
            context.note(EntryResult::error);
        }
        // An interrupt stops the next domain's run as it stops the next entry.
        if (!entry.uses_domain || index + 1 >= max_domains || interrupted_by_user)
            break;
    }
    return Result::ok;
}

// A file entry: its path as it stands, or each match of its pattern. A
// pattern without matches is no error: configurations list files that only
// some systems have.
Result collect_file_entry(Context &context, const ConfigEntry &entry, int *errors)
{
    std::vector<std::string> paths(1, entry.path);
    if (!entry.literal_path)
        paths = expand_pattern(entry.path, entry.type == ENTRY_LOG && context.zip.stream().budget_active());
    for (const std::string &path : paths) {
        const EntryNames names = context.file_names(entry, path);
        if (!entry.literal_path && !context.admit(names)) {
            context.note(EntryResult::skipped);
            break;
        }
        const Result result = collect_file(context, path, names);
        if (result == Result::output_failure)
            return result;
        if (result != Result::ok)
            context.note(EntryResult::error);
        if (result == Result::collection_error)
            ++*errors;
    }
    return Result::ok;
}

// Under a budget, what SKIPPED may still need from each entry on: a line
// for it and every later one, and the member's records (its name is never
// longer than an entry's directory plus "/SKIPPED").
std::vector<uint64_t> skipped_reserves(Context &context, const std::vector<const ConfigEntry *> &selected,
                                       const std::vector<std::string> &members)
{
    std::vector<uint64_t> reserve(selected.size() + 1, 0);
    if (!context.zip.stream().budget_active())
        return reserve;
    size_t longest = 0;
    for (size_t i = selected.size(); i-- > 0;) {
        const Skipped line{"max-size", i + 1, entry_kind_name(selected[i]->type), members[i]};
        reserve[i] = reserve[i + 1] + line.line().size();
        longest = std::max(longest, selected[i]->member_name.size());
    }
    for (size_t i = 0; i < selected.size(); ++i)
        reserve[i] = std::max(context.zip.stream().member_cost(longest + 8, reserve[i]), context.skipped_least);
    return reserve;
}

// The entry's first names: a command's for domain 0, a file's (or
// pattern's) own.
EntryNames first_names(Context &context, const ConfigEntry &entry)
{
    return entry.is_command() ? context.command_names(entry, command_line(entry, 0))
                              : context.file_names(entry, entry.path);
}

// One selected entry, with its progress lines.
Result walk_entry(Context &context, const ConfigEntry &entry, size_t number, const EntryNames &names,
                  const Selection &selection, int *errors)
{
    ProgressChannel &progress = context.progress;
    const char *kind = entry_kind_name(entry.type);
    if (context.stop_reason == nullptr)
        context.pacing.pause();
    if (!context.admit(names)) {
        context.skipped.push_back({context.stop_reason, number, kind, names.out});
        ++*errors;
        progress.named("END " + std::to_string(number) + " ", names.out, " skipped 0 0 0\n");
        return Result::ok;
    }
    progress.named("START " + std::to_string(number) + " " + kind + " ", names.out, "\n");
    const int64_t started = clock_ms(CLOCK_MONOTONIC);
    const uint64_t in_before = context.zip.stream().data_total(), out_before = context.zip.stream().offset();
    context.result = EntryResult::ok;
    const Result result = entry.is_command() ? run_command_entry(context, entry, selection.max_domains, errors)
                                             : collect_file_entry(context, entry, errors);
    if (result != Result::ok)
        return result;
    if (context.result == EntryResult::skipped) {  // partly collected: the rest of its matches or domains
        context.skipped.push_back({context.stop_reason, number, kind, names.out});
        ++*errors;
    }
    progress.named("END " + std::to_string(number) + " ", names.out,
                   std::string(" ") + entry_result_name(context.result) + " " +
                       std::to_string(context.zip.stream().data_total() - in_before) + " " +
                       std::to_string(context.zip.stream().offset() - out_before) + " " +
                       std::to_string(clock_ms(CLOCK_MONOTONIC) - started) + "\n");
    return Result::ok;
}

std::vector<const ConfigEntry *> select(const Config &config, const Selection &selection)
{
    std::vector<const ConfigEntry *> selected;
    for (const ConfigEntry &entry : config.entries)
        if ((!selection.sp_sw_down || entry.collect_when_spswdown) && (entry.datasets & selection.datasets) != 0)
            selected.push_back(&entry);
    return selected;
}

}  // namespace

Result list_entries(Context &context, const Config &config, const Selection &selection)
{
    return guarded([&] {
        for (const ConfigEntry *entry : select(config, selection)) {
            const char *kind = entry_kind_name(entry->type);
            const std::string timeout = entry->is_command() ? std::to_string(entry->timeout) : "-";
            std::vector<EntryNames> names;
            for (int index = 0; entry->is_command(); ++index) {
                names.push_back(context.command_names(*entry, command_line(*entry, index)));
                if (!entry->uses_domain || index + 1 >= selection.max_domains)
                    break;
            }
            for (const std::string &path : entry->is_command() ? std::vector<std::string>{}
                                           : entry->literal_path ? std::vector<std::string>{entry->path}
                                                                 : expand_pattern(entry->path, false))
                names.push_back(context.file_names(*entry, path));
            for (const EntryNames &name : names)
                printf("%s %s %s %s\n", kind, timeout.c_str(), name.out.c_str(), name.origin.c_str());
        }
        return Result::ok;
    });
}

Result walk_entries(Context &context, const Config &config, const Selection &selection, int *errors)
{
    return guarded([&] {
        const std::vector<const ConfigEntry *> selected = select(config, selection);
        std::vector<EntryNames> names;
        std::vector<std::string> members;
        for (const ConfigEntry *entry : selected) {
            names.push_back(first_names(context, *entry));
            members.push_back(names.back().out);
        }
        const std::vector<uint64_t> reserve = skipped_reserves(context, selected, members);
        context.stop_reason = nullptr;
        context.skipped.clear();
        context.progress.event("BEGIN %zu v%d\n", selected.size(), PROGRESS_PROTOCOL);
        *errors = 0;
        for (size_t i = 0; i < selected.size() && !interrupted_by_user; ++i) {
            context.skipped_reserve = reserve[i];
            const Result result = walk_entry(context, *selected[i], i + 1, names[i], selection, errors);
            if (result != Result::ok)
                return result;
        }
        return interrupted_by_user ? Result::interrupted : Result::ok;
    });
}
