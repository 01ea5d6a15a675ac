// Data generation: the command runner, file collection, the README and
// CONFIG members, the collection walk, and the output sink with its
// optional encryption.
#ifndef QUELVANE_DATAGEN_H
#define QUELVANE_DATAGEN_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "quelvane_config_file.h"
#include "quelvane_zip.h"

// Output sink: every archive byte leaves through sink_write.
int sink_encrypt_start(const char *password, int out_fd);
int sink_write(const void *data, size_t length, int out_fd);
// Sends what sink_write has gathered: 0, or -1 after the write error's message.
int sink_flush(int out_fd);
int sink_encrypt_finish(int out_fd);
// Archive bytes delivered so far, encryption included.
uint64_t sink_delivered();
// Before sink_encrypt_start: the key from PBKDF2-SHA256 with this many
// iterations (openssl enc -pbkdf2 -iter N); 0 keeps one MD5 pass.
void sink_use_pbkdf2(unsigned iterations);
// Encryption to the key of a PEM certificate instead of a password: the
// archive streams as CMS enveloped data (BER). 0, or -1 after a message.
int sink_recipient_start(const char *cert_path, int out_fd);
int sink_recipient_finish(int out_fd);
// The SHA-256 of the bytes delivered from now on, and its hex text (once).
void sink_hash_delivered();
std::string sink_delivered_sha256();

// How an entry went, worst last, as the progress channel names them.
enum { RESULT_OK, RESULT_ERROR, RESULT_TIMEOUT, RESULT_INTERRUPTED, RESULT_SKIPPED };

// Collection.
int quelvane_execute_command(int out_fd, ConfigEntry *entry, ZipWriter *archive, int index);
int zip_init_file_member(ConfigEntry *entry, ZipMember *member, std::string *error_text);
int zip_init_err_member(ConfigEntry *entry, ZipMember *member);
int datagen_collect_file(int out_fd, ConfigEntry *entry, ZipWriter *archive);
int datagen_collect_file_entry(int out_fd, ConfigEntry *entry, ZipWriter *archive,
                               unsigned *errors);
int datagen_write_readme(int out_fd, const char *archive_name, const char *config_file,
                         ZipWriter *archive, const char *prefix, const char *log_sets,
                         int sp_sw_down, int max_domains);
int datagen_write_config(int out_fd, ZipWriter *archive, const char *prefix,
                         const char *config_file);
int datagen_walk_entries(int out_fd, ConfigList *list, ZipWriter *archive, uint32_t datasets,
                         int sp_sw_down, int max_domains);
// The SKIPPED member: one line for each entry the deadline or the budget
// left out ("<reason> <number> <kind> <member>"), written only when there
// is one.
int datagen_write_skipped(int out_fd, ZipWriter *archive, const char *prefix);
// MANIFEST.json, the last member: every member made so far (what made it,
// how that went, sizes, CRC-32, SHA-256, start and duration), the entries
// left out, the version, the host and the options given.
int datagen_write_manifest(int out_fd, ZipWriter *archive, const char *prefix,
                           const std::vector<std::pair<std::string, std::string>> &options);
int datagen_run_command_entry(int out_fd, ConfigEntry *entry, ZipWriter *archive,
                              unsigned *errors, int max_domains);

#endif
