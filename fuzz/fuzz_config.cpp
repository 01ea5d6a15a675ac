// libFuzzer harness: the configuration reader on arbitrary file contents, then the
// command lines and member names built from every entry it accepts.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "config.h"

namespace {

char scratch_path[] = "/tmp/quelvane-fuzz-config-XXXXXX";
int scratch_fd = -1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (scratch_fd == -1) {
        if ((scratch_fd = mkstemp(scratch_path)) == -1)
            abort();
        atexit([] { unlink(scratch_path); });
    }
    if (ftruncate(scratch_fd, 0) != 0 || pwrite(scratch_fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    // The first byte picks log-only mode, so both ways of reading are covered.
    Config config;
    if (read_config(scratch_path, "prefix", size > 0 && (data[0] & 1), &config) != Result::ok)
        abort();  // a readable file of ours is never refused
    for (const ConfigEntry &entry : config.entries) {
        // A ".." component must never reach a member name.
        if (("/" + entry.member_name + "/").find("/../") != std::string::npos)
            abort();
        for (int index : {0, 12})
            member_name(entry.member_name, command_line(entry, index), ".out", true);
        member_name(entry.member_name, entry.path, ".err", false);
    }
    return 0;
}
