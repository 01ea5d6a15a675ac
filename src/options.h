// The command line: every option parsed into one object and checked, in
// the order the checks have always been made, before anything is opened.
#ifndef QUELVANE_OPTIONS_H
#define QUELVANE_OPTIONS_H

#include <cstdint>
#include <string>

#include "result.h"

struct Options {
    bool answer_yes = false;            // -y
    bool answer_no = false;             // -n
    bool browser = false;               // -b: the download header, no prompts
    bool download = false;              // -o -: the archive goes to standard output
    bool log_only = false;              // -l
    bool verbose = false;               // -v, cleared by -q
    bool quiet = false;                 // -q
    bool encrypt = false;               // -e
    bool no_compression = false;        // -C
    int level = -1;                     // --level; -1: zlib's default
    bool fast = false;                  // --fast
    std::string archive_name;           // -a as given
    std::string archive_base;           // -a cut at ".zip"; heads every member name
    std::string config_path;            // -f
    std::string output_path;            // -o
    std::string usb_device;             // -d; its presence selects USB device mode
    bool have_device = false;
    std::string dataset_letters = "i";  // -L as given, shown in the README
    uint32_t datasets = 0;              // -L parsed; 0 without -L
    std::string password;               // -P
    bool have_password = false;
    int password_fd = -1;               // -I
    bool no_header = false;             // -u
    bool remove_device_files = false;   // -r, switched off in the option string
    int progress_fd = -1;               // --progress-fd
    unsigned deadline = 0;              // --deadline, seconds
    bool gentle = false;                // --gentle
    unsigned keepalive = 0;             // --keepalive, seconds
    bool dry_run = false;               // --dry-run
    uint64_t max_size = 0;              // --max-size, bytes
    bool manifest = false;              // --manifest
    std::string checksum_path;          // --checksum
    std::string scrub_path;             // --scrub
    unsigned pbkdf2 = 0;                // --pbkdf2 iterations
    std::string recipient;              // --recipient certificate
};

// What the command line asks for: a run, or an end with result's exit
// status, after the usage text when usage is set.
struct Parsed {
    bool run = false;
    bool usage = false;
    Result result = Result::ok;
};

// Messages of refusals go to standard error as they are found.
Parsed parse_options(int argc, char **argv, const std::string &program, Options *options);

// The usage text on standard error.
void print_usage(const std::string &program);

#endif
