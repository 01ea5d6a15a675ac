#include "run_report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "descriptor.h"

namespace {

using Json = nlohmann::ordered_json;

std::string utc_time(int64_t milliseconds)
{
    const time_t seconds = static_cast<time_t>(milliseconds / 1000);
    struct tm parts;
    char text[64] = "";
    if (gmtime_r(&seconds, &parts) == nullptr || strftime(text, 32, "%Y-%m-%dT%H:%M:%S", &parts) == 0)
        return "";
    snprintf(text + strlen(text), sizeof text - strlen(text), ".%03dZ", static_cast<int>(milliseconds % 1000));
    return text;
}

Json describe(const ZipMember &member)
{
    Json result = {{"status", member.status}};
    if (member.status == "exit")
        result["exit_status"] = member.exit_status;
    if (!member.error.empty())
        result["error"] = member.error;
    result["cut"] = member.cut;
    char crc_text[16];
    snprintf(crc_text, sizeof crc_text, "%08x", member.crc32);
    const Json made = !member.command.empty()       ? Json{{"kind", "command"}, {"command", member.command}}
                      : !member.source_path.empty() ? Json{{"kind", "file"}, {"path", member.source_path}}
                                                    : Json{{"kind", "generated"}};
    return {{"name", member.name},
            {"made_by", made},
            {"result", result},
            {"bytes_in", member.data_in},
            {"bytes_out", member.compressed_size},
            {"crc32", crc_text},
            {"sha256", hex(member.sha256, sizeof member.sha256)},
            {"started", utc_time(member.started_ms)},
            {"duration_ms", member.duration_ms}};
}

// The manifest without its member list: the head's text less its closing
// brace, ready for the members to follow.
std::string manifest_head(Context &context, const std::vector<std::pair<std::string, std::string>> &options)
{
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    Json given = Json::object();
    for (const auto &option : options)
        given[option.first] = option.second;
    Json head = {{"tool", "quelvane"},
                 {"version", QUELVANE_VERSION},
                 {"host", host},
                 {"created", utc_time(clock_ms(CLOCK_REALTIME) / 1000 * 1000)},
                 {"options", given}};
    Json left_out = Json::array();
    for (const Skipped &entry : context.skipped)
        left_out.push_back(
            {{"number", entry.number}, {"kind", entry.kind}, {"member", entry.member}, {"reason", entry.reason}});
    head["skipped"] = left_out;
    std::string text = head.dump(1);
    text.erase(text.find_last_not_of(" \n", text.find_last_of('}') - 1) + 1);
    return text + ",\n \"members\": [";
}

// Deflates text into the member as one more piece of it.
bool add_text(ZipData &data, ZipMember &member, const std::string &text, int flush)
{
    const int result = data.chunk(member, text.data(), static_cast<unsigned>(text.size()), flush);
    return result == Z_OK || result == Z_STREAM_END;
}

}  // namespace

Result write_readme(Context &context, const RunFacts &facts)
{
    return guarded([&] {
        ZipMember member;
        member.name = context.top_name("README");
        // Scripts read these lines: they are never translated.
        TextBuffer text;
        if (text.printf("Archive Name: %s\n", facts.archive_name.c_str()) < 0 ||
            text.printf("Config File: %s\n", facts.config_path.c_str()) < 0 ||
            text.printf("Version: %s\n", QUELVANE_VERSION) < 0 ||
            text.printf("LOG-ONLY MODE: %s\n", facts.log_only ? "yes" : "no") < 0 ||
            text.printf("Log Sets: %s\n", facts.log_sets.c_str()) < 0 ||
            text.printf("SP SW DOWN: %s\n", facts.sp_sw_down ? "yes" : "no") < 0 ||
            text.printf("Max Domains: %d\n", facts.max_domains) < 0) {
            fputs(_("Error buffering README\n"), stderr);
            return Result::output_failure;
        }
        // Sent at once, so that an output that fails shows here.
        return context.write_text_member(member, text) == 0 && context.zip.stream().sink().flush() == 0
                   ? Result::ok
                   : Result::output_failure;
    });
}

Result write_config(Context &context, const std::string &config_path)
{
    return guarded([&] {
        struct stat status;
        if (stat(config_path.c_str(), &status) != 0)
            return Result::output_failure;
        ZipMember member;
        member.name = context.top_name("CONFIG");
        member.kind = MEMBER_FILE;
        member.source_path = context.scrub.text(config_path);
        member_from_stat(&member, status.st_size, status.st_mtime);
        // Unreadable although stat saw it: the run goes on without it.
        Descriptor fd(open(config_path.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.get() == -1)
            return Result::ok;
        int read_error = 0;
        ZipWriter &zip = context.zip;
        if (zip.begin_member(member) != 0 || zip.stream().from_file(member, fd.get(), &read_error) != 0 ||
            zip.finish_member(member) != 0 || zip.stream().sink().flush() != 0)
            return Result::output_failure;
        return Result::ok;
    });
}

Result write_skipped(Context &context)
{
    if (context.skipped.empty())
        return Result::ok;
    const Result made = guarded([&] {
        ZipMember member;
        member.name = context.top_name("SKIPPED");
        TextBuffer text;
        for (const Skipped &entry : context.skipped)
            if (!text.add(entry.line()))
                return Result::collection_error;
        // Its room was held all along; nothing else is left to hold it for.
        context.zip.stream().hold(0);
        return context.write_text_member(member, text) == 0 ? Result::ok : Result::output_failure;
    });
    return made == Result::no_memory ? Result::collection_error : made;
}

Result write_manifest(Context &context, const std::vector<std::pair<std::string, std::string>> &options)
{
    const Result made = guarded([&] {
        try {
            std::string text = manifest_head(context, options);
            ZipMember member;
            member.name = context.top_name("MANIFEST.json");
            ZipWriter &zip = context.zip;
            if (zip.begin_member(member) != 0)
                return Result::output_failure;
            // Members one at a time, so that a large archive's list never
            // sits in memory as text.
            const std::vector<ZipMember> &members = zip.members();
            for (size_t i = 0; i < members.size(); ++i) {
                text += (i == 0 ? "\n  " : ",\n  ") +
                        describe(members[i]).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
                if (text.size() >= 32768) {
                    if (!add_text(zip.stream(), member, text, Z_NO_FLUSH))
                        return Result::output_failure;
                    text.clear();
                }
            }
            text += "\n ]\n}\n";
            if (!add_text(zip.stream(), member, text, Z_FINISH) || zip.finish_member(member) != 0)
                return Result::output_failure;
            return Result::ok;
        } catch (const nlohmann::json::exception &) {
            return Result::collection_error;
        }
    });
    return made == Result::no_memory ? Result::collection_error : made;
}
