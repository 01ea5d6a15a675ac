// The configuration: its file and lines, dataset letters, and the command
// lines and member names its entries give.
#ifndef QUELVANE_CONFIG_H
#define QUELVANE_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

#include "result.h"

enum EntryKind : uint32_t {
    ENTRY_CMD = 0,
    ENTRY_FILE = 1,
    ENTRY_LOG = 2,
    ENTRY_CUT = 3,
};

// The kind as the configuration, the progress channel, SKIPPED and the
// manifest name it.
const char *entry_kind_name(uint32_t type);

constexpr int32_t DEFAULT_TIMEOUT = 15;

// One accepted configuration line.
struct ConfigEntry {
    uint32_t type = ENTRY_CMD;
    uint32_t datasets = 0;
    bool collect_when_spswdown = false;
    bool literal_path = false;
    bool uses_domain = false;        // a word after the program holds "%d"
    int32_t timeout = 0;
    std::string member_name;         // the entry's directory in the archive
    std::string path;                // file/log: path or pattern; cmd/cut: the program
    std::vector<std::string> argv;   // cmd/cut: program and arguments

    bool is_command() const { return type == ENTRY_CMD || type == ENTRY_CUT; }
};

struct Config {
    std::vector<ConfigEntry> entries;  // in file order
};

// Reads the file; every member directory starts with prefix. A rejected
// line is reported with its number and skipped; with log_only, cmd and file
// lines are dropped unread. bad_config after a message when the file cannot
// be read or others may change it.
Result read_config(const std::string &path, const std::string &prefix, bool log_only, Config *config);
// One line: 0 when accepted or ignored, -1 when rejected.
int parse_config_line(const char *line, const std::string &prefix, bool log_only, Config *config);

// Dataset letters OR-ed into *set ("A": every dataset); false for a
// character that is not a letter. Prints nothing.
bool parse_datasets(const char *letters, uint32_t *set);

// The entry's command line for a domain index: its words joined by blanks,
// each "%d" replaced by the index.
std::string command_line(const ConfigEntry &entry, int index);

// A member name: the directory, then text with every '/' an '@' (one name
// component), then the suffix; with blanks, white space becomes '_' too.
std::string member_name(const std::string &directory, const std::string &text, const char *suffix, bool blanks);

#endif
