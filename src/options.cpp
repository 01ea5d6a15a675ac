#include "options.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config.h"
#include "console.h"
#include "deflater.h"

namespace {

// 'r' is left out on purpose: the device clean-up stays switched off until
// the letter is added here.
const char OPTION_STRING[] = ":a:bCd:ef:hI:lL:no:p:P:qu:vy";
constexpr size_t MAX_PASSWORD = 63;
constexpr unsigned DEFAULT_PBKDF2_ITERATIONS = 100000;
// The smallest budget: room for README, CONFIG and the records that end
// an archive.
constexpr uint64_t MIN_MAX_SIZE = 4096;

// Additions to the command line are long options only, so that every short
// option, message and exit status stays as it was.
enum { OPTION_HELP = 256, OPTION_VERSION, OPTION_PROGRESS_FD, OPTION_DEADLINE, OPTION_GENTLE, OPTION_MAX_SIZE,
       OPTION_MANIFEST, OPTION_CHECKSUM, OPTION_SCRUB, OPTION_PBKDF2, OPTION_KEEPALIVE, OPTION_DRY_RUN,
       OPTION_LEVEL, OPTION_FAST, OPTION_RECIPIENT };
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
    {"keepalive", required_argument, nullptr, OPTION_KEEPALIVE},
    {"dry-run", no_argument, nullptr, OPTION_DRY_RUN},
    {"level", required_argument, nullptr, OPTION_LEVEL},
    {"fast", no_argument, nullptr, OPTION_FAST},
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
    "      --keepalive=SECONDS  with -o -: bytes on the wire while a command is silent that long",
    "      --dry-run            list the members -L would collect; run and write nothing",
    "      --level=N            deflate level 0-9 for every member (0 stores, as -C; 6 by default)",
    "      --fast               the fastest deflate this binary has (see --version)",
    "      --help       this list, then exit",
    "      --version    the name and version, then exit",
};

Result refuse(const char *message)
{
    fputs(message, stderr);
    return Result::refused;
}

// A whole number in [low, high], optionally followed by one of the suffixes
// (K, M, G: powers of 1024); false for anything else.
bool parse_number(const char *text, const char *suffixes, uint64_t low, uint64_t high, uint64_t *value)
{
    if (text == nullptr || !isdigit(static_cast<unsigned char>(text[0])))
        return false;
    errno = 0;
    char *end = nullptr;
    const unsigned long long number = strtoull(text, &end, 10);
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

Result archive_name(Options &o, const char *arg)
{
    // A name goes into the download header: no byte of it may end a line.
    for (const char *c = arg; *c != '\0'; ++c)
        if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) {
            fputs(_("archive-name may not contain control characters\n"), stderr);
            return Result::refused;
        }
    if (strchr(arg, '/') != nullptr) {
        fprintf(stderr, _("archive-name may not contain '/': '%s'\n"), arg);
        return Result::refused;
    }
    o.archive_name = o.archive_base = arg;
    // ".zip" is looked for first, so the ".zip.e" lookup only runs when it
    // cannot match; the order is kept as it always was.
    size_t cut = o.archive_base.find(".zip");
    if (cut == std::string::npos)
        cut = o.archive_base.find(".zip.e");
    if (cut != std::string::npos)
        o.archive_base.erase(cut);
    // The base heads every member name: ".." would lead out of the
    // directory an archive is unpacked in.
    if (o.archive_base == "..") {
        fprintf(stderr, _("archive-name may not name the parent directory: '%s'\n"), arg);
        return Result::refused;
    }
    return Result::ok;
}

Result password_fd(Options &o, const char *arg)
{
    o.password_fd = atoi(arg);
    // Standard input may be the terminal; it never carries the password.
    if (o.password_fd == 0)
        return refuse(_("FD 0 not allowed with -I.\n"));
    struct stat status;
    if (fstat(o.password_fd, &status) == -1)
        return refuse(_("Invalid file descriptor passed to -I.\n"));
    return Result::ok;
}

Result password(Options &o, const char *arg)
{
    if (strlen(arg) > MAX_PASSWORD) {
        fprintf(stderr, _("Maximum encryption password length is %d characters.\n"), static_cast<int>(MAX_PASSWORD));
        return Result::refused;
    }
    if (arg[0] == '\0')
        return refuse(_("The encryption password may not be empty.\n"));
    o.password = arg;
    o.have_password = true;
    // Out of sight of ps and /proc/<pid>/cmdline from here on.
    memset(const_cast<char *>(arg), 'x', strlen(arg));
    return Result::ok;
}

Result progress_fd(Options &o, const char *arg)
{
    uint64_t fd = 0;
    if (!parse_number(arg, "", STDERR_FILENO + 1, INT32_MAX, &fd) || fcntl(static_cast<int>(fd), F_GETFL) == -1)
        return refuse(_("Invalid file descriptor passed to --progress-fd: it must be open and above 2.\n"));
    o.progress_fd = static_cast<int>(fd);
    return Result::ok;
}

// --NAME=SECONDS, 1 to most.
Result seconds(const char *name, const char *arg, unsigned most, unsigned *value)
{
    uint64_t given = 0;
    if (!parse_number(arg, "", 1, most, &given)) {
        fprintf(stderr, _("Invalid --%s '%s': seconds from 1 to %u\n"), name, arg, most);
        return Result::refused;
    }
    *value = static_cast<unsigned>(given);
    return Result::ok;
}

Result deadline(Options &o, const char *arg) { return seconds("deadline", arg, 86400, &o.deadline); }

Result keepalive(Options &o, const char *arg) { return seconds("keepalive", arg, 3600, &o.keepalive); }

Result level(Options &o, const char *arg)
{
    uint64_t given = 0;
    if (!parse_number(arg, "", 0, 9, &given)) {
        fprintf(stderr, _("Invalid --level '%s': a deflate level from 0 to 9\n"), arg);
        return Result::refused;
    }
    o.level = static_cast<int>(given);
    return Result::ok;
}

Result max_size(Options &o, const char *arg)
{
    if (!parse_number(arg, "KMG", MIN_MAX_SIZE, UINT64_MAX / 2, &o.max_size)) {
        fprintf(stderr, _("Invalid --max-size '%s': bytes, at least %d, with K, M or G to scale\n"), arg,
                static_cast<int>(MIN_MAX_SIZE));
        return Result::refused;
    }
    return Result::ok;
}

constexpr int MAX_PBKDF2_ITERATIONS = 10000000;

Result pbkdf2(Options &o, const char *arg)
{
    uint64_t iterations = DEFAULT_PBKDF2_ITERATIONS;
    // The derivation cannot be interrupted: its cost is bounded instead
    // (some seconds on a controller).
    if (arg != nullptr && !parse_number(arg, "", 1, MAX_PBKDF2_ITERATIONS, &iterations)) {
        fprintf(stderr, _("Invalid --pbkdf2 '%s': iterations from 1 to %d\n"), arg, MAX_PBKDF2_ITERATIONS);
        return Result::refused;
    }
    o.pbkdf2 = static_cast<unsigned>(iterations);
    return Result::ok;
}

// What a second use of an option does: refuse it with its own message,
// refuse it with the usage text alone, or take it again.
enum class Again { message, silent, allowed };

const struct Rule {
    int code;
    Again again;
    const char *again_message;
    Result (*apply)(Options &, const char *arg);
} RULES[] = {
    {'a', Again::silent, nullptr, archive_name},
    {'b', Again::message, "The -b flag has already been specified.\n", [](Options &o, const char *) { return o.browser = true, Result::ok; }},
    {'C', Again::message, "The -C flag has already been specified.\n", [](Options &o, const char *) { return o.no_compression = true, Result::ok; }},
    {'d', Again::message, "The -d flag has already been specified.\n", [](Options &o, const char *arg) { return o.usb_device = arg, o.have_device = true, Result::ok; }},
    {'e', Again::message, "The -e flag has already been specified.\n", [](Options &o, const char *) { return o.encrypt = true, Result::ok; }},
    {'f', Again::silent, nullptr, [](Options &o, const char *arg) { return o.config_path = arg, Result::ok; }},
    {'h', Again::message, "The -h flag has already been specified.\n", [](Options &, const char *) { return Result::ok; }},
    {'I', Again::message, "The -I flag has already been specified.\n", password_fd},
    {'l', Again::message, "The -l flag has already been specified.\n", [](Options &o, const char *) { return o.log_only = true, Result::ok; }},
    // A bad letter ends with the usage text alone: the letters' parser says nothing.
    {'L', Again::message, "The -L flag has already been specified.\n", [](Options &o, const char *arg) { return o.dataset_letters = arg, parse_datasets(arg, &o.datasets) ? Result::ok : Result::refused; }},
    {'n', Again::message, "The -n flag has already been specified.\n", [](Options &o, const char *) { return o.answer_no = true, Result::ok; }},
    {'o', Again::silent, nullptr, [](Options &o, const char *arg) { return o.output_path = arg, o.download = strcmp(arg, "-") == 0, Result::ok; }},
    // Accepted for old callers; the argument means nothing.
    {'p', Again::allowed, nullptr, [](Options &, const char *) { return Result::ok; }},
    {'P', Again::message, "The -P flag has already been specified.\n", password},
    {'q', Again::message, "The -q flag has already been specified.\n", [](Options &o, const char *) { return o.quiet = true, Result::ok; }},
    {'r', Again::message, "The -r flag has already been specified.\n", [](Options &o, const char *) { return o.remove_device_files = true, Result::ok; }},
    {'u', Again::allowed, nullptr, [](Options &o, const char *) { return o.no_header = true, Result::ok; }},
    {'v', Again::allowed, nullptr, [](Options &o, const char *) { return o.verbose = true, Result::ok; }},
    {'y', Again::message, "The -y flag has already been specified.\n", [](Options &o, const char *) { return o.answer_yes = true, Result::ok; }},
    {OPTION_PROGRESS_FD, Again::allowed, nullptr, progress_fd},
    {OPTION_DEADLINE, Again::allowed, nullptr, deadline},
    {OPTION_GENTLE, Again::allowed, nullptr, [](Options &o, const char *) { return o.gentle = true, Result::ok; }},
    {OPTION_MAX_SIZE, Again::allowed, nullptr, max_size},
    {OPTION_MANIFEST, Again::allowed, nullptr, [](Options &o, const char *) { return o.manifest = true, Result::ok; }},
    {OPTION_CHECKSUM, Again::allowed, nullptr, [](Options &o, const char *arg) { return o.checksum_path = arg, Result::ok; }},
    {OPTION_SCRUB, Again::allowed, nullptr, [](Options &o, const char *arg) { return o.scrub_path = arg, Result::ok; }},
    {OPTION_PBKDF2, Again::allowed, nullptr, pbkdf2},
    {OPTION_RECIPIENT, Again::allowed, nullptr, [](Options &o, const char *arg) { return o.recipient = arg, Result::ok; }},
    {OPTION_KEEPALIVE, Again::allowed, nullptr, keepalive},
    {OPTION_DRY_RUN, Again::allowed, nullptr, [](Options &o, const char *) { return o.dry_run = true, Result::ok; }},
    {OPTION_LEVEL, Again::allowed, nullptr, level},
    {OPTION_FAST, Again::allowed, nullptr, [](Options &o, const char *) { return o.fast = true, Result::ok; }},
};

// The option getopt could not take: an argument missing or unwanted, or an
// option unknown.
Result refuse_unknown(int option, char **argv)
{
    if (option == ':' && optopt >= OPTION_HELP)
        fprintf(stderr, _("Option %s requires an argument\n"), argv[optind - 1]);
    else if (option == ':')
        fprintf(stderr, _("Option -%c requires an argument\n"), optopt);
    else if (optopt >= OPTION_HELP)
        fprintf(stderr, _("Option %s takes no argument\n"), argv[optind - 1]);
    else if (optopt == 0)  // a long option we do not know
        fprintf(stderr, _("Option %s is an unknown option\n"), argv[optind - 1]);
    else
        fprintf(stderr, _("Option -%c is an unknown option\n"), optopt);
    return Result::refused;
}

// --help and --version answer on standard output.
void answer(int option, const std::string &program)
{
    if (option == OPTION_VERSION) {
        printf("%s %s\n%s", program.c_str(), QUELVANE_VERSION, engines_description().c_str());
        return;
    }
    printf(_("Usage: %s -f config -a archive-name -o output [option]...\n"), program.c_str());
    for (const char *line : HELP_LINES)
        printf("%s\n", _(line));
}

// The options given so far, by their codes.
class Given {
public:
    bool operator()(int code) const { return given_[code]; }
    void add(int code) { given_[code] = true; }

private:
    bool given_[OPTION_RECIPIENT + 1] = {};
};

// Whether descriptor fd is the file that path names (or descriptor other).
bool same_file(int fd, int other, const std::string &path = "")
{
    struct stat a, b;
    const bool found = other != -1 ? fstat(other, &b) == 0 : stat(path.c_str(), &b) == 0;
    return found && fstat(fd, &a) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The combinations, checked in this order once every option is read.
Result check_combinations(const Options &o, const Given &seen)
{
    const bool seen_P = seen('P'), seen_I = seen('I');
    const char *refusal = !seen('f')                         ? _("Missing required -f flag\n")
                          : !seen('a')                       ? _("Missing required -a flag\n")
                          : o.answer_yes && o.answer_no      ? _("-y and -n cannot be used together\n")
                          : seen_P && !o.encrypt             ? _("-P requires -e flag\n")
                          : seen_I && !o.encrypt             ? _("-I requires -e flag\n")
                          : seen_I && seen_P                 ? _("-I and -P cannot be used together\n")
                          : o.pbkdf2 != 0 && !o.encrypt      ? _("--pbkdf2 requires -e flag\n")
                          : (o.fast || o.level != -1) && o.no_compression ? _("-C cannot be used with --level or --fast\n")
                          : o.fast && o.level != -1          ? _("--fast and --level cannot be used together\n")
                          : !o.recipient.empty() && o.encrypt ? _("--recipient and -e cannot be used together\n")
                          : o.max_size != 0 && (o.manifest || !o.recipient.empty())
                              ? _("--max-size cannot be used with --manifest or --recipient\n")
                          : o.remove_device_files && !o.have_device ? _("-r requires -d flag\n")
                          // Progress lines must never land in the password's or the archive's stream.
                          : o.progress_fd != -1 && seen_I && o.progress_fd == o.password_fd
                              ? _("Invalid file descriptor passed to --progress-fd: -I reads the password from it.\n")
                          : o.progress_fd != -1 && same_file(o.progress_fd, o.download ? STDOUT_FILENO : -1, o.output_path)
                              ? _("Invalid file descriptor passed to --progress-fd: it is the archive's output.\n")
                          : !seen('o') && !o.dry_run         ? _("At least one output mode must be specified\n")
                          : o.have_device && o.download
                              ? _("Internal error.  USB Device Mode and BUI Download Mode specified simultaneously.\n")
                          // In browser usage nobody is there to answer a prompt.
                          : (o.browser || o.download) && o.encrypt && !seen_P && !seen_I
                              ? _("Encryption password must be provided with -P or -I in this usage\n")
                          : (o.browser || o.download) && o.remove_device_files && !o.answer_yes && !o.answer_no
                              ? _("The -r flag requires -y or -n in this usage\n")
                              : nullptr;
    return refusal != nullptr ? refuse(refusal) : Result::ok;
}

Parsed parse(int argc, char **argv, const std::string &program, Options *options)
{
    Given seen;
    opterr = 0;
    optind = 0;  // a full restart of getopt, so the parser can be called again
    for (int option; (option = getopt_long(argc, argv, OPTION_STRING, LONG_OPTIONS, nullptr)) != -1;) {
        if (option == OPTION_HELP || option == OPTION_VERSION) {
            answer(option, program);
            return {false, false, Result::ok};
        }
        const Rule *rule = nullptr;
        for (const Rule &candidate : RULES)
            if (candidate.code == option)
                rule = &candidate;
        if (rule == nullptr)
            return {false, true, refuse_unknown(option, argv)};
        if (seen(option) && rule->again != Again::allowed) {
            if (rule->again == Again::message)
                fputs(_(rule->again_message), stderr);
            return {false, true, Result::refused};
        }
        // An empty value (an unset variable in a script) never means "none".
        if (option >= OPTION_HELP && optarg != nullptr && optarg[0] == '\0') {
            const struct option *named = LONG_OPTIONS;
            while (named->val != option)
                ++named;
            fprintf(stderr, _("Option --%s may not be empty\n"), named->name);
            return {false, true, Result::refused};
        }
        seen.add(option);
        const Result applied = rule->apply(*options, optarg);
        if (applied != Result::ok)
            return {false, true, applied};
    }
    if (seen('h'))
        return {false, true, argc > 2 ? Result::refused : Result::ok};
    if (options->quiet)
        options->verbose = false;
    const Result checked = check_combinations(*options, seen);
    return {checked == Result::ok, checked != Result::ok, checked};
}

}  // namespace

void print_usage(const std::string &program)
{
    // The usage text names neither -a, -f nor -o, and does name -r.
    fprintf(stderr,
            _("       %s [-l] [-v] [-r] [[-q] -{y|n}] [-e [-P encryption-password]] \\\n"
              "                [-L <dataset letters>] -d usb-device\n"),
            program.c_str());
    fprintf(stderr, _("       %s -h\n"), program.c_str());
}

Parsed parse_options(int argc, char **argv, const std::string &program, Options *options)
{
    try {
        return parse(argc, argv, program, options);
    } catch (const std::bad_alloc &) {
        return {false, false, Result::no_memory};
    }
}
