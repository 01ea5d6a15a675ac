// libFuzzer harness: the option parser on arbitrary argument vectors (the input split at
// NUL bytes). It must always return: -1 (run), -2 (answered) or an exit status of 0, 1 or 8.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "main.h"
#include "quelvane_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static char name[] = "quelvane";
    program_name = name;
    answer_yes = answer_no = bui_header = bui_download_mode = log_only_mode = 0;
    verbose = quiet = encrypt_output = no_compression = 0;

    std::vector<std::vector<char>> words(1, std::vector<char>(name, name + sizeof name));
    std::vector<char> word;
    for (size_t i = 0; i <= size && words.size() < 64; ++i) {
        if (i == size || data[i] == '\0') {
            word.push_back('\0');
            words.push_back(word);
            word.clear();
        } else {
            word.push_back(static_cast<char>(data[i]));
        }
    }
    std::vector<char *> argv;
    for (std::vector<char> &w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    RunOptions options;
    int stopped = quelvane_parse_options(static_cast<int>(words.size()), argv.data(), &options);
    if (stopped != -1 && stopped != -2 && stopped != 0 && stopped != 1 && stopped != 8)
        abort();
    if (stopped == -1 && (options.archive_base == ".." || options.password.size() > 63 ||
                          options.archive_name.find('/') != std::string::npos))
        abort();  // a run never goes ahead with a name or password that was refused
    return 0;
}
