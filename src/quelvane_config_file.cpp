// Configuration file, dataset letters, member names, command lines, signals.
#include "quelvane_config_file.h"

#include "quelvane_util.h"

ConfigList::~ConfigList() { quelvane_config_free_list(this); }

int quelvane_config_read_file(ConfigList *, const char *, const char *, int *) { return -1; }
int quelvane_config_parse_line(ConfigList *, const char *, const char *, int *) { return -1; }
int quelvane_config_parse_attributes(ConfigEntry *, char *) { return -1; }
void quelvane_config_append_entry(ConfigList *, ConfigEntry *) {}
int quelvane_config_free_list(ConfigList *) { return -1; }
int quelvane_config_free_entry(ConfigEntry *) { return -1; }
int quelvane_config_parse_datasets(const char *, uint32_t *) { return -1; }
std::string quelvane_config_command_string(const ConfigEntry *, int) { return {}; }
std::string quelvane_config_output_name(const ConfigEntry *, const char *, int) { return {}; }
std::string quelvane_config_path_name(const ConfigEntry *, const char *) { return {}; }
int quelvane_zip_stdout_member(const ConfigEntry *, ZipMember *, int) { return -1; }
int quelvane_zip_stderr_member(const ConfigEntry *, ZipMember *, int) { return -1; }
int config_glob_next(ConfigEntry *) { return -1; }
int quelvane_signal_setup() { return -1; }
void quelvane_signal_child(int, siginfo_t *, void *) {}
void quelvane_signal_alarm(int, siginfo_t *, void *) {}
void quelvane_signal_interrupt(int, siginfo_t *, void *) {}
