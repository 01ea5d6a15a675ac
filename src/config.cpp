#include "config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <strings.h>

#include "console.h"

namespace {

const char *const KIND_NAMES[] = {"cmd", "file", "log", "cut"};

// strtok semantics throughout: runs of separators collapse, so an empty
// attribute sub-field simply disappears and leaves too few of them.
const char TOKEN_SEPARATORS[] = "\n\t ";
const char ATTRIBUTE_SEPARATORS[] = ",";

int keyword_type(const char *word)
{
    for (uint32_t type = ENTRY_CMD; type <= ENTRY_CUT; ++type)
        if (strcasecmp(word, KIND_NAMES[type]) == 0)
            return static_cast<int>(type);
    return -1;
}

bool parse_yes_no(const char *text, bool *out)
{
    if (strcmp(text, "y") != 0 && strcmp(text, "n") != 0)
        return false;
    *out = text[0] == 'y';
    return true;
}

bool parse_timeout(const char *text, int32_t *out)
{
    if (strcmp(text, "-") == 0) {
        *out = DEFAULT_TIMEOUT;
        return true;
    }
    errno = 0;
    const long value = strtol(text, nullptr, 0);
    if (errno == ERANGE || value == 0 || value > INT_MAX || value < INT_MIN)
        return false;
    // Negative time-outs are kept as written; the runner decides what they mean.
    *out = static_cast<int32_t>(value);
    return true;
}

// letters,timeout,y/n (run when the software is down),y/n (literal path)
bool parse_attributes(char *field, ConfigEntry *entry)
{
    char *save = nullptr;
    int count = 0;
    for (char *sub = strtok_r(field, ATTRIBUTE_SEPARATORS, &save); sub != nullptr;
         sub = strtok_r(nullptr, ATTRIBUTE_SEPARATORS, &save), ++count) {
        const bool parsed = count == 0   ? parse_datasets(sub, &entry->datasets)
                            : count == 1 ? parse_timeout(sub, &entry->timeout)
                            : count == 2 ? parse_yes_no(sub, &entry->collect_when_spswdown)
                            : count == 3 && parse_yes_no(sub, &entry->literal_path);
        if (!parsed)
            return false;
    }
    return count == 4;
}

// False for a name that still holds a ".." component once its leading dots
// and slashes are dropped: it would lead out of the unpacked archive.
bool clean_member_name(const std::string &prefix, const char *name, std::string *result)
{
    size_t end = strlen(name);
    while (end > 0 && name[end - 1] == '/')
        end--;
    size_t start = 0;
    while (start < end && (name[start] == '.' || name[start] == '/'))
        start++;
    const std::string cleaned(name + start, end - start);
    for (size_t from = 0; from <= cleaned.size();) {
        size_t slash = cleaned.find('/', from);
        if (slash == std::string::npos)
            slash = cleaned.size();
        if (cleaned.compare(from, slash - from, "..") == 0)
            return false;
        from = slash + 1;
    }
    *result = prefix;
    if (!result->empty() && !cleaned.empty())
        *result += '/';
    *result += cleaned;
    return true;
}

// The fields of a line after its keyword, in order: attributes, member
// name, path, then (commands only) arguments.
bool parse_fields(char **save, const std::string &prefix, ConfigEntry *entry)
{
    char *attributes = strtok_r(nullptr, TOKEN_SEPARATORS, save);
    if (attributes == nullptr || !parse_attributes(attributes, entry))
        return false;
    const char *name = strtok_r(nullptr, TOKEN_SEPARATORS, save);
    if (name == nullptr || !clean_member_name(prefix, name, &entry->member_name))
        return false;
    const char *path = strtok_r(nullptr, TOKEN_SEPARATORS, save);
    if (path == nullptr || path[0] != '/')
        return false;
    entry->path = path;
    if (entry->is_command())
        entry->argv.emplace_back(path);
    for (char *word = strtok_r(nullptr, TOKEN_SEPARATORS, save); word != nullptr;
         word = strtok_r(nullptr, TOKEN_SEPARATORS, save)) {
        if (!entry->is_command())
            return false;
        entry->argv.emplace_back(word);
    }
    return true;
}

}  // namespace

const char *entry_kind_name(uint32_t type) { return KIND_NAMES[type]; }

bool parse_datasets(const char *letters, uint32_t *set)
{
    for (const char *p = letters; *p != '\0'; p++) {
        // Only the upper-case A means every dataset; tested before folding.
        if (*p == 'A') {
            *set = 0xFFFFFFFFu;
            continue;
        }
        const int folded = tolower(static_cast<unsigned char>(*p));
        if (folded < 'a' || folded > 'z')
            return false;
        *set |= 1u << (folded - 'a');
    }
    return true;
}

int parse_config_line(const char *line, const std::string &prefix, bool log_only, Config *config)
{
    // Work on a copy so the caller can still report the whole line.
    std::string text = line;
    text.erase(std::min(text.find('#'), text.size()));
    char *save = nullptr;
    const char *keyword = strtok_r(&text[0], TOKEN_SEPARATORS, &save);
    if (keyword == nullptr)
        return 0;  // blank or comment only
    const int type = keyword_type(keyword);
    if (type < 0)
        return -1;
    // Log-only runs drop these lines unread: they are not errors.
    if (log_only && (type == ENTRY_CMD || type == ENTRY_FILE))
        return 0;
    ConfigEntry entry;
    entry.type = static_cast<uint32_t>(type);
    if (!parse_fields(&save, prefix, &entry))
        return -1;
    // The program path is not searched: "%d" there names no domain.
    for (size_t i = 1; i < entry.argv.size() && !entry.uses_domain; i++)
        entry.uses_domain = entry.argv[i].find("%d") != std::string::npos;
    config->entries.push_back(std::move(entry));
    return 0;
}

namespace {

struct FileClose {
    void operator()(FILE *file) const { fclose(file); }
};

// Every command in it runs as we do: like a key file, it must be ours (or
// root's) and not open to everyone's changes.
bool trusted(FILE *file, const std::string &path)
{
    struct stat status;
    if (fstat(fileno(file), &status) != 0)
        return true;
    if (status.st_mode & S_IWOTH) {
        fprintf(stderr, _("Config file %s is writable by other users; refusing to run it\n"), path.c_str());
        return false;
    }
    if (status.st_uid != 0 && status.st_uid != getuid()) {
        fprintf(stderr, _("Config file %s belongs to user %d, neither root nor the caller; refusing to run it\n"),
                path.c_str(), static_cast<int>(status.st_uid));
        return false;
    }
    return true;
}

}  // namespace

Result read_config(const std::string &path, const std::string &prefix, bool log_only, Config *config)
{
    return guarded([&] {
        std::unique_ptr<FILE, FileClose> file(fopen(path.c_str(), "r"));
        if (!file) {
            const int saved = errno;
            fprintf(stderr, _("Unable to open config file: %s\n"), path.c_str());
            errno = saved;
            perror(path.c_str());
            return Result::bad_config;
        }
        if (!trusted(file.get(), path))
            return Result::bad_config;
        // A physical line longer than the buffer arrives in pieces; each
        // piece counts as a line of its own, so the numbers follow the reads.
        char buffer[1024];
        int line_number = 0;
        while (fgets(buffer, sizeof buffer, file.get()) != nullptr) {
            line_number++;
            if (parse_config_line(buffer, prefix, log_only, config) == 0)
                continue;
            fprintf(stderr, _("Error on line %s:%d: %s"), path.c_str(), line_number, buffer);
            const size_t length = strlen(buffer);
            if (length == 0 || buffer[length - 1] != '\n')
                fputs("\n", stderr);
        }
        // A read error (a directory, an I/O fault) must not pass for an
        // empty configuration.
        if (ferror(file.get())) {
            perror(path.c_str());
            return Result::bad_config;
        }
        return Result::ok;
    });
}

std::string command_line(const ConfigEntry &entry, int index)
{
    const std::string domain = std::to_string(index);
    std::string command;
    for (size_t i = 0; i < entry.argv.size(); i++) {
        if (i > 0)
            command += ' ';
        const std::string &arg = entry.argv[i];
        size_t from = 0;
        // Left to right; the inserted digits are never searched again.
        for (size_t hit = arg.find("%d"); hit != std::string::npos; hit = arg.find("%d", from)) {
            command.append(arg, from, hit - from);
            command += domain;
            from = hit + 2;
        }
        command.append(arg, from, std::string::npos);
    }
    return command;
}

std::string member_name(const std::string &directory, const std::string &text, const char *suffix, bool blanks)
{
    std::string name = directory + "/" + text;
    if (suffix != nullptr)
        name += suffix;
    // Everything below the entry's directory is one name component.
    for (size_t i = directory.size() + 1; i < name.size(); i++)
        if (name[i] == '/')
            name[i] = '@';
    // Archive readers and shells cope badly with blanks in a command's
    // member name; a collected file's name mirrors its path, blanks and all.
    if (blanks)
        for (char &c : name)
            if (isspace(static_cast<unsigned char>(c)))
                c = '_';
    return name;
}
