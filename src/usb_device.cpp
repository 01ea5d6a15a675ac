#include "usb_device.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "descriptor.h"

namespace {

const char TEST_TEXT[] = "My test String";
constexpr size_t TEST_LENGTH = sizeof TEST_TEXT - 1;

void print_mount_point_error(const std::string &output_path)
{
    fprintf(stderr, _("Unable to determine USB device mount point from '%s'\n"), output_path.c_str());
}

// Ends the "Removing files" line; the reason follows on standard error.
Result device_failure(const Console &console)
{
    console.status(_("FAILURE\n"));
    return Result::refused;
}

// Removes the test file whichever way the test ends.
struct Unlink {
    const std::string &path;
    ~Unlink() { unlink(path.c_str()); }
};

}  // namespace

Result usb_write_test(const std::string &output_path)
{
    const size_t slash = output_path.rfind('/');
    if (slash == std::string::npos) {
        print_mount_point_error(output_path);
        return Result::refused;
    }
    const std::string test_file =
        output_path.substr(0, slash) + "/quelvane_testwrite." + std::to_string(static_cast<int>(getpid()));
    Unlink remove_test_file{test_file};
    {
        // O_SYNC: the bytes must reach the device, not only the page cache.
        Descriptor out(open(test_file.c_str(), O_WRONLY | O_CREAT | O_SYNC, 0666));
        if (out.get() == -1 || write(out.get(), TEST_TEXT, TEST_LENGTH) != static_cast<ssize_t>(TEST_LENGTH)) {
            const int error = errno;
            fprintf(stderr, _("\nUnable to create testfile '%s' on USB device. fd=%d\n\t%s\n"), test_file.c_str(),
                    out.get(), strerror(error));
            return Result::refused;
        }
    }
    Descriptor in(open(test_file.c_str(), O_RDONLY));
    char back[TEST_LENGTH + 1] = {};
    if (in.get() == -1 || read(in.get(), back, TEST_LENGTH) != static_cast<ssize_t>(TEST_LENGTH))
        return Result::refused;
    return memcmp(back, TEST_TEXT, TEST_LENGTH) == 0 ? Result::ok : Result::refused;
}

Result usb_prepare_device(const Console &console, const std::string &output_path, const std::string &usb_device,
                          bool yes, bool no, bool *declined)
{
    *declined = false;
    const size_t last = output_path.rfind('/');
    const std::string output_directory = output_path.substr(0, last == std::string::npos ? 0 : last);
    const size_t second = output_directory.rfind('/');
    if (last == std::string::npos || second == std::string::npos) {
        print_mount_point_error(output_path);
        return Result::refused;
    }
    const std::string mount_point = output_directory.substr(0, second);
    if (mount_point.empty()) {
        fputs(_("USB device mount point cannot be '/'\n"), stderr);
        return Result::refused;
    }
    if (!console.quiet)
        printf(_("About to remove all files from device '%s'.  "), usb_device.c_str());
    const int answer = console.ask_yes_no(_("Continue? [y|n] :"), yes, no);
    if (answer != 1) {
        if (answer == -1 || answer == -2)
            fputc('\n', stderr);
        console.status(_("File removal canceled\n"));
        *declined = true;
        return Result::ok;
    }
    console.status(_("Removing files from USB device..."));
    char saved[4096];
    if (getcwd(saved, sizeof saved) == nullptr) {
        device_failure(console);
        fputs(_("Unable to determine current directory\n"), stderr);
        return Result::refused;
    }
    if (chdir(mount_point.c_str()) == -1) {
        device_failure(console);
        fprintf(stderr, _("Unable to chdir to USB device mount point: '%s'\n"), mount_point.c_str());
        return Result::refused;
    }
    char now[4096];
    const bool have_now = getcwd(now, sizeof now) != nullptr;
    // A mount point that resolves to the root (a symbolic link, "..") is
    // never emptied.
    const bool is_root = have_now && strcmp(now, "/") == 0;
    const int removed = have_now && !is_root ? system("/bin/rm -rf *") : 0;
    if (chdir(saved) == -1) {
        // The directory was ours a moment ago; the checks below still apply.
    }
    if (!have_now || is_root || removed != 0) {
        device_failure(console);
        if (!have_now)
            fputs(_("Unable to get new working directory\n"), stderr);
        else if (is_root)
            fputs(_("USB device mount point cannot be '/'\n"), stderr);
        else
            fprintf(stderr, _("Error removing files from USB device (%d)\n"), removed);
        return Result::refused;
    }
    // Made from the caller's directory, so a relative output path names the
    // directory it named on the command line.
    if (mkdir(output_directory.c_str(), 0777) == -1) {
        const int error = errno;
        device_failure(console);
        fprintf(stderr, _("Error %d while making directory '%s' on USB device\n"), error, output_directory.c_str());
        return Result::refused;
    }
    console.status(_("SUCCESS\n"));
    return Result::ok;
}
