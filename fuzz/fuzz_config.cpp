// libFuzzer harness: the configuration reader on arbitrary file contents, then the
// member names and command lines built from every entry it accepts.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "quelvane_config_file.h"
#include "quelvane_util.h"

namespace {

char path[] = "/tmp/quelvane-fuzz-config-XXXXXX";
int fd = -1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (fd == -1) {
        if ((fd = mkstemp(path)) == -1)
            abort();
        atexit([] { unlink(path); });
    }
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    // The first byte picks log-only mode, so both ways of reading are covered.
    log_only_mode = size > 0 && (data[0] & 1);
    ConfigList list;
    int uses_domain = 0;
    if (quelvane_config_read_file(&list, path, "prefix", &uses_domain) != 0)
        abort();  // a readable file of ours is never refused
    for (ConfigEntry *entry = list.head; entry != nullptr; entry = entry->next) {
        // A ".." component must never reach a member name.
        if (("/" + entry->member_name + "/").find("/../") != std::string::npos)
            abort();
        for (int index : {0, 12}) {
            ZipMember member;
            quelvane_config_command_string(entry, index);
            quelvane_zip_stdout_member(entry, &member, index);
            quelvane_zip_stderr_member(entry, &member, index);
        }
        quelvane_config_path_name(entry, ".err");
    }
    return 0;
}
