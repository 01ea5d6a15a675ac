#include "run_report.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

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

// A text as a JSON string under key: as it stands when it is UTF-8;
// otherwise U+FFFD for each byte that is not, and the exact bytes in
// base64 beside it, under "<key>_base64".
void put_text(Json &object, const std::string &key, const std::string &text)
{
    std::string shown;
    bool valid = true;
    for (size_t at = 0; at < text.size();) {
        const size_t length = utf8_length(text, at);
        valid = valid && length != 0;
        shown += length != 0 ? text.substr(at, length) : "\xEF\xBF\xBD";
        at += length != 0 ? length : 1;
    }
    object[key] = shown;
    if (valid)
        return;
    std::string encoded(4 * ((text.size() + 2) / 3) + 1, '\0');
    encoded.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&encoded[0]),
                                                       reinterpret_cast<const unsigned char *>(text.data()),
                                                       static_cast<int>(text.size()))));
    object[key + "_base64"] = encoded;
}

Json describe(const ZipMember &member)
{
    Json result = {{"status", member.status}};
    if (member.status == "exit")
        result["exit_status"] = member.exit_status;
    if (!member.error.empty())
        put_text(result, "error", member.error);
    result["cut"] = member.cut;
    char crc_text[16];
    snprintf(crc_text, sizeof crc_text, "%08x", member.crc32);
    Json made = {{"kind", !member.command.empty() ? "command" : !member.source_path.empty() ? "file" : "generated"}};
    if (!member.command.empty())
        put_text(made, "command", member.command);
    else if (!member.source_path.empty())
        put_text(made, "path", member.source_path);
    Json described = Json::object();
    put_text(described, "name", member.name);
    described.update(Json{
            {"made_by", made},
            {"result", result},
            {"bytes_in", member.data_in},
            {"bytes_out", member.compressed_size},
            {"deflate", {{"engine", member.engine}, {"level", member.level}}},
            {"crc32", crc_text},
            {"sha256", hex(member.sha256, sizeof member.sha256)},
            {"started", utc_time(member.started_ms)},
            {"duration_ms", member.duration_ms}});
    return described;
}

// The manifest without its member list: the head's text less its closing
// brace, ready for the members to follow.
std::string manifest_head(Context &context, const std::vector<std::pair<std::string, std::string>> &options)
{
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    // Values are scrubbed before they are escaped.
    Json given = Json::object();
    for (const auto &option : options)
        put_text(given, option.first, context.scrub.text(option.second));
    Json head = {{"tool", "quelvane"}, {"version", QUELVANE_VERSION}};
    put_text(head, "host", context.scrub.text(host));
    head["created"] = utc_time(clock_ms(CLOCK_REALTIME) / 1000 * 1000);
    head["options"] = given;
    Json left_out = Json::array();
    for (const Skipped &entry : context.skipped) {
        Json skipped = {{"number", entry.number}, {"kind", entry.kind}};
        put_text(skipped, "member", entry.member);
        skipped["reason"] = entry.reason;
        left_out.push_back(skipped);
    }
    head["skipped"] = left_out;
    std::string text = head.dump(1);
    text.erase(text.find_last_not_of(" \n", text.find_last_of('}') - 1) + 1);
    return text + ",\n \"members\": [";
}

// Deflates text into the member as one more piece of it.
bool add_text(ZipData &data, ZipMember &member, const std::string &text, int flush)
{
    const int result = data.put(member, text.data(), static_cast<unsigned>(text.size()), flush);
    return result == Z_OK || result == Z_STREAM_END;
}

}  // namespace

std::string readme_text(const RunFacts &facts)
{
    // Scripts read these lines: they are never translated.
    return "Archive Name: " + facts.archive_name + "\nConfig File: " + facts.config_path + "\nVersion: " QUELVANE_VERSION
           "\nLOG-ONLY MODE: " + (facts.log_only ? "yes" : "no") + "\nLog Sets: " + facts.log_sets +
           "\nSP SW DOWN: " + (facts.sp_sw_down ? "yes" : "no") + "\nMax Domains: " + std::to_string(facts.max_domains) +
           "\n";
}

Result write_readme(Context &context, const RunFacts &facts)
{
    return guarded([&] {
        ZipMember member;
        member.name = context.top_name("README");
        TextBuffer text;
        if (!text.add(readme_text(facts))) {
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

namespace {

std::string more_line(size_t count) { return "... and " + std::to_string(count) + " more\n"; }

}  // namespace

uint64_t least_skipped_cost(Context &context, size_t entries)
{
    return context.zip.stream().member_cost(context.top_name("SKIPPED").size(), more_line(entries).size());
}

Result write_skipped(Context &context)
{
    if (context.skipped.empty())
        return Result::ok;
    const Result made = guarded([&] {
        ZipMember member;
        member.name = context.top_name("SKIPPED");
        ZipData &data = context.zip.stream();
        // Its room was held all along; nothing else is left to hold it for.
        data.hold(0);
        // Under a budget, the lines that fit with the count of the rest.
        std::vector<std::string> lines;
        std::vector<uint64_t> before = {0};  // the length of the lines before each
        for (const Skipped &entry : context.skipped)
            before.push_back(before.back() + lines.emplace_back(entry.line()).size());
        const size_t count = lines.size();
        auto length = [&](size_t kept) { return before[kept] + (kept < count ? more_line(count - kept).size() : 0); };
        size_t kept = count;
        while (kept > 0 && data.budget_active() && data.member_cost(member.name.size(), length(kept)) > data.room())
            --kept;
        TextBuffer text;
        for (size_t i = 0; i < kept; ++i)
            if (!text.add(lines[i]))
                return Result::collection_error;
        if (kept < lines.size() && !text.add(more_line(lines.size() - kept)))
            return Result::collection_error;
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
                        describe(members[i]).dump();
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
