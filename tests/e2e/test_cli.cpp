// Command-line refusals: each message, the usage text after it, the exit
// status, and which rule wins when a command line breaks several.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "testsupport.h"

namespace {

std::string usage_of(const std::string &name)
{
    return "       " + name +
           " [-l] [-v] [-r] [[-q] -{y|n}] [-e [-P encryption-password]] \\\n"
           "                [-L <dataset letters>] -d usb-device\n"
           "       " +
           name + " -h\n";
}

const std::string USAGE = usage_of("quelvane");

struct Refusal {
    const char *what;
    std::vector<std::string> args;
    std::string message;  // printed before the usage text
    int status;
};

// Shown when a case fails, instead of the bytes of the structure.
void PrintTo(const Refusal &r, std::ostream *os)
{
    *os << r.what << ":";
    for (const std::string &a : r.args)
        *os << " '" << a << "'";
}

std::vector<std::string> with_required(std::vector<std::string> extra)
{
    std::vector<std::string> args = {"-f", "conf", "-a", "x.zip", "-o", "out.zip"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

const std::string P63(63, 'p');
const std::string P64(64, 'p');

const Refusal REFUSALS[] = {
    // Help and no arguments.
    {"no arguments", {}, "", 0},
    {"help alone", {"-h"}, "", 0},
    {"help bundled counts as one argument", {"-hv"}, "", 0},
    {"help bundled skips every later check", {"-hyn"}, "", 0},
    {"help with another argument", {"-h", "-v"}, "", 1},
    {"help with a full command line", with_required({"-h"}), "", 1},
    {"help twice", {"-h", "-h"}, "The -h flag has already been specified.\n", 1},

    // Letters getopt does not know.
    {"r is switched off", {"-r"}, "Option -r is an unknown option\n", 1},
    {"r among valid options", with_required({"-d", "sdb", "-r"}), "Option -r is an unknown option\n",
     1},
    {"unknown letter", with_required({"-Z"}), "Option -Z is an unknown option\n", 1},
    {"unknown letter before a duplicate", {"-Z", "-b", "-b"}, "Option -Z is an unknown option\n", 1},
    {"duplicate before an unknown letter", {"-b", "-b", "-Z"},
     "The -b flag has already been specified.\n", 1},

    // Missing arguments.
    {"-a without argument", {"-a"}, "Option -a requires an argument\n", 1},
    {"-d without argument", {"-d"}, "Option -d requires an argument\n", 1},
    {"-f without argument", {"-f"}, "Option -f requires an argument\n", 1},
    {"-I without argument", {"-I"}, "Option -I requires an argument\n", 1},
    {"-L without argument", {"-L"}, "Option -L requires an argument\n", 1},
    {"-o without argument", {"-o"}, "Option -o requires an argument\n", 1},
    {"-p without argument", {"-p"}, "Option -p requires an argument\n", 1},
    {"-P without argument", {"-P"}, "Option -P requires an argument\n", 1},
    {"-u without argument", {"-u"}, "Option -u requires an argument\n", 1},

    // Archive name.
    {"archive name with a slash", {"-a", "dir/x.zip"}, "archive-name may not contain '/': 'dir/x.zip'\n",
     1},
    {"archive name with a slash beats missing -f", {"-a", "/x"},
     "archive-name may not contain '/': '/x'\n", 1},

    // Options that may appear once: three end in usage alone.
    {"-a twice", {"-a", "x", "-a", "y"}, "", 1},
    {"-f twice", {"-f", "c", "-f", "c"}, "", 1},
    {"-o twice", {"-o", "a", "-o", "a"}, "", 1},
    {"-b twice", {"-b", "-b"}, "The -b flag has already been specified.\n", 1},
    {"-C twice", {"-C", "-C"}, "The -C flag has already been specified.\n", 1},
    {"-d twice", {"-d", "a", "-d", "b"}, "The -d flag has already been specified.\n", 1},
    {"-e twice", {"-ee"}, "The -e flag has already been specified.\n", 1},
    {"-I twice", {"-I", "3", "-I", "3"}, "The -I flag has already been specified.\n", 1},
    {"-l twice", {"-l", "-l"}, "The -l flag has already been specified.\n", 1},
    {"-L twice", {"-L", "a", "-L", "b"}, "The -L flag has already been specified.\n", 1},
    {"-n twice", {"-n", "-n"}, "The -n flag has already been specified.\n", 1},
    {"-P twice", {"-P", "a", "-P", "b"}, "The -P flag has already been specified.\n", 1},
    {"-q twice", {"-q", "-q"}, "The -q flag has already been specified.\n", 1},
    {"-y twice", {"-y", "-y"}, "The -y flag has already been specified.\n", 1},
    {"-v, -u and -p repeat freely",
     {"-v", "-v", "-u", "a", "-u", "b", "-p", "a", "-p", "b"}, "Missing required -f flag\n", 1},
    {"-p consumes the next word", {"-p", "-b", "-b"}, "Missing required -f flag\n", 1},
    {"-u consumes the next word", {"-u", "-y", "-y"}, "Missing required -f flag\n", 1},

    // Password descriptor: the value is checked before the descriptor.
    {"-I 0", with_required({"-e", "-I", "0"}), "FD 0 not allowed with -I.\n", 1},
    {"-I of a word is descriptor 0", {"-I", "three"}, "FD 0 not allowed with -I.\n", 1},
    {"-I of a closed descriptor", {"-I", "57"}, "Invalid file descriptor passed to -I.\n", 1},
    {"-I of a negative descriptor", {"-I", "-4"}, "Invalid file descriptor passed to -I.\n", 1},

    // Password on the command line: 63 characters pass the loop.
    {"63-character password accepted", with_required({"-P", P63}), "-P requires -e flag\n", 1},
    {"64-character password refused", with_required({"-e", "-P", P64}),
     "Maximum encryption password length is 63 characters.\n", 1},
    {"empty password", with_required({"-e", "-P", ""}),
     "The encryption password may not be empty.\n", 1},

    // Dataset letters: the parser prints nothing.
    {"bad dataset letter", with_required({"-L", "i1"}), "", 1},
    {"good dataset letters pass the loop", {"-L", "Ab"}, "Missing required -f flag\n", 1},

    // Checks after the loop, in their order.
    {"nothing required", {"-v"}, "Missing required -f flag\n", 1},
    {"-a without -f", {"-a", "x"}, "Missing required -f flag\n", 1},
    {"-f without -a", {"-f", "c"}, "Missing required -a flag\n", 1},
    {"-f without -a or -o", {"-f", "c", "-y", "-n"}, "Missing required -a flag\n", 1},
    {"-y with -n", with_required({"-y", "-n"}), "-y and -n cannot be used together\n", 1},
    {"-y with -n beats -P without -e", with_required({"-n", "-P", "p", "-y"}),
     "-y and -n cannot be used together\n", 1},
    {"-P without -e", with_required({"-P", "p"}), "-P requires -e flag\n", 1},
    {"-P without -e beats -I without -e", with_required({"-I", "3", "-P", "p"}),
     "-P requires -e flag\n", 1},
    {"-I without -e", with_required({"-I", "3"}), "-I requires -e flag\n", 1},
    {"-I with -P", with_required({"-e", "-I", "3", "-P", "p"}), "-I and -P cannot be used together\n",
     1},
    {"-I with -P beats no output", {"-f", "c", "-a", "x", "-e", "-I", "3", "-P", "p"},
     "-I and -P cannot be used together\n", 1},
    {"no output", {"-f", "c", "-a", "x", "-d", "sdb"}, "At least one output mode must be specified\n",
     1},
    {"no output beats browser checks", {"-f", "c", "-a", "x", "-b", "-e"},
     "At least one output mode must be specified\n", 1},
    {"device with download",
     {"-f", "c", "-a", "x", "-o", "-", "-d", "x"},
     "Internal error.  USB Device Mode and BUI Download Mode specified simultaneously.\n", 1},
    {"device with download beats the password check",
     {"-e", "-f", "c", "-a", "x", "-o", "-", "-d", "x"},
     "Internal error.  USB Device Mode and BUI Download Mode specified simultaneously.\n", 1},
    {"download with -e needs a password", {"-f", "c", "-a", "x", "-o", "-", "-e"},
     "Encryption password must be provided with -P or -I in this usage\n", 1},
    {"-b with -e needs a password", with_required({"-b", "-e"}),
     "Encryption password must be provided with -P or -I in this usage\n", 1},
    {"-b with -e and -u still needs a password", with_required({"-b", "-u", "x", "-e"}),
     "Encryption password must be provided with -P or -I in this usage\n", 1},
};

class Refusals : public ::testing::TestWithParam<Refusal> {};

TEST_P(Refusals, MessageThenUsage)
{
    const Refusal &r = GetParam();
    qt::TempDir dir;
    qt::RunSpec spec;
    spec.fds = {{3, "secret"}};  // an open descriptor for -I 3
    qt::RunResult result = qt::run_quelvane(dir, r.args, spec);
    EXPECT_EQ(result.err, r.message + USAGE);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, r.status);
    // A refused command line never reaches the lock.
    EXPECT_FALSE(qt::file_exists(dir.file("home/quelvane_tmp/quelvane.quelvane")));
}

std::string refusal_name(const ::testing::TestParamInfo<Refusal> &info)
{
    std::string name;
    for (const char *c = info.param.what; *c; c++)
        name += isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(CommandLine, Refusals, ::testing::ValuesIn(REFUSALS), refusal_name);

// The program name comes from argv[0], with ".bin" cut only from a name
// longer than the suffix itself.
TEST(ProgramName, TakenFromArgvZero)
{
    qt::TempDir dir;
    struct Case {
        std::string link;
        std::string shown;
    } cases[] = {
        {"tool.bin", "tool"},
        {"tool", "tool"},
        {"x.bin", "x"},
        {".bin", ".bin"},
        {"tool.bin.bin", "tool.bin"},
        {"tool.binx", "tool.binx"},
    };
    for (const Case &c : cases) {
        std::string path = dir.file(c.link);
        ASSERT_EQ(symlink(qt::quelvane_binary().c_str(), path.c_str()), 0) << path;
        qt::RunSpec spec;
        spec.program = path;
        qt::RunResult help = qt::run_quelvane(dir, {"-h"}, spec);
        EXPECT_EQ(help.err, usage_of(c.shown)) << c.link;
        EXPECT_EQ(help.status, 0) << c.link;
        qt::RunResult bad = qt::run_quelvane(dir, {"-q", "-q"}, spec);
        EXPECT_EQ(bad.err, "The -q flag has already been specified.\n" + usage_of(c.shown))
            << c.link;
        EXPECT_EQ(bad.status, 1) << c.link;
    }
}

}  // namespace
