#include "run.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <openssl/crypto.h>

#include "collection.h"
#include "console.h"
#include "instance_lock.h"
#include "options.h"
#include "output_file.h"
#include "run_report.h"
#include "signals.h"
#include "usb_device.h"

namespace {

// What the run holds from its start to its exit status.
struct Run {
    explicit Run(Options &given) : options(given)
    {
        console.verbose = options.verbose;
        console.quiet = options.quiet;
        console.download = options.download;
    }
    ~Run() { OPENSSL_cleanse(password, sizeof password); }
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    Options &options;
    Console console;
    ProgressChannel progress;
    Pacing pacing;
    Scrubber scrub;
    Certificate certificate;
    InstanceLock lock;
    Sink sink;
    bool stdout_was_closed = false;
    OutputFile output_file;      // in file mode
    bool output_opened = false;
    bool keep_archive = false;
    int collection_errors = 0;
    std::string checksum;  // the delivered archive's SHA-256, with --checksum
    char password[PASSWORD_BUFFER] = {};
};

Result say(Result result, const char *message)
{
    fputs(message, stderr);
    return result;
}

// The options of this run for the manifest; never a password.
std::vector<std::pair<std::string, std::string>> given_options(const Options &o)
{
    std::vector<std::pair<std::string, std::string>> given = {
        {"archive", o.archive_name}, {"config", o.config_path}, {"output", o.output_path},
        {"datasets", o.dataset_letters}};
    const std::pair<const char *, bool> flags[] = {
        {"browser", o.browser}, {"no_compression", o.no_compression}, {"encrypted", o.encrypt},
        {"log_only", o.log_only}, {"gentle", o.gentle}, {"manifest", o.manifest}, {"fast", o.fast}};
    for (const auto &flag : flags)
        if (flag.second)
            given.emplace_back(flag.first, "yes");
    const std::pair<const char *, std::string> valued[] = {
        {"device", o.usb_device},
        {"deadline", o.deadline != 0 ? std::to_string(o.deadline) : ""},
        {"level", o.level != -1 ? std::to_string(o.level) : ""},
        {"max_size", o.max_size != 0 ? std::to_string(o.max_size) : ""},
        {"pbkdf2", o.pbkdf2 != 0 ? std::to_string(o.pbkdf2) : ""},
        {"recipient", o.recipient}, {"scrub", o.scrub_path}, {"checksum", o.checksum_path}};
    for (const auto &value : valued)
        if (!value.second.empty())
            given.emplace_back(value.first, value.second);
    return given;
}

// Descriptors 0-2 that the caller closed are opened on /dev/null before
// anything else can take their numbers (the lock file as our "stdout").
// True when standard output was one of them.
bool fill_standard_descriptors()
{
    bool stdout_closed = false;
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        stdout_closed |= fd == STDOUT_FILENO;
        const int null = open("/dev/null", O_RDWR);
        if (null != fd && null != -1) {
            dup2(null, fd);
            close(null);
        }
    }
    return stdout_closed;
}

// The USB device: writable, and emptied when -r asks (*done when the
// operator declined and the run ends there).
Result prepare_device(Run &run, bool *done)
{
    const Options &o = run.options;
    if (o.have_device) {
        run.console.status(_("Testing writability of USB device..."));
        if (usb_write_test(o.output_path) != Result::ok) {
            run.console.status(_("FAILURE\n"));
            return Result::refused;
        }
        run.console.status(_("SUCCESS\n"));
    }
    if (o.remove_device_files &&
        usb_prepare_device(run.console, o.output_path, o.usb_device, o.answer_yes, o.answer_no, done) !=
            Result::ok) {
        fprintf(stderr, _("Consider running %s without -r\n"), run.console.program.c_str());
        return Result::refused;
    }
    return Result::ok;
}

Result obtain_password(Run &run)
{
    Options &o = run.options;
    if (o.have_password) {
        snprintf(run.password, sizeof run.password, "%s", o.password.c_str());
        OPENSSL_cleanse(&o.password[0], o.password.size());
    } else if (o.password_fd != -1) {
        if (password_from_fd(o.password_fd, run.password) != Result::ok)
            return Result::refused;
    } else if (o.encrypt) {
        if (password_from_terminal(run.password) != Result::ok)
            return Result::refused;
    } else {
        return Result::ok;
    }
    if (o.encrypt && !o.download)
        run.console.status(_("Output data will be encrypted.\n"));
    return Result::ok;
}

// The archive's file, or standard output in download mode.
Result open_output(Run &run)
{
    const Options &o = run.options;
    // Never an archive written to whatever took descriptor 1.
    if (o.download && run.stdout_was_closed)
        return say(Result::output_failure, _("Standard output is closed: nowhere to send the archive\n"));
    if (o.download) {
        run.sink.attach(STDOUT_FILENO, false);
        return Result::ok;
    }
    const int fd = run.output_file.open(o.output_path);
    if (fd == -1) {
        fprintf(stderr, _("Unable to open output file: %s\n"), o.output_path.c_str());
        return Result::refused;
    }
    run.sink.attach(fd, true);
    run.output_opened = true;
    // Printed even with -q: callers read the archive's path from it.
    printf(_("Collecting data into %s\n"), o.output_path.c_str());
    return Result::ok;
}

// The engine and level the options ask for; in verbose mode --fast says
// when it makes do with zlib.
Compression chosen_compression(const Options &o)
{
    if (!o.fast)
        return {Engine::zlib, o.no_compression ? 0 : o.level};
    std::string why;
    const Compression fast = fast_compression(&why);
    if (fast.engine != Engine::isal && o.verbose)
        fprintf(stderr, _("--fast: deflating with zlib level 1: %s\n"), why.c_str());
    return fast;
}

// What precedes the first member: the deflate stream, the download header,
// the checksum's hash, the encryption.
Result start_output(Run &run, ZipWriter &zip)
{
    const Options &o = run.options;
    if (zip.stream().start_stream() != 0)
        return say(Result::output_failure, _("Error starting compression stream\n"));
    if (o.download && o.browser && !o.no_header &&
        run.sink.send_header(download_header(run.scrub.text(o.archive_name))) != Result::ok)
        return Result::output_failure;
    if (!o.checksum_path.empty())
        run.sink.hash_delivered();
    if (!o.recipient.empty()) {
        const Result started = run.sink.start_recipient(run.certificate);
        if (started != Result::ok)
            return started == Result::refused ? started : say(started, _("Error starting encryption\n"));
    }
    Result started = o.encrypt ? run.sink.start_password(run.password, o.pbkdf2) : Result::ok;
    // The key is derived: the password has no further use.
    OPENSSL_cleanse(run.password, sizeof run.password);
    if (started != Result::ok)
        return say(Result::output_failure, _("Error starting encryption\n"));
    // The budget counts what is delivered: the ciphertext, not the plain archive.
    if (o.max_size != 0)
        zip.stream().set_budget(o.max_size - (o.encrypt ? Sink::PASSWORD_OVERHEAD : 0));
    zip.stream().set_deadline(run.pacing.deadline_ms());
    return Result::ok;
}

// After the walk: what it left out, the manifest, then the directory and
// the end of the encryption and of the deflate stream.
Result end_archive(Run &run, Context &context, bool walked)
{
    if (walked) {
        const Result listed = write_skipped(context);
        if (listed == Result::output_failure)
            return say(listed, _("Error with output\n"));
        if (listed != Result::ok)
            fputs(_("Unable to record the skipped entries\n"), stderr);
        // A manifest asked for and missing is a failed delivery.
        const Result made = run.options.manifest ? write_manifest(context, given_options(run.options)) : Result::ok;
        if (made == Result::output_failure)
            return say(made, _("Error with output\n"));
        if (made != Result::ok)
            return say(Result::output_failure, _("Unable to write the manifest\n"));
        run.console.progress(_("Completing ZIP archive\n"));
    }
    if (context.zip.finish_archive() != 0)
        return say(Result::output_failure, _("Error completing zip archive\n"));
    if (run.sink.finish() != 0)
        return say(Result::output_failure, _("Error completing encryption\n"));
    if (context.zip.stream().end_stream() != Z_OK)
        return say(Result::output_failure, _("Error closing compression stream\n"));
    return Result::ok;
}

// The walk, and what it means for the run: an interrupted walk still
// completes the archive, which is then removed.
Result walk_and_end(Run &run, Context &context, const Config &config, const Selection &selection)
{
    errno = 0;
    Result walked = walk_entries(context, config, selection, &run.collection_errors);
    if (walked == Result::output_failure) {
        const int error = errno;
        if (interrupted_by_user)  // it broke a wait for the reader
            return walked;
        fputs(_("Error with output"), stderr);
        if (error != 0)
            fprintf(stderr, ": %s\n", failure_text(error));
        else
            fputc('\n', stderr);
        return walked;
    }
    if (walked == Result::no_memory)
        return say(walked, _("No Memory\n"));
    if (walked == Result::interrupted)
        fputs(_("Data capture interrupted by user.  Attempting to remove archive.\n"), stderr);
    const Result ended = end_archive(run, context, walked == Result::ok);
    if (ended != Result::ok)
        return ended;
    // Kept only once it is complete: a failure above leaves no partial file.
    run.keep_archive = walked == Result::ok;
    return walked;
}

// What README, CONFIG and SKIPPED (its last line at least) take at most.
struct ReportRoom {
    uint64_t readme = 0, config = 0, skipped = 0;
};

// Under a budget the room for README, CONFIG and SKIPPED is set aside
// before anything is written; a budget without that room is refused before
// the output is opened.
Result plan_budget(const Run &run, Context &context, const RunFacts &facts, const Config &config, ReportRoom *room)
{
    const Options &o = run.options;
    const ZipData &data = context.zip.stream();
    struct stat status;
    const uint64_t config_size = stat(o.config_path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
    *room = {data.member_cost(context.top_name("README").size(), readme_text(facts).size()),
             data.member_cost(context.top_name("CONFIG").size(), config_size),
             least_skipped_cost(context, config.entries.size())};
    const uint64_t least = room->readme + room->config + room->skipped + END_RESERVE + (o.encrypt ? Sink::PASSWORD_OVERHEAD : 0);
    context.skipped_least = room->skipped;
    if (o.max_size >= least)
        return Result::ok;
    fprintf(stderr, _("--max-size %llu cannot hold README, CONFIG and SKIPPED: at least %llu bytes\n"),
            static_cast<unsigned long long>(o.max_size), static_cast<unsigned long long>(least));
    return Result::refused;
}

// Everything between taking the lock and closing up; the first step that
// fails ends it.
Result collect(Run &run)
{
    const Options &o = run.options;
    const int sp_sw_down = injected_spswdown();
    bool declined = false;
    Result result = prepare_device(run, &declined);
    if (result != Result::ok || declined)
        return result;
    if ((result = obtain_password(run)) != Result::ok)
        return result;
    Config config;
    if (read_config(o.config_path, o.archive_base, o.log_only, &config) != Result::ok) {
        fprintf(stderr, _("Error reading config file: %s\n"), o.config_path.c_str());
        return Result::bad_config;
    }
    ZipWriter zip(run.sink, run.scrub, chosen_compression(o), o.manifest);
    Context context{run.console, run.progress, run.pacing, run.scrub, zip, run.scrub.text(o.archive_base)};
    const RunFacts facts{run.scrub.text(o.archive_name), run.scrub.text(o.config_path), o.log_only, o.dataset_letters, sp_sw_down != 0, 1};
    ReportRoom room;
    if (o.max_size != 0 && (result = plan_budget(run, context, facts, config, &room)) != Result::ok)
        return result;
    if ((result = open_output(run)) != Result::ok || (result = start_output(run, zip)) != Result::ok)
        return result;
    run.console.progress(_("Sending README File\n"));
    zip.stream().hold(room.config + room.skipped);
    if (write_readme(context, facts) != Result::ok)
        return say(Result::output_failure, _("Error while sending README file to zip archive\n"));
    run.console.progress(_("Sending CONFIG File\n"));
    zip.stream().hold(room.skipped);
    if (write_config(context, o.config_path) != Result::ok)
        return say(Result::output_failure, _("Error while sending CONFIG files to zip archive\n"));
    // The domain count is 1 in every run, deliberately.
    return walk_and_end(run, context, config, {o.datasets, sp_sw_down != 0, 1});
}

// A file that did not receive a complete walk never takes the archive's
// name; the checksum follows a complete archive, and failing to write it
// fails the run but leaves the archive.
Result finish_output(Run &run, Result result)
{
    const Options &o = run.options;
    // On the device before we say so: the operator pulls the stick at
    // "Data collection complete".
    if (run.output_opened && run.keep_archive && !run.output_file.commit(run.sink.sync())) {
        result = Result::output_failure;
        run.keep_archive = false;
    }
    run.sink.close_output();
    if (run.output_opened && !run.keep_archive)
        run.output_file.discard();
    if (result == Result::ok && !o.checksum_path.empty()) {
        run.checksum = run.sink.delivered_sha256();
        const std::string name = run.scrub.text(o.download ? o.archive_name : o.output_path);
        if (write_whole_file(o.checksum_path, run.checksum + "  " + name + "\n") != Result::ok)
            result = Result::output_failure;
    }
    if (run.output_opened && run.keep_archive)
        run.console.status(_("Data collection complete\n"));
    return result;
}

// The steps that need neither the lock nor the output: every option's own
// file or descriptor is checked here.
Result set_up(Run &run)
{
    const Options &o = run.options;
    if (o.download && isatty(STDOUT_FILENO))
        return say(Result::refused, _("Refusing to write the archive to a terminal\n"));
    if (o.progress_fd != -1)
        run.progress.open(o.progress_fd);
    if (o.deadline != 0) {
        run.pacing.set_deadline(o.deadline);
        run.sink.set_stall_limit(run.pacing.deadline_ms());
    }
    if (o.download)  // a file has no reader to keep
        run.pacing.set_keepalive(o.keepalive);
    if (o.gentle && run.pacing.start_gentle() != Result::ok)
        return Result::refused;
    if (!o.scrub_path.empty() && run.scrub.load(o.scrub_path) != Result::ok)
        return Result::refused;
    if (!o.recipient.empty() && run.certificate.load(o.recipient) != Result::ok)
        return Result::refused;
    if (const char *fault = o.checksum_path.empty() ? nullptr
                            : checksum_path_fault(o.checksum_path, o.output_path, o.download)) {
        fprintf(stderr, _("Refusing checksum file %s: %s\n"), o.checksum_path.c_str(), fault);
        return Result::refused;
    }
    if (!signals_install())
        return say(Result::output_failure, _("Unable to setup signal handlers\n"));
    if (!run.lock.acquire(run.console.program)) {
        fprintf(stderr, _("Only run one %s at a time\n"), run.console.program.c_str());
        return Result::busy;
    }
    return Result::ok;
}

// The progress channel's last line: the archive's size, or why it failed;
// after the size, in download mode, the checksum asked for.
void report_end(Run &run, Result result)
{
    if (result == Result::ok) {
        run.progress.event("OK %llu\n", static_cast<unsigned long long>(run.sink.delivered()));
        if (run.options.download && !run.checksum.empty())
            run.progress.event("SHA256 %s\n", run.checksum.c_str());
        return;
    }
    run.progress.event("FAIL %d %s\n", exit_status(result), failure_reason(result));
}

// --dry-run: the members the walk would make, named as in a run (scrubbed
// too); nothing runs, nothing is written.
Result dry_run(Run &run)
{
    const Options &o = run.options;
    if (!o.scrub_path.empty() && run.scrub.load(o.scrub_path) != Result::ok)
        return Result::refused;
    Config config;
    if (read_config(o.config_path, o.archive_base, o.log_only, &config) != Result::ok) {
        fprintf(stderr, _("Error reading config file: %s\n"), o.config_path.c_str());
        return Result::bad_config;
    }
    ZipWriter zip(run.sink, run.scrub, Compression{}, false);
    Context context{run.console, run.progress, run.pacing, run.scrub, zip, run.scrub.text(o.archive_base)};
    return list_entries(context, config, {o.datasets, injected_spswdown() != 0, 1});
}

int run_collection(Run &run)
{
    if (run.options.dry_run)
        return exit_status(dry_run(run));
    Result result = set_up(run);
    if (result == Result::ok) {
        result = collect(run);
        // An interrupt that broke a wait for the reader ends the run as any
        // interrupt does; the output takes nothing more.
        if (result == Result::output_failure && interrupted_by_user) {
            fputs(_("Data capture interrupted by user.  Attempting to remove archive.\n"), stderr);
            result = Result::interrupted;
        }
        result = finish_output(run, result);
        if (interrupted_by_user)
            run.console.progress(_("Interrupted by user\n"));
        else if (exit_status(result) != 0)
            run.console.progress(_("Exiting with error: %d\n"), exit_status(result));
        else
            run.console.progress(_("Finished with %d collection errors\n"), run.collection_errors);
        run.lock.release();
    }
    report_end(run, result);
    return exit_status(result);
}

}  // namespace

int quelvane_main(int argc, char **argv)
{
    try {
        const bool stdout_was_closed = fill_standard_descriptors();
        setlocale(LC_ALL, "");
        const std::string program = program_name_of(argv[0]);
        // Status lines must reach the console (or the caller's pipe) at once.
        const int flags = fcntl(STDOUT_FILENO, F_GETFL);
        if (flags != -1) {
            fcntl(STDOUT_FILENO, F_SETFL, flags | O_SYNC);
            (void)fcntl(STDOUT_FILENO, F_GETFL);
        }
        setbuffer(stdout, nullptr, 0);
        if (argc == 1) {
            print_usage(program);
            return 0;
        }
        Options options;
        const Parsed parsed = parse_options(argc, argv, program, &options);
        if (parsed.usage)
            print_usage(program);
        if (!parsed.run)
            return exit_status(parsed.result);
        Run run(options);
        run.console.program = program;
        run.stdout_was_closed = stdout_was_closed;
        return run_collection(run);
    } catch (const std::bad_alloc &) {
        return exit_status(Result::no_memory);
    }
}
