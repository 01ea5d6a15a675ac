// The configuration file, dataset letters, member names and command lines,
// and the signal actions.
#ifndef QUELVANE_CONFIG_FILE_H
#define QUELVANE_CONFIG_FILE_H

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

#include "quelvane_zip.h"

enum {
    ENTRY_CMD = 0,
    ENTRY_FILE = 1,
    ENTRY_LOG = 2,
    ENTRY_CUT = 3,
};

enum { DEFAULT_TIMEOUT = 15 };

// One accepted configuration line.
struct ConfigEntry {
    ConfigEntry *next = nullptr;
    uint32_t type = 0;
    uint32_t datasets = 0;
    int collect_when_spswdown = 0;
    int literal_path = 0;
    int uses_domain = 0;
    int32_t timeout = 0;
    std::string member_name;
    std::string path;               // file/log: path or current match; cmd/cut: argv[0]
    std::vector<std::string> argv;  // cmd/cut: program and arguments; empty for file/log
    std::string command;            // built per domain index before each run
};

// Accepted entries in file order; owns them.
struct ConfigList {
    ConfigEntry *head = nullptr;
    ConfigEntry *tail = nullptr;

    ConfigList() = default;
    ConfigList(const ConfigList &) = delete;
    ConfigList &operator=(const ConfigList &) = delete;
    ~ConfigList();
};

int quelvane_config_read_file(ConfigList *list, const char *path, const char *member_prefix,
                              int *uses_domain_out);
int quelvane_config_parse_line(ConfigList *list, const char *line, const char *member_prefix,
                               int *uses_domain_out);
int quelvane_config_parse_attributes(ConfigEntry *entry, char *field);
void quelvane_config_append_entry(ConfigList *list, ConfigEntry *entry);
int quelvane_config_free_list(ConfigList *list);
int quelvane_config_free_entry(ConfigEntry *entry);

// Dataset letters OR-ed into *set: 0, or -1 on a null argument or a
// character that is not a letter. Prints nothing.
int quelvane_config_parse_datasets(const char *letters, uint32_t *set);

// Builders: an empty string means a null entry, no argv or no memory.
std::string quelvane_config_command_string(const ConfigEntry *entry, int index);
std::string quelvane_config_output_name(const ConfigEntry *entry, const char *suffix, int index);
std::string quelvane_config_path_name(const ConfigEntry *entry, const char *suffix);
int quelvane_zip_stdout_member(const ConfigEntry *entry, ZipMember *member, int index);
int quelvane_zip_stderr_member(const ConfigEntry *entry, ZipMember *member, int index);

// Pattern expansion of a file/log entry: with an entry, start; with null,
// the next match. 0 when entry->path holds a match, -1 when none is left.
int config_glob_next(ConfigEntry *entry);
// Log patterns' matches newest first (rotated siblings: the oldest come
// last, where a budget drops them); otherwise in name order.
void config_glob_newest_first(bool newest_first);

int quelvane_signal_setup();
void quelvane_signal_child(int signo, siginfo_t *info, void *context);
void quelvane_signal_alarm(int signo, siginfo_t *info, void *context);
void quelvane_signal_interrupt(int signo, siginfo_t *info, void *context);

#endif
