// libFuzzer harness: the option parser on arbitrary argument vectors (the input split at
// NUL bytes). A run never goes ahead with a name or password that was refused.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> words = {"quelvane", ""};
    for (size_t i = 0; i < size && words.size() < 64; ++i) {
        if (data[i] == '\0')
            words.emplace_back();
        else
            words.back() += static_cast<char>(data[i]);
    }
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    Options options;
    const Parsed parsed = parse_options(static_cast<int>(words.size()), argv.data(), "quelvane", &options);
    if (parsed.run && (options.archive_base == ".." || options.password.size() > 63 ||
                       options.archive_name.find('/') != std::string::npos || parsed.result != Result::ok))
        abort();
    return 0;
}
