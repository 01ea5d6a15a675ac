// The command line, the run driver and the USB device preparation.
#ifndef QUELVANE_MAIN_H
#define QUELVANE_MAIN_H

#include <cstdint>
#include <string>

// What the command line hands to the run driver.
struct RunOptions {
    std::string archive_name;          // -a as given
    std::string archive_base;          // -a cut at ".zip"; heads every member name
    std::string config_path;           // -f
    std::string output_path;           // -o
    std::string usb_device;            // -d; its presence selects USB device mode
    std::string dataset_letters = "i"; // -L as given, shown in the README
    uint32_t datasets = 0;             // -L parsed; 0 without -L
    std::string password;              // -P
    int password_fd = -1;              // -I
    int no_header = 0;                 // -u
    int remove_device_files = 0;       // -r, switched off in the option string
    int progress_fd = -1;              // --progress-fd
    unsigned deadline = 0;             // --deadline, seconds; 0 without
    bool gentle = false;               // --gentle
    uint64_t max_size = 0;             // --max-size, bytes; 0 without
    bool manifest = false;             // --manifest
    std::string checksum_path;         // --checksum
    std::string scrub_path;            // --scrub
    unsigned pbkdf2 = 0;               // --pbkdf2 iterations; 0 without
    std::string recipient;             // --recipient certificate
    bool have_device = false;
    bool have_password = false;
};

[[noreturn]] void usage(int status);

// Fills *options. Returns -1 when the run may go ahead; -2 when --help or
// --version has answered (exit 0); otherwise the exit status, after any
// message, with which usage() ends the process (8, out of memory, ends it
// without usage).
int quelvane_parse_options(int argc, char **argv, RunOptions *options);

// One collection run; returns the exit status. quelvane_run adds the
// progress channel's last line.
int quelvane_run(RunOptions *options);
int quelvane_run_collection(RunOptions *options);

int usb_write_test(const char *output_path);
int usb_prepare_device(const char *output_path, const char *usb_device);

// Everything main() does: start-up, options, run.
int quelvane_main(int argc, char **argv);

#endif
