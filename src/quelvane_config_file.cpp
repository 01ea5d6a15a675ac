// Configuration file, dataset letters, member names, command lines, signals.
#include "quelvane_config_file.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glob.h>
#include <memory>
#include <new>
#include <utility>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "quelvane_util.h"

namespace {

// strtok semantics throughout: runs of separators collapse, so an empty
// attribute sub-field simply disappears and leaves too few of them.
const char *const kTokenSeparators = "\n\t ";
const char *const kAttributeSeparators = ",";

struct FileCloser {
    void operator()(FILE *fp) const { fclose(fp); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

int keyword_type(const char *word)
{
    if (strcasecmp(word, "cmd") == 0)
        return ENTRY_CMD;
    if (strcasecmp(word, "file") == 0)
        return ENTRY_FILE;
    if (strcasecmp(word, "log") == 0)
        return ENTRY_LOG;
    if (strcasecmp(word, "cut") == 0)
        return ENTRY_CUT;
    return -1;
}

int parse_yes_no(const char *text, int *out)
{
    if (strcmp(text, "y") == 0) {
        *out = 1;
        return 0;
    }
    if (strcmp(text, "n") == 0) {
        *out = 0;
        return 0;
    }
    return -1;
}

int parse_timeout(const char *text, int32_t *out)
{
    if (strcmp(text, "-") == 0) {
        *out = DEFAULT_TIMEOUT;
        return 0;
    }
    errno = 0;
    long value = strtol(text, nullptr, 0);
    if (errno == ERANGE || value == 0 || value > INT_MAX || value < INT_MIN)
        return -1;
    // Negative time-outs are kept as written; the runner decides what they mean.
    *out = static_cast<int32_t>(value);
    return 0;
}

// False for a name that still holds a ".." component once its leading dots
// and slashes are dropped: it would lead out of the unpacked archive.
bool clean_member_name(const char *prefix, const char *name, std::string *result)
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

bool is_file_kind(uint32_t type)
{
    return type == ENTRY_FILE || type == ENTRY_LOG;
}

bool is_command_kind(uint32_t type)
{
    return type == ENTRY_CMD || type == ENTRY_CUT;
}

// Flattens everything below the entry's directory into one name component.
void flatten_slashes(std::string &name, size_t from)
{
    for (size_t i = from; i < name.size(); i++) {
        if (name[i] == '/')
            name[i] = '@';
    }
}

int install_action(int signo, void (*handler)(int, siginfo_t *, void *), int flags)
{
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    return sigaction(signo, &action, nullptr);
}

void ignore_signal(int signo)
{
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

// One pattern expansion at a time for the whole process.
struct GlobState {
    glob_t result{};
    size_t index = 0;
    ConfigEntry *entry = nullptr;
    bool active = false;

    void release()
    {
        if (active)
            globfree(&result);
        result = glob_t{};
        index = 0;
        entry = nullptr;
        active = false;
    }
    ~GlobState() { release(); }
};

GlobState glob_state;
bool glob_by_age;

// Newest first; matches that cannot be looked at go last, names breaking ties.
void sort_newest_first(glob_t *result)
{
    std::vector<std::pair<time_t, char *>> matches;
    for (size_t i = 0; i < result->gl_pathc; ++i) {
        struct stat status;
        time_t when = stat(result->gl_pathv[i], &status) == 0 ? status.st_mtime : 0;
        matches.emplace_back(when, result->gl_pathv[i]);
    }
    std::stable_sort(matches.begin(), matches.end(),
                     [](const auto &a, const auto &b) { return a.first > b.first; });
    for (size_t i = 0; i < matches.size(); ++i)
        result->gl_pathv[i] = matches[i].second;
}

} // namespace

ConfigList::~ConfigList()
{
    quelvane_config_free_list(this);
}

int quelvane_config_parse_datasets(const char *letters, uint32_t *set)
{
    if (letters == nullptr || set == nullptr)
        return -1;
    for (const char *p = letters; *p != '\0'; p++) {
        // Only the upper-case A means every dataset; tested before folding.
        if (*p == 'A') {
            *set = 0xFFFFFFFFu;
            continue;
        }
        int folded = tolower(static_cast<unsigned char>(*p));
        if (folded < 'a' || folded > 'z')
            return -1;
        *set |= 1u << (folded - 'a');
    }
    return 0;
}

int quelvane_config_parse_attributes(ConfigEntry *entry, char *field)
{
    if (entry == nullptr || field == nullptr)
        return -1;
    char *save = nullptr;
    int count = 0;
    for (char *sub = strtok_r(field, kAttributeSeparators, &save); sub != nullptr;
         sub = strtok_r(nullptr, kAttributeSeparators, &save)) {
        int status = 0;
        switch (count) {
        case 0:
            status = quelvane_config_parse_datasets(sub, &entry->datasets);
            break;
        case 1:
            status = parse_timeout(sub, &entry->timeout);
            break;
        case 2:
            status = parse_yes_no(sub, &entry->collect_when_spswdown);
            break;
        case 3:
            status = parse_yes_no(sub, &entry->literal_path);
            break;
        default:
            status = -1;
            break;
        }
        if (status != 0)
            return -1;
        count++;
    }
    return count == 4 ? 0 : -1;
}

void quelvane_config_append_entry(ConfigList *list, ConfigEntry *entry)
{
    if (list == nullptr || entry == nullptr)
        return;
    entry->next = nullptr;
    if (list->tail == nullptr) {
        list->head = entry;
    } else {
        list->tail->next = entry;
    }
    list->tail = entry;
}

int quelvane_config_free_entry(ConfigEntry *entry)
{
    if (entry == nullptr)
        return -1;
    delete entry;
    return 0;
}

int quelvane_config_free_list(ConfigList *list)
{
    if (list == nullptr)
        return -1;
    ConfigEntry *entry = list->head;
    while (entry != nullptr) {
        ConfigEntry *next = entry->next;
        quelvane_config_free_entry(entry);
        entry = next;
    }
    list->head = nullptr;
    list->tail = nullptr;
    return 0;
}

int quelvane_config_parse_line(ConfigList *list, const char *line, const char *member_prefix,
                               int *uses_domain_out)
{
    if (list == nullptr || line == nullptr || member_prefix == nullptr ||
        uses_domain_out == nullptr) {
        return -1;
    }
    try {
        // Work on a copy so the caller can still report the whole line.
        std::string copy = line;
        size_t hash = copy.find('#');
        if (hash != std::string::npos)
            copy.erase(hash);
        std::vector<char> text(copy.begin(), copy.end());
        text.push_back('\0');

        auto entry = std::make_unique<ConfigEntry>();
        bool have_keyword = false;
        bool have_attributes = false;
        bool have_name = false;
        bool have_path = false;

        char *save = nullptr;
        for (char *token = strtok_r(text.data(), kTokenSeparators, &save); token != nullptr;
             token = strtok_r(nullptr, kTokenSeparators, &save)) {
            if (!have_keyword) {
                int type = keyword_type(token);
                if (type < 0)
                    return -1;
                // Log-only runs drop these lines unread: they are not errors.
                if (log_only_mode && (type == ENTRY_CMD || type == ENTRY_FILE))
                    return 0;
                entry->type = static_cast<uint32_t>(type);
                have_keyword = true;
            } else if (!have_attributes) {
                if (quelvane_config_parse_attributes(entry.get(), token) != 0)
                    return -1;
                have_attributes = true;
            } else if (!have_name) {
                if (!clean_member_name(member_prefix, token, &entry->member_name))
                    return -1;
                have_name = true;
            } else if (!have_path) {
                if (token[0] != '/')
                    return -1;
                if (is_command_kind(entry->type))
                    entry->argv.emplace_back(token);
                entry->path = token;
                have_path = true;
            } else {
                if (is_file_kind(entry->type))
                    return -1;
                entry->argv.emplace_back(token);
            }
        }

        if (!have_keyword)
            return 0; // blank or comment only
        if (!have_attributes || !have_name || !have_path)
            return -1;

        if (is_command_kind(entry->type)) {
            // The program path is not searched: "%d" there names no domain.
            for (size_t i = 1; i < entry->argv.size(); i++) {
                if (entry->argv[i].find("%d") != std::string::npos) {
                    entry->uses_domain = 1;
                    *uses_domain_out = 1;
                    break;
                }
            }
        }
        quelvane_config_append_entry(list, entry.release());
        return 0;
    } catch (const std::bad_alloc &) {
        return -1;
    }
}

int quelvane_config_read_file(ConfigList *list, const char *path, const char *member_prefix,
                              int *uses_domain_out)
{
    if (list == nullptr || path == nullptr || member_prefix == nullptr ||
        uses_domain_out == nullptr) {
        return -1;
    }
    FilePtr fp(fopen(path, "r"));
    if (!fp) {
        int saved = errno;
        fprintf(stderr, _("Unable to open config file: %s\n"), path);
        errno = saved;
        perror(path);
        return -1;
    }
    // Every command in it runs as we do: like a key file, it must be ours
    // (or root's) and not open to everyone's changes.
    struct stat status;
    if (fstat(fileno(fp.get()), &status) == 0) {
        if (status.st_mode & S_IWOTH) {
            fprintf(stderr, _("Config file %s is writable by other users; refusing to run it\n"), path);
            return -1;
        }
        if (status.st_uid != 0 && status.st_uid != getuid()) {
            fprintf(stderr, _("Config file %s belongs to user %d, neither root nor the caller; refusing to run it\n"),
                    path, static_cast<int>(status.st_uid));
            return -1;
        }
    }

    // A physical line longer than the buffer arrives in pieces; each piece
    // counts as a line of its own, so the numbers follow the reads.
    char buffer[1024];
    int line_number = 0;
    while (!feof(fp.get())) {
        if (fgets(buffer, sizeof buffer, fp.get()) == nullptr) {
            // A read error (a directory, an I/O fault) must not pass for an
            // empty configuration: the caller ends the run on -1.
            if (ferror(fp.get())) {
                perror(path);
                return -1;
            }
            continue;
        }
        line_number++;
        if (quelvane_config_parse_line(list, buffer, member_prefix, uses_domain_out) != 0) {
            fprintf(stderr, _("Error on line %s:%d: %s"), path, line_number, buffer);
            size_t length = strlen(buffer);
            if (length == 0 || buffer[length - 1] != '\n')
                fputs("\n", stderr);
        }
    }
    return 0;
}

std::string quelvane_config_command_string(const ConfigEntry *entry, int index)
{
    if (entry == nullptr || entry->argv.empty())
        return {};
    try {
        const std::string domain = std::to_string(index);
        std::string command;
        for (size_t i = 0; i < entry->argv.size(); i++) {
            if (i > 0)
                command += ' ';
            const std::string &arg = entry->argv[i];
            size_t from = 0;
            // Left to right; the inserted digits are never searched again.
            for (size_t hit = arg.find("%d"); hit != std::string::npos;
                 hit = arg.find("%d", from)) {
                command.append(arg, from, hit - from);
                command += domain;
                from = hit + 2;
            }
            command.append(arg, from, std::string::npos);
        }
        return command;
    } catch (const std::bad_alloc &) {
        return {};
    }
}

std::string quelvane_config_output_name(const ConfigEntry *entry, const char *suffix, int index)
{
    if (entry == nullptr)
        return {};
    try {
        std::string command = quelvane_config_command_string(entry, index);
        if (command.empty())
            return {};
        std::string name = entry->member_name + "/" + command;
        if (suffix != nullptr)
            name += suffix;
        // Archive readers and shells cope badly with blanks in member names.
        for (char &c : name) {
            if (isspace(static_cast<unsigned char>(c)))
                c = '_';
        }
        flatten_slashes(name, entry->member_name.size() + 1);
        return name;
    } catch (const std::bad_alloc &) {
        return {};
    }
}

std::string quelvane_config_path_name(const ConfigEntry *entry, const char *suffix)
{
    if (entry == nullptr || entry->path.empty())
        return {};
    try {
        // White space stays: the name mirrors the collected file's path.
        std::string name = entry->member_name + "/" + entry->path;
        if (suffix != nullptr)
            name += suffix;
        flatten_slashes(name, entry->member_name.size() + 1);
        return name;
    } catch (const std::bad_alloc &) {
        return {};
    }
}

namespace {

int fill_command_member(const ConfigEntry *entry, ZipMember *member, int index, const char *suffix)
{
    if (entry == nullptr || member == nullptr)
        return -1;
    zip_member_init(member, MEMBER_GENERATED);
    member->name = quelvane_config_output_name(entry, suffix, index);
    return member->name.empty() ? -1 : 0;
}

} // namespace

int quelvane_zip_stdout_member(const ConfigEntry *entry, ZipMember *member, int index)
{
    return fill_command_member(entry, member, index, ".out");
}

int quelvane_zip_stderr_member(const ConfigEntry *entry, ZipMember *member, int index)
{
    return fill_command_member(entry, member, index, ".err");
}

int config_glob_next(ConfigEntry *entry)
{
    if (entry != nullptr) {
        glob_state.release();
        if (!is_file_kind(entry->type))
            return -1;
        glob_state.entry = entry;
        glob_state.active = true;
        if (glob(entry->path.c_str(), GLOB_ERR, nullptr, &glob_state.result) != 0) {
            glob_state.release();
            return -1;
        }
        if (glob_by_age && entry->type == ENTRY_LOG) {
            try {
                sort_newest_first(&glob_state.result);
            } catch (const std::bad_alloc &) {
                // Name order, then.
            }
        }
    } else if (!glob_state.active) {
        return -1;
    }

    if (glob_state.index >= glob_state.result.gl_pathc) {
        glob_state.release();
        return -1;
    }
    try {
        glob_state.entry->path = glob_state.result.gl_pathv[glob_state.index];
    } catch (const std::bad_alloc &) {
        glob_state.release();
        return -1;
    }
    glob_state.index++;
    return 0;
}

void config_glob_newest_first(bool newest_first) { glob_by_age = newest_first; }

int quelvane_signal_setup()
{
    // A reader that went away or a file-size limit is an output failure
    // like any other: the write fails, the run says so and cleans up.
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR || signal(SIGXFSZ, SIG_IGN) == SIG_ERR)
        return -1;
    // SIGALRM and the interrupt signals deliberately lack SA_RESTART so that
    // a blocking wait in the command runner returns with EINTR.
    if (install_action(SIGALRM, quelvane_signal_alarm, SA_SIGINFO) != 0)
        return -1;
    if (install_action(SIGCHLD, quelvane_signal_child, SA_SIGINFO | SA_RESTART) != 0)
        return -1;
    if (install_action(SIGHUP, quelvane_signal_interrupt, SA_SIGINFO) != 0)
        return -1;
    if (install_action(SIGINT, quelvane_signal_interrupt, SA_SIGINFO) != 0)
        return -1;
    if (install_action(SIGQUIT, quelvane_signal_interrupt, SA_SIGINFO) != 0)
        return -1;
    if (install_action(SIGTERM, quelvane_signal_interrupt, SA_SIGINFO) != 0)
        return -1;
    return 0;
}

void quelvane_signal_child(int, siginfo_t *, void *)
{
    child_exited = 1;
}

void quelvane_signal_alarm(int, siginfo_t *, void *)
{
    command_timed_out = 1;
}

void quelvane_signal_interrupt(int, siginfo_t *, void *)
{
    if (interrupted_by_user)
        return;
    int saved_errno = errno;
    interrupted_by_user = 1;
    // Only the first interrupt counts; the run needs quiet to close the archive.
    ignore_signal(SIGINT);
    ignore_signal(SIGHUP);
    ignore_signal(SIGQUIT);
    ignore_signal(SIGTERM);
    errno = saved_errno;
}
