// Entry point, option handling and the run driver.
#include "main.h"

#ifndef QUELVANE_MAIN_ONLY
#include <fcntl.h>
#include <getopt.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <openssl/crypto.h>

#include "quelvane_config_file.h"
#include "quelvane_datagen.h"
#include "quelvane_util.h"
#include "quelvane_zip.h"

namespace {

constexpr int STATUS_OUT_OF_MEMORY = 8;
constexpr int STATUS_ANSWERED = -2;  // --help or --version: exit 0, no usage
constexpr size_t MAX_PASSWORD = 63;

// 'r' is left out on purpose: the device clean-up stays switched off until
// the letter is added here.
const char OPTION_STRING[] = ":a:bCd:ef:hI:lL:no:p:P:qu:vy";

const char VERSION[] = "1.1";

// Additions to the command line are long options only, so that every short
// option, message and exit status stays as it was.
enum { OPTION_HELP = 256, OPTION_VERSION, OPTION_PROGRESS_FD, OPTION_DEADLINE, OPTION_GENTLE, OPTION_MAX_SIZE,
       OPTION_MANIFEST, OPTION_CHECKSUM, OPTION_SCRUB, OPTION_PBKDF2, OPTION_RECIPIENT };
const struct option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, OPTION_HELP},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {"progress-fd", required_argument, nullptr, OPTION_PROGRESS_FD},
    {"deadline", required_argument, nullptr, OPTION_DEADLINE},
    {"gentle", no_argument, nullptr, OPTION_GENTLE},
    {"max-size", required_argument, nullptr, OPTION_MAX_SIZE},
    {"manifest", no_argument, nullptr, OPTION_MANIFEST},
    {"checksum", required_argument, nullptr, OPTION_CHECKSUM},
    {"scrub", required_argument, nullptr, OPTION_SCRUB},
    {"pbkdf2", optional_argument, nullptr, OPTION_PBKDF2},
    {"recipient", required_argument, nullptr, OPTION_RECIPIENT},
    {nullptr, 0, nullptr, 0},
};

// Every option, one line each, for --help.
const char *const HELP_LINES[] = {
    "  -a NAME          archive name; its base, cut at \".zip\", heads every member name",
    "  -b               browser download: the HTTP download header, no prompts",
    "  -C               no compression (deflate level 0)",
    "  -d DEVICE        USB device mode: -o names a file on the mounted DEVICE",
    "  -e               encrypt the archive (openssl enc -aes-128-cbc -md md5 reads it)",
    "  -f FILE          configuration file",
    "  -h               the usage text",
    "  -I FD            the encryption password is read from descriptor FD",
    "  -l               log-only mode: only log and cut entries",
    "  -L LETTERS       the datasets to collect (A: all)",
    "  -n               answer every confirmation with no",
    "  -o PATH          the archive file, or - for standard output",
    "  -p ARG           accepted and ignored",
    "  -P PASSWORD      the encryption password (1 to 63 characters)",
    "  -q               no status lines",
    "  -u ARG           no download header with -b",
    "  -v               progress lines",
    "  -y               answer every confirmation with yes",
    "      --deadline=SECONDS   end the run in time: what is left is listed in SKIPPED",
    "      --gentle             lowest CPU and I/O priority; pause while the machine is busy",
    "      --max-size=BYTES     the archive never grows past BYTES (suffixes K, M, G)",
    "      --progress-fd=FD     progress lines for a program on descriptor FD",
    "      --manifest           a last member MANIFEST.json: every member, its result and SHA-256",
    "      --checksum=PATH      the SHA-256 of the archive as delivered, for sha256sum -c",
    "      --scrub=FILE         replace the secrets FILE lists (name=value) wherever they appear",
    "      --pbkdf2[=ITER]      with -e: a PBKDF2-SHA256 key (openssl enc -pbkdf2 -iter ITER)",
    "      --recipient=CERT     encrypt to CERT's key as CMS (openssl cms -decrypt), no password",
    "      --help       this list, then exit",
    "      --version    the name and version, then exit",
};

constexpr unsigned DEFAULT_PBKDF2_ITERATIONS = 100000;

// The smallest budget: room for README, CONFIG and the records that end
// an archive.
constexpr uint64_t MIN_MAX_SIZE = 4096;
// What encryption adds: its header, and at most one block of padding.
constexpr uint64_t ENCRYPTION_OVERHEAD = 32;

// A whole number in [low, high], optionally followed by one of the suffixes;
// false for anything else.
bool parse_number(const char *text, const char *suffixes, uint64_t low, uint64_t high, uint64_t *value)
{
    if (text == nullptr || !isdigit(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char *end = nullptr;
    unsigned long long number = strtoull(text, &end, 10);
    if (errno != 0)
        return false;
    uint64_t scale = 1;
    if (*end != '\0') {
        const char *suffix = strchr(suffixes, *end);
        if (suffix == nullptr || end[1] != '\0')
            return false;
        scale = 1ULL << (10 * (suffix - suffixes + 1));
    }
    if (number > high / scale || number * scale < low)
        return false;
    *value = number * scale;
    return true;
}

// Thrown inside the option parser only: ends parsing with this exit status.
struct StopParsing {
    int status;
};

[[noreturn]] void stop(int status)
{
    throw StopParsing{status};
}

[[noreturn]] void refuse(const char *message)
{
    fputs(message, stderr);
    stop(1);
}

// A second use of a flag that may appear once.
void once(int *seen, const char *message)
{
    if (*seen)
        refuse(message);
    *seen = 1;
}

}  // namespace

void usage(int status)
{
    // The usage text names neither -a, -f nor -o, and does name -r.
    fprintf(stderr,
            _("       %s [-l] [-v] [-r] [[-q] -{y|n}] [-e [-P encryption-password]] \\\n"
              "                [-L <dataset letters>] -d usb-device\n"),
            program_name);
    fprintf(stderr, _("       %s -h\n"), program_name);
    exit(status);
}

namespace {

void parse_options(int argc, char **argv, RunOptions *options)
{
    int seen_a = 0, seen_b = 0, seen_C = 0, seen_d = 0, seen_e = 0, seen_f = 0, seen_h = 0;
    int seen_I = 0, seen_l = 0, seen_L = 0, seen_n = 0, seen_o = 0, seen_P = 0, seen_q = 0;
    int seen_r = 0, seen_y = 0;

    opterr = 0;
    optind = 0;  // a full restart of getopt, so the parser can be called again
    int option;
    while ((option = getopt_long(argc, argv, OPTION_STRING, LONG_OPTIONS, nullptr)) != -1) {
        switch (option) {
        case OPTION_HELP:
            printf(_("Usage: %s -f config -a archive-name -o output [option]...\n"), program_name);
            for (const char *line : HELP_LINES)
                printf("%s\n", _(line));
            stop(STATUS_ANSWERED);
        case OPTION_VERSION:
            printf("%s %s\n", program_name, VERSION);
            stop(STATUS_ANSWERED);
        case OPTION_PROGRESS_FD: {
            uint64_t fd = 0;
            if (!parse_number(optarg, "", STDERR_FILENO + 1, INT32_MAX, &fd) ||
                fcntl(static_cast<int>(fd), F_GETFL) == -1)
                refuse(_("Invalid file descriptor passed to --progress-fd: it must be open and above 2.\n"));
            options->progress_fd = static_cast<int>(fd);
            break;
        }
        case OPTION_DEADLINE: {
            uint64_t seconds = 0;
            if (!parse_number(optarg, "", 1, 86400, &seconds)) {
                fprintf(stderr, _("Invalid --deadline '%s': seconds from 1 to 86400\n"), optarg);
                stop(1);
            }
            options->deadline = static_cast<unsigned>(seconds);
            break;
        }
        case OPTION_GENTLE:
            options->gentle = true;
            break;
        case OPTION_MANIFEST:
            options->manifest = true;
            break;
        case OPTION_CHECKSUM:
            options->checksum_path = optarg;
            break;
        case OPTION_SCRUB:
            options->scrub_path = optarg;
            break;
        case OPTION_PBKDF2: {
            uint64_t iterations = DEFAULT_PBKDF2_ITERATIONS;
            if (optarg != nullptr && !parse_number(optarg, "", 1, INT32_MAX, &iterations)) {
                fprintf(stderr, _("Invalid --pbkdf2 '%s': iterations from 1 to %d\n"), optarg, INT32_MAX);
                stop(1);
            }
            options->pbkdf2 = static_cast<unsigned>(iterations);
            break;
        }
        case OPTION_RECIPIENT:
            options->recipient = optarg;
            break;
        case OPTION_MAX_SIZE:
            if (!parse_number(optarg, "KMG", MIN_MAX_SIZE, UINT64_MAX / 2, &options->max_size)) {
                fprintf(stderr, _("Invalid --max-size '%s': bytes, at least %d, with K, M or G to scale\n"),
                        optarg, static_cast<int>(MIN_MAX_SIZE));
                stop(1);
            }
            break;
        case 'a': {
            if (seen_a)
                stop(1);
            seen_a = 1;
            if (strchr(optarg, '/') != nullptr) {
                fprintf(stderr, _("archive-name may not contain '/': '%s'\n"), optarg);
                stop(1);
            }
            options->archive_name = optarg;
            options->archive_base = optarg;
            // ".zip" is looked for first, so the ".zip.e" lookup only runs
            // when it cannot match; the order is kept as it always was.
            size_t cut = options->archive_base.find(".zip");
            if (cut == std::string::npos)
                cut = options->archive_base.find(".zip.e");
            if (cut != std::string::npos)
                options->archive_base.erase(cut);
            // The base heads every member name: ".." would lead out of the
            // directory an archive is unpacked in.
            if (options->archive_base == "..") {
                fprintf(stderr, _("archive-name may not name the parent directory: '%s'\n"), optarg);
                stop(1);
            }
            break;
        }
        case 'b':
            once(&seen_b, _("The -b flag has already been specified.\n"));
            bui_header = 1;
            break;
        case 'C':
            once(&seen_C, _("The -C flag has already been specified.\n"));
            no_compression = 1;
            break;
        case 'd':
            once(&seen_d, _("The -d flag has already been specified.\n"));
            options->usb_device = optarg;
            options->have_device = true;
            break;
        case 'e':
            once(&seen_e, _("The -e flag has already been specified.\n"));
            encrypt_output = 1;
            break;
        case 'f':
            if (seen_f)
                stop(1);
            seen_f = 1;
            options->config_path = optarg;
            break;
        case 'h':
            once(&seen_h, _("The -h flag has already been specified.\n"));
            break;
        case 'I': {
            once(&seen_I, _("The -I flag has already been specified.\n"));
            options->password_fd = atoi(optarg);
            // Standard input may be the terminal; it never carries the password.
            if (options->password_fd == 0)
                refuse(_("FD 0 not allowed with -I.\n"));
            struct stat st;
            if (fstat(options->password_fd, &st) == -1)
                refuse(_("Invalid file descriptor passed to -I.\n"));
            break;
        }
        case 'l':
            once(&seen_l, _("The -l flag has already been specified.\n"));
            log_only_mode = 1;
            break;
        case 'L':
            once(&seen_L, _("The -L flag has already been specified.\n"));
            options->dataset_letters = optarg;
            if (quelvane_config_parse_datasets(optarg, &options->datasets) == -1)
                stop(1);
            break;
        case 'n':
            once(&seen_n, _("The -n flag has already been specified.\n"));
            answer_no = 1;
            break;
        case 'o':
            if (seen_o)
                stop(1);
            seen_o = 1;
            options->output_path = optarg;
            if (strcmp(optarg, "-") == 0)
                bui_download_mode = 1;
            break;
        case 'p':
            // Accepted for old callers; the argument means nothing.
            break;
        case 'P':
            once(&seen_P, _("The -P flag has already been specified.\n"));
            if (strlen(optarg) > MAX_PASSWORD) {
                fprintf(stderr, _("Maximum encryption password length is %d characters.\n"),
                        static_cast<int>(MAX_PASSWORD));
                stop(1);
            }
            if (optarg[0] == '\0')
                refuse(_("The encryption password may not be empty.\n"));
            options->password = optarg;
            options->have_password = true;
            // Out of sight of ps and /proc/<pid>/cmdline from here on.
            memset(optarg, 'x', strlen(optarg));
            break;
        case 'q':
            once(&seen_q, _("The -q flag has already been specified.\n"));
            quiet = 1;
            break;
        case 'r':
            once(&seen_r, _("The -r flag has already been specified.\n"));
            options->remove_device_files = 1;
            break;
        case 'u':
            options->no_header = 1;
            break;
        case 'v':
            verbose = 1;
            break;
        case 'y':
            once(&seen_y, _("The -y flag has already been specified.\n"));
            answer_yes = 1;
            break;
        case ':':
            if (optopt >= OPTION_HELP)
                fprintf(stderr, _("Option %s requires an argument\n"), argv[optind - 1]);
            else
                fprintf(stderr, _("Option -%c requires an argument\n"), optopt);
            stop(1);
        default:
            if (optopt >= OPTION_HELP)
                fprintf(stderr, _("Option %s takes no argument\n"), argv[optind - 1]);
            else if (optopt == 0)  // a long option we do not know
                fprintf(stderr, _("Option %s is an unknown option\n"), argv[optind - 1]);
            else
                fprintf(stderr, _("Option -%c is an unknown option\n"), optopt);
            stop(1);
        }
    }

    if (seen_h)
        stop(argc > 2 ? 1 : 0);
    if (!seen_f)
        refuse(_("Missing required -f flag\n"));
    if (!seen_a)
        refuse(_("Missing required -a flag\n"));
    if (answer_yes && answer_no)
        refuse(_("-y and -n cannot be used together\n"));
    if (quiet)
        verbose = 0;
    if (seen_P && !encrypt_output)
        refuse(_("-P requires -e flag\n"));
    if (seen_I && !encrypt_output)
        refuse(_("-I requires -e flag\n"));
    if (seen_I && seen_P)
        refuse(_("-I and -P cannot be used together\n"));
    if (options->pbkdf2 != 0 && !encrypt_output)
        refuse(_("--pbkdf2 requires -e flag\n"));
    if (!options->recipient.empty() && encrypt_output)
        refuse(_("--recipient and -e cannot be used together\n"));
    if (options->max_size != 0 && (options->manifest || !options->recipient.empty()))
        refuse(_("--max-size cannot be used with --manifest or --recipient\n"));
    if (options->remove_device_files && !seen_d)
        refuse(_("-r requires -d flag\n"));
    if (!seen_o)
        refuse(_("At least one output mode must be specified\n"));
    if (seen_d && bui_download_mode)
        refuse(_("Internal error.  USB Device Mode and BUI Download Mode specified "
                 "simultaneously.\n"));
    // In browser usage nobody is there to answer a prompt.
    if (bui_header || bui_download_mode) {
        if (encrypt_output && !seen_P && !seen_I)
            refuse(_("Encryption password must be provided with -P or -I in this usage\n"));
        if (options->remove_device_files && !answer_yes && !answer_no)
            refuse(_("The -r flag requires -y or -n in this usage\n"));
    }
}

}  // namespace

int quelvane_parse_options(int argc, char **argv, RunOptions *options)
{
    try {
        parse_options(argc, argv, options);
        return -1;
    } catch (const StopParsing &stopped) {
        return stopped.status;
    } catch (const std::bad_alloc &) {
        return STATUS_OUT_OF_MEMORY;
    }
}
// ---------------------------------------------------------------------------
// Run driver
// ---------------------------------------------------------------------------

namespace {

// What the end of the run needs to know, whichever step stopped it.
struct RunState {
    int status = 0;
    int output_fd = 1;
    int keep_archive = 0;
    int collection_errors = 0;
    struct stat opened = {};  // the output file this run created or truncated
};

// The archive's SHA-256, with --checksum, once it is complete.
std::string delivered_checksum;

// The options of this run for the manifest; never a password.
std::vector<std::pair<std::string, std::string>> given_options(const RunOptions &options)
{
    std::vector<std::pair<std::string, std::string>> given = {
        {"archive", options.archive_name}, {"config", options.config_path}, {"output", options.output_path},
        {"datasets", options.dataset_letters}};
    const std::pair<const char *, bool> flags[] = {
        {"browser", bui_header != 0},        {"no_compression", no_compression != 0},
        {"encrypted", encrypt_output != 0},  {"log_only", log_only_mode != 0},
        {"gentle", options.gentle},          {"manifest", options.manifest}};
    for (const auto &flag : flags)
        if (flag.second)
            given.emplace_back(flag.first, "yes");
    const std::pair<const char *, std::string> valued[] = {
        {"device", options.usb_device},
        {"deadline", options.deadline != 0 ? std::to_string(options.deadline) : ""},
        {"max_size", options.max_size != 0 ? std::to_string(options.max_size) : ""},
        {"pbkdf2", options.pbkdf2 != 0 ? std::to_string(options.pbkdf2) : ""},
        {"recipient", options.recipient}, {"scrub", options.scrub_path}, {"checksum", options.checksum_path}};
    for (const auto &value : valued)
        if (!value.second.empty())
            given.emplace_back(value.first, value.second);
    return given;
}

// "<sha256>  <name>", as sha256sum -c reads it.
int write_checksum(const std::string &path, const std::string &digest, const std::string &name)
{
    FILE *file = digest.empty() ? nullptr : fopen(path.c_str(), "w");
    bool written = file != nullptr && fprintf(file, "%s  %s\n", digest.c_str(), name.c_str()) > 0;
    if (file != nullptr && fclose(file) != 0)
        written = false;
    if (written)
        return 0;
    int error = errno;
    fprintf(stderr, _("Unable to write the checksum to %s: %s\n"), path.c_str(), strerror(error));
    return -1;
}

// Standard output was closed when we started: descriptor 1 is /dev/null.
bool stdout_was_closed;

// Descriptors 0-2 that the caller closed are opened on /dev/null before
// anything else can take their numbers (the lock file as our "stdout").
void fill_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        if (fd == STDOUT_FILENO)
            stdout_was_closed = true;
        int null = open("/dev/null", O_RDWR);
        if (null != fd && null != -1) {
            dup2(null, fd);
            close(null);
        }
    }
}

// The archive's data, then its directory entry, flushed to the device; a
// failure is reported and counts as an output failure.
int sync_output(int fd, const std::string &path)
{
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    int dir_fd = -1;
    // A file system that cannot sync a directory (EINVAL) still has the file's entry.
    if (fsync(fd) != 0 || (dir_fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) == -1 ||
        (fsync(dir_fd) != 0 && errno != EINVAL && errno != ENOSYS)) {
        int error = errno;
        if (dir_fd != -1)
            close(dir_fd);
        fprintf(stderr, _("Error flushing %s to its device: %s\n"), path.c_str(), strerror(error));
        return -1;
    }
    close(dir_fd);
    return 0;
}

// Only the regular file this run opened is removed: never a device or
// whatever else stands at the path now.
void remove_output(const char *path, const struct stat &opened)
{
    struct stat now;
    if (S_ISREG(opened.st_mode) && lstat(path, &now) == 0 && S_ISREG(now.st_mode) &&
        now.st_dev == opened.st_dev && now.st_ino == opened.st_ino)
        unlink(path);
}

// Everything between taking the lock and closing up: returns as soon as a
// step ends the run, and the caller closes up.
void collect(RunOptions *options, RunState *run, char *password)
{
    const char *output_path = options->output_path.c_str();
    int sp_sw_down = get_injected_spswdown();

    if (options->have_device) {
        if (!quiet)
            fputs(_("Testing writability of USB device..."), stdout);
        if (usb_write_test(output_path) == -1) {
            if (!quiet)
                fputs(_("FAILURE\n"), stdout);
            run->status = 1;
            return;
        }
        if (!quiet)
            fputs(_("SUCCESS\n"), stdout);
    }

    if (options->remove_device_files) {
        int prepared = usb_prepare_device(output_path, options->usb_device.c_str());
        if (prepared == -1) {
            run->status = 1;
            fprintf(stderr, _("Consider running %s without -r\n"), program_name);
            return;
        }
        if (prepared == -2) {
            run->status = 0;
            return;
        }
    }

    bool have_password = false;
    if (options->have_password) {
        snprintf(password, MAX_PASSWORD + 1, "%s", options->password.c_str());
        OPENSSL_cleanse(&options->password[0], options->password.size());
        have_password = true;
    } else if (options->password_fd != -1) {
        if (quelvane_password_from_fd(options->password_fd, password) == -1) {
            run->status = 1;
            return;
        }
        have_password = true;
    } else if (encrypt_output) {
        if (quelvane_password_from_terminal(password) == -1) {
            run->status = 1;
            return;
        }
        have_password = true;
    }
    if (encrypt_output && have_password && !bui_download_mode && !quiet)
        fputs(_("Output data will be encrypted.\n"), stdout);

    ConfigList entries;
    int uses_domain = 0;
    int max_domains = 1;
    if (quelvane_config_read_file(&entries, options->config_path.c_str(),
                                  options->archive_base.c_str(), &uses_domain) == -1) {
        run->status = 6;
        fprintf(stderr, _("Error reading config file: %s\n"), options->config_path.c_str());
        return;
    }
    if (sp_sw_down == 0 && uses_domain)
        mark_max_domains(&max_domains);

    if (bui_download_mode && stdout_was_closed) {
        // Never an archive written to whatever took descriptor 1.
        run->status = 2;
        fputs(_("Standard output is closed: nowhere to send the archive\n"), stderr);
        return;
    }
    if (!bui_download_mode) {
        run->output_fd = open(output_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (run->output_fd == -1) {
            run->status = 1;
            fprintf(stderr, _("Unable to open output file: %s\n"), output_path);
            return;
        }
        fstat(run->output_fd, &run->opened);
        // Printed even with -q: callers read the archive's path from it.
        printf(_("Collecting data into %s\n"), output_path);
    }
    const int out = run->output_fd;

    if (zip_deflate_start() != 0) {
        run->status = 2;
        fputs(_("Error starting compression stream\n"), stderr);
        return;
    }
    if (bui_download_mode && bui_header && !options->no_header &&
        write_download_header(out, options->archive_name.c_str()) == -1) {
        run->status = 2;
        return;
    }
    if (!options->checksum_path.empty())
        sink_hash_delivered();
    if (!options->recipient.empty() && sink_recipient_start(options->recipient.c_str(), out) != 0) {
        run->status = 1;
        return;
    }
    sink_use_pbkdf2(options->pbkdf2);
    int started = encrypt_output ? sink_encrypt_start(password, out) : 0;
    // The key is derived: the password has no further use.
    OPENSSL_cleanse(password, MAX_PASSWORD + 1);
    if (started == -1) {
        run->status = 2;
        fputs(_("Error starting encryption\n"), stderr);
        return;
    }
    zip_hash_members(options->manifest);

    // The budget counts what is delivered: the ciphertext, not the plain archive.
    if (options->max_size != 0) {
        zip_budget_set(options->max_size - (encrypt_output ? ENCRYPTION_OVERHEAD : 0));
        config_glob_newest_first(true);
    }

    ZipWriter archive;
    print_progress(_("Sending README File\n"));
    if (datagen_write_readme(out, options->archive_name.c_str(), options->config_path.c_str(),
                             &archive, options->archive_base.c_str(),
                             options->dataset_letters.c_str(), sp_sw_down, max_domains) != 0) {
        run->status = 2;
        fputs(_("Error while sending README file to zip archive\n"), stderr);
        return;
    }
    print_progress(_("Sending CONFIG File\n"));
    if (datagen_write_config(out, &archive, options->archive_base.c_str(),
                             options->config_path.c_str()) != 0) {
        run->status = 2;
        fputs(_("Error while sending CONFIG files to zip archive\n"), stderr);
        return;
    }

    errno = 0;
    int walked = datagen_walk_entries(out, &entries, &archive, options->datasets, sp_sw_down,
                                      max_domains);
    if (walked == -2) {
        int error = errno;
        fputs(_("Error with output"), stderr);
        if (error != 0)
            fprintf(stderr, ": %s\n", strerror(error));
        else
            fputc('\n', stderr);
        run->status = 2;
        return;
    }
    if (walked == -1) {
        // The archive is still completed, then removed.
        run->status = 5;
        fputs(_("Data capture interrupted by user.  Attempting to remove archive.\n"), stderr);
    } else {
        run->collection_errors = walked;
        int listed = datagen_write_skipped(out, &archive, options->archive_base.c_str());
        if (listed == -2) {
            run->status = 2;
            fputs(_("Error with output\n"), stderr);
            return;
        }
        if (listed == -1)
            fputs(_("Unable to record the skipped entries\n"), stderr);
        if (options->manifest) {
            int made = datagen_write_manifest(out, &archive, options->archive_base.c_str(), given_options(*options));
            if (made == -2) {
                run->status = 2;
                fputs(_("Error with output\n"), stderr);
                return;
            }
            if (made == -1)
                fputs(_("Unable to write the manifest\n"), stderr);
        }
        print_progress(_("Completing ZIP archive\n"));
    }

    if (zip_finish_archive(out, &archive.total_written) == -1) {
        run->status = 2;
        fputs(_("Error completing zip archive\n"), stderr);
        return;
    }
    if (!options->recipient.empty() && sink_recipient_finish(out) == -1) {
        run->status = 2;
        fputs(_("Error completing encryption\n"), stderr);
        return;
    }
    if (encrypt_output && sink_encrypt_finish(out) == -1) {
        run->status = 2;
        fputs(_("Error completing encryption\n"), stderr);
        return;
    }
    if (zip_deflate_end() == -1) {
        run->status = 2;
        fputs(_("Error closing compression stream\n"), stderr);
        return;
    }
    // Kept only once it is complete: a failure above leaves no partial file.
    run->keep_archive = walked >= 0;
    if (walked >= 0 && !options->checksum_path.empty()) {
        delivered_checksum = sink_delivered_sha256();
        if (write_checksum(options->checksum_path, delivered_checksum,
                           bui_download_mode ? options->archive_name : options->output_path) != 0) {
            run->status = 2;
            run->keep_archive = 0;
        }
    }
}

// The progress channel's last line: the archive's size, or why it failed;
// after the size, in download mode, the checksum asked for.
void report_end(int status)
{
    if (status == 0) {
        progress_event("OK %llu\n", static_cast<unsigned long long>(sink_delivered()));
        if (bui_download_mode && !delivered_checksum.empty())
            progress_event("SHA256 %s\n", delivered_checksum.c_str());
        return;
    }
    static const struct {
        int status;
        const char *reason;
    } REASONS[] = {{1, "refused"}, {2, "output"}, {3, "busy"}, {5, "interrupted"}, {6, "configuration"}};
    const char *reason = "error";
    for (const auto &known : REASONS)
        if (known.status == status)
            reason = known.reason;
    progress_event("FAIL %d %s\n", status, reason);
}

}  // namespace

int quelvane_run(RunOptions *options)
{
    int status = quelvane_run_collection(options);
    scrub_wipe();
    report_end(status);
    return status;
}

int quelvane_run_collection(RunOptions *options)
{
    if (options->progress_fd != -1)
        progress_channel_open(options->progress_fd);
    if (options->deadline != 0)
        run_deadline_set(options->deadline);
    if (options->gentle && gentle_start() != 0)
        return 1;
    if (!options->scrub_path.empty() && scrub_load(options->scrub_path.c_str()) != 0)
        return 1;
    set_instance_name(program_name);
    if (quelvane_signal_setup() == -1) {
        fputs(_("Unable to setup signal handlers\n"), stderr);
        return 2;
    }
    if (acquire_lock() == -1) {
        fprintf(stderr, _("Only run one %s at a time\n"), program_name);
        return 3;
    }

    RunState run;
    char password[MAX_PASSWORD + 1] = {};
    collect(options, &run, password);
    OPENSSL_cleanse(password, sizeof password);
    if (!options->password.empty())
        OPENSSL_cleanse(&options->password[0], options->password.size());

    // A file that did not receive a complete walk is never left behind; in
    // download mode there is nothing to close.
    if (!options->output_path.empty() && run.output_fd != 1 && run.output_fd != -1) {
        // On the device before we say so: the operator pulls the stick at
        // "Data collection complete".
        if (run.keep_archive && sync_output(run.output_fd, options->output_path) != 0) {
            run.status = 2;
            run.keep_archive = 0;
        }
        close(run.output_fd);
        if (!run.keep_archive)
            remove_output(options->output_path.c_str(), run.opened);
        else if (!quiet)
            fputs(_("Data collection complete\n"), stdout);
    }
    if (interrupted_by_user)
        print_progress(_("Interrupted by user\n"));
    else if (run.status != 0)
        print_progress(_("Exiting with error: %d\n"), run.status);
    else
        print_progress(_("Finished with %d collection errors\n"), run.collection_errors);

    release_lock();
    return run.status;
}

// ---------------------------------------------------------------------------
// USB device
// ---------------------------------------------------------------------------

namespace {

const char TEST_TEXT[] = "My test String";
constexpr size_t TEST_LENGTH = sizeof TEST_TEXT - 1;

struct Descriptor {
    int fd;
    explicit Descriptor(int d) : fd(d) {}
    ~Descriptor()
    {
        if (fd != -1)
            close(fd);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
};

// Removes the test file whichever way the test ends.
struct Unlink {
    const std::string &path;
    ~Unlink() { unlink(path.c_str()); }
};

// Ends the "Removing files" line; the reason follows on standard error.
void device_failure()
{
    if (!quiet)
        fputs(_("FAILURE\n"), stdout);
}

void print_mount_point_error(const char *output_path)
{
    fprintf(stderr, _("Unable to determine USB device mount point from '%s'\n"), output_path);
}

}  // namespace

int usb_write_test(const char *output_path)
{
    if (output_path == nullptr)
        return -1;
    const char *slash = strrchr(output_path, '/');
    if (slash == nullptr) {
        print_mount_point_error(output_path);
        return -1;
    }
    std::string test_file;
    try {
        std::string directory(output_path, static_cast<size_t>(slash - output_path));
        char name[64];
        snprintf(name, sizeof name, "quelvane_testwrite.%d", static_cast<int>(getpid()));
        test_file = directory + "/" + name;
    } catch (const std::bad_alloc &) {
        fputs(_("No Memory\n"), stderr);
        return -1;
    }
    Unlink remove_test_file{test_file};

    {
        // O_SYNC: the bytes must reach the device, not only the page cache.
        Descriptor out(open(test_file.c_str(), O_WRONLY | O_CREAT | O_SYNC, 0666));
        if (out.fd == -1 || write(out.fd, TEST_TEXT, TEST_LENGTH) != static_cast<ssize_t>(TEST_LENGTH)) {
            int error = errno;
            fprintf(stderr, _("\nUnable to create testfile '%s' on USB device. fd=%d\n\t%s\n"),
                    test_file.c_str(), out.fd, strerror(error));
            return -1;
        }
    }
    Descriptor in(open(test_file.c_str(), O_RDONLY));
    if (in.fd == -1)
        return -1;
    char back[TEST_LENGTH + 1] = {};
    if (read(in.fd, back, TEST_LENGTH) != static_cast<ssize_t>(TEST_LENGTH))
        return -1;
    return memcmp(back, TEST_TEXT, TEST_LENGTH) == 0 ? 0 : -1;
}

int usb_prepare_device(const char *output_path, const char *usb_device)
{
    if (output_path == nullptr || usb_device == nullptr)
        return -1;
    const std::string path(output_path);
    const size_t last = path.rfind('/');
    if (last == std::string::npos) {
        print_mount_point_error(output_path);
        return -1;
    }
    const std::string output_directory = path.substr(0, last);
    const size_t second = output_directory.rfind('/');
    if (second == std::string::npos) {
        print_mount_point_error(output_path);
        return -1;
    }
    const std::string mount_point = output_directory.substr(0, second);
    if (mount_point.empty()) {
        fputs(_("USB device mount point cannot be '/'\n"), stderr);
        return -1;
    }

    if (!quiet)
        printf(_("About to remove all files from device '%s'.  "), usb_device);
    int answer = ask_yes_no(_("Continue? [y|n] :"), answer_yes, answer_no);
    if (answer != 1) {
        if (answer == -1 || answer == -2)
            fputc('\n', stderr);
        if (!quiet)
            fputs(_("File removal canceled\n"), stdout);
        return -2;
    }

    if (!quiet)
        fputs(_("Removing files from USB device..."), stdout);
    char saved[4096];
    if (getcwd(saved, sizeof saved) == nullptr) {
        device_failure();
        fputs(_("Unable to determine current directory\n"), stderr);
        return -1;
    }
    if (chdir(mount_point.c_str()) == -1) {
        device_failure();
        fprintf(stderr, _("Unable to chdir to USB device mount point: '%s'\n"),
                mount_point.c_str());
        return -1;
    }
    char now[4096];
    const bool have_now = getcwd(now, sizeof now) != nullptr;
    // A mount point that resolves to the root (a symbolic link, "..") is
    // never emptied.
    const bool is_root = have_now && strcmp(now, "/") == 0;
    int removed = 0;
    if (have_now && !is_root)
        removed = system("/bin/rm -rf *");
    if (chdir(saved) == -1) {
        // The directory was ours a moment ago; the checks below still apply.
    }
    if (!have_now || is_root || removed != 0) {
        device_failure();
        if (!have_now)
            fputs(_("Unable to get new working directory\n"), stderr);
        else if (is_root)
            fputs(_("USB device mount point cannot be '/'\n"), stderr);
        else
            fprintf(stderr, _("Error removing files from USB device (%d)\n"), removed);
        return -1;
    }
    // Made from the caller's directory, so a relative output path names the
    // directory it named on the command line.
    if (mkdir(output_directory.c_str(), 0777) == -1) {
        int error = errno;
        device_failure();
        fprintf(stderr, _("Error %d while making directory '%s' on USB device\n"), error,
                output_directory.c_str());
        return -1;
    }
    if (!quiet)
        fputs(_("SUCCESS\n"), stdout);
    return 0;
}

// ---------------------------------------------------------------------------
// Start-up
// ---------------------------------------------------------------------------

int quelvane_main(int argc, char **argv)
{
    fill_standard_descriptors();
    setlocale(LC_ALL, "");
    program_name = strdup(__xpg_basename(argv[0]));
    if (program_name == nullptr)
        exit(STATUS_OUT_OF_MEMORY);
    size_t length = strlen(program_name);
    if (length > 4 && strcmp(program_name + length - 4, ".bin") == 0)
        program_name[length - 4] = '\0';

    // Status lines must reach the console (or the caller's pipe) at once.
    int flags = fcntl(STDOUT_FILENO, F_GETFL);
    if (flags != -1) {
        fcntl(STDOUT_FILENO, F_SETFL, flags | O_SYNC);
        (void)fcntl(STDOUT_FILENO, F_GETFL);
    }
    setbuffer(stdout, nullptr, 0);

    if (argc == 1)
        usage(0);

    try {
        RunOptions options;
        int stopped = quelvane_parse_options(argc, argv, &options);
        if (stopped == STATUS_OUT_OF_MEMORY)
            return stopped;
        if (stopped == STATUS_ANSWERED)
            return 0;
        if (stopped >= 0)
            usage(stopped);
        return quelvane_run(&options);
    } catch (const std::bad_alloc &) {
        return STATUS_OUT_OF_MEMORY;
    }
}
#endif  // QUELVANE_MAIN_ONLY

#ifndef QUELVANE_LIBRARY
int main(int argc, char **argv)
{
    return quelvane_main(argc, argv);
}
#endif
