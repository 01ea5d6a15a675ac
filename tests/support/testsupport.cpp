#include "testsupport.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace qt {

TempDir::TempDir()
{
    char pattern[] = "/tmp/quelvane-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        abort();
    path_ = pattern;
}

TempDir::~TempDir()
{
    // Tests may leave read-only files or directories behind.
    if (system(("chmod -R u+rwx '" + path_ + "' 2>/dev/null; rm -rf '" + path_ + "'").c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

bool write_file(const std::string &path, const std::string &content, unsigned mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return out.good() && chmod(path.c_str(), mode) == 0;
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

std::string output_of(const std::vector<std::string> &argv, int *status)
{
    std::string command;
    for (const std::string &arg : argv) {  // each word single-quoted for the shell
        command += " '";
        for (char c : arg)
            command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += "'";
    }
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    const int ended = pipe != nullptr ? pclose(pipe) : -1;
    if (status != nullptr)
        *status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    return out;
}

std::string capture_stderr(const std::function<void()> &call)
{
    testing::internal::CaptureStderr();
    call();
    return testing::internal::GetCapturedStderr();
}

// The end-to-end tests' reader (tests/e2e/support.py): its problems, then each name.
Archive read_archive(const std::string &path, const std::set<std::string> &flagged)
{
    std::vector<std::string> argv = {"/usr/bin/python3", "-B", "-c",
                                     "import sys; sys.path.insert(0, sys.argv[1]); from support import read_archive\n"
                                     "z = read_archive(sys.argv[2], sys.argv[3:]); print(z.problems + '\\0' + '\\n'.join(z.names))",
                                     QUELVANE_SOURCE_DIR "/tests/e2e", path};
    argv.insert(argv.end(), flagged.begin(), flagged.end());
    int status = 0;
    const std::string said = output_of(argv, &status);
    Archive archive;
    archive.problems = said.substr(0, said.find('\0'));
    std::istringstream names(said.substr(said.find('\0') + 1));
    for (std::string name; std::getline(names, name);)
        archive.names.push_back(name);
    if (status != 0)
        archive.problems += "the readers failed (" + std::to_string(status) + ")";
    return archive;
}

}  // namespace qt
