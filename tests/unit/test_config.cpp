// The configuration's lines and names; gentle mode's pressure test; the scrubber
// against a plain whole-text rule, and its file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <tuple>

#include "context.h"
#include "testsupport.h"

namespace {

// kind datasets time-out y/n-flags [member name] path {argv}, then " %d" when it uses the domain.
std::string describe(const ConfigEntry &e)
{
    std::string s = std::to_string(e.type) + " " + std::to_string(e.datasets) + " " + std::to_string(e.timeout) +
                    " " + "ny"[e.collect_when_spswdown] + "ny"[e.literal_path] + " [" + e.member_name + "] " + e.path + " {";
    for (size_t i = 0; i < e.argv.size(); i++)
        s += (i ? "," : "") + e.argv[i];
    return s + "}" + (e.uses_domain ? " %d" : "");
}

const char *const R = "rejected";  // kinds: 0 cmd, 1 file, 2 log, 3 cut; 256 is dataset "i"
const struct { bool log_only; const char *prefix, *line, *expected; } LINES[] = {
    {0, "", "CMD i,0x10,y,n s/up /bin/up a", "0 256 16 yn [s/up] /bin/up {/bin/up,a}"},
    {0, "", "FiLe ab,010,,n,y etc/hosts /etc/%d", "1 3 8 ny [etc/hosts] /etc/%d {}"},  // ",," collapses
    {0, "", "cmd i,-,Y,n n /t", R}, {0, "", "cmds i,-,y,n n /t", R}, {0, "", "cmd i1,-,y,n n /t", R},
    {0, "", "cmd i,0,y,n n /t", R}, {0, "", "cmd i,2147483648,y,n n /t", R}, {0, "", "cmd i,-,y,n n", R},
    {0, "", "cmd i,-,y,n,y n /t", R}, {0, "", "cmd i,-,y n /t", R}, {0, "", "file i,-,y,n n etc/hosts", R},
    {0, "", "file i,-,y,n n /a /b", R}, {0, "", " \t \n", ""}, {0, "", "# cmd i,-,y,n n /t", ""},
    {1, "", "cmd garbage", ""}, {1, "", "log garbage", R}, {1, "", "bogus i,-,y,n n /t", R},
    {0, "", "cmd\ti,-,y,n\t n  /bin/x%d \t a#b c\n", "0 256 15 yn [n] /bin/x%d {/bin/x%d,a}"},
    {0, "", "cut i,-5,y,n n /bin/echo a b%d", "3 256 -5 yn [n] /bin/echo {/bin/echo,a,b%d} %d"},
    {0, "", "log i,-,y,n .//./a/.../b// /l", "2 256 15 yn [a/.../b] /l {}"},
    {0, "", "log i,-,y,n ../up/a/../../x /l", R}, {0, "", "log i,-,y,n ../up/.. /l", R},
    {0, "", "log i,-,y,n ../up /l", "2 256 15 yn [up] /l {}"}, {0, "", "log i,-,y,n ./../ /l", "2 256 15 yn [] /l {}"},
    {0, "pre", "log i,-,y,n ./ /l", "2 256 15 yn [pre] /l {}"}, {0, "pre", "log i,-,y,n ./x/ /l", "2 256 15 yn [pre/x] /l {}"},
    {1, "", "cut i,-,y,n n /t", "3 256 15 yn [n] /t {/t}"},
};

TEST(Config, LinesAreAcceptedOrRejected)
{
    for (const auto &c : LINES) {
        Config config;
        const int result = parse_config_line(c.line, c.prefix, c.log_only, &config);
        EXPECT_EQ((result ? R : "") + (config.entries.empty() ? "" : describe(config.entries[0])), c.expected) << c.line;
    }
}

TEST(Config, CommandLinesAndMemberNames)
{
    const struct { const char *member; std::vector<std::string> argv; int index; const char *suffix, *command, *name; } cases[] = {
        {"system/ifconfig", {"/sbin/ifconfig", "eth%d"}, 1, ".out", "/sbin/ifconfig eth1", "system/ifconfig/@sbin@ifconfig_eth1.out"},
        {"d", {"/bin/echo", "%d%d", "%%d"}, 12, nullptr, "/bin/echo 1212 %12", "d/@bin@echo_1212_%12"},
        {"my d", {"/x%d/r", "a\tb"}, -4, ".err", "/x-4/r a\tb", "my_d/@x-4@r_a_b.err"},
    };
    for (const auto &c : cases) {
        ConfigEntry e;
        e.argv = c.argv;
        const std::string command = command_line(e, c.index);
        EXPECT_EQ(command, c.command);
        EXPECT_EQ(member_name(c.member, command, c.suffix, true), c.name);
    }
    // Blanks stay in a collected file's name.
    EXPECT_EQ(member_name("etc", "/etc/my\thosts", ".err", false), "etc/@etc@my\thosts.err");
}

// --gentle waits while a pressure file's "some avg10" reaches the threshold, and never for
// text it cannot read.
TEST(Pacing, PressureIsSomeAverageOverTenSeconds)
{
    const struct { const char *text; bool high; } CASES[] = {
        {"some avg10=55.00 avg60=1.00 avg300=0.00 total=1\nfull avg10=0.00 avg60=0.00 avg300=0.00 total=0\n", true},
        {"some avg10=40.00 avg60=90.00 avg300=90.00 total=1\n", true},
        {"some avg10=39.99 avg60=90.00 avg300=90.00 total=1\n", false},
        {"full avg10=99.00 avg60=0.00 avg300=0.00 total=1\n", false},
        {"some avg10= avg60=1.00\n", false}, {"", false}, {nullptr, false}};
    for (const auto &c : CASES)
        EXPECT_EQ(pressure_high(c.text, 40.0), c.high) << (c.text ? c.text : "null");
}

// The scrubber's result by the plain rule, on the whole text at once: every
// occurrence of a value (or of its decoded form) in the raw text or in its
// %XX-decoded view covers its raw bytes; covered runs that overlap or touch
// become one replacement, named for the leftmost match (then the first
// secret). Values of 4-5 bytes have no base64 form to look for.
std::string reference_scrub(const std::vector<std::pair<std::string, std::string>> &secrets, const std::string &text)
{
    auto decode = [](const std::string &raw, std::vector<size_t> *start, std::vector<size_t> *end) {
        std::string decoded;
        for (size_t i = 0; i < raw.size(); ++i) {
            const bool escape = raw[i] == '%' && i + 2 < raw.size() && isxdigit(raw[i + 1]) && isxdigit(raw[i + 2]);
            decoded += escape ? static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16)) : raw[i];
            start->push_back(i);
            end->push_back(i += escape ? 2 : 0);
        }
        return decoded;
    };
    std::vector<size_t> raw_start, raw_end, start, end;
    for (size_t i = 0; i < text.size(); ++i)
        raw_start.push_back(i), raw_end.push_back(i);
    const std::string decoded = decode(text, &start, &end);
    struct Cover { size_t from, to, secret; };
    std::vector<Cover> covers;
    for (size_t s = 0; s < secrets.size(); ++s) {
        std::vector<size_t> unused[2];
        for (const std::string &form : {secrets[s].second, decode(secrets[s].second, &unused[0], &unused[1])})
            for (const auto &view : {std::tie(text, raw_start, raw_end), std::tie(decoded, start, end)})
                for (size_t at = 0; (at = std::get<0>(view).find(form, at)) != std::string::npos; ++at)
                    covers.push_back({std::get<1>(view)[at], std::get<2>(view)[at + form.size() - 1] + 1, s});
    }
    std::sort(covers.begin(), covers.end(), [](const Cover &a, const Cover &b) {
        return a.from != b.from ? a.from < b.from : a.secret < b.secret;
    });
    std::string out;
    size_t at = 0;
    for (size_t i = 0; i < covers.size();) {
        Cover run = covers[i];
        while (++i < covers.size() && covers[i].from <= run.to)
            run.to = std::max(run.to, covers[i].to);
        out += text.substr(at, run.from - at) + "[REDACTED:" + secrets[run.secret].first + "]";
        at = run.to;
    }
    return out + text.substr(at);
}

// The streaming scrubber agrees with the plain rule on random secrets and
// texts (small alphabets, so that secrets overlap, touch and come
// percent-encoded), however the text is split.
TEST(Scrub, StreamAgreesWithTheWholeTextRule)
{
    qt::TempDir dir;
    std::mt19937 random(12345);
    auto pick = [&](const std::string &alphabet, size_t length) {
        std::string text;
        while (text.size() < length)
            text += alphabet[random() % alphabet.size()];
        return text;
    };
    for (int set = 0; set < 400; ++set) {
        std::vector<std::pair<std::string, std::string>> secrets;
        std::string file;
        for (size_t n = 1 + random() % 3; secrets.size() < n;) {
            secrets.push_back({"s" + std::to_string(secrets.size()), pick("ab%61", 4 + random() % 2)});
            file += secrets.back().first + "=" + secrets.back().second + "\n";
        }
        ASSERT_TRUE(qt::write_file(dir.file("secrets"), file, 0600));
        Scrubber scrub;
        ASSERT_EQ(scrub.load(dir.file("secrets")), Result::ok);
        Scrubber::Stream stream(scrub);
        for (int round = 0; round < 10; ++round) {
            std::string text = pick("ab%61A", random() % 40);
            text.insert(random() % (text.size() + 1), secrets[random() % secrets.size()].second);
            const std::string expected = reference_scrub(secrets, text);
            ASSERT_EQ(scrub.text(text), expected) << file << text;
            size_t cut[2] = {random() % (text.size() + 1), random() % (text.size() + 1)};
            std::sort(cut, cut + 2);
            std::vector<unsigned char> out;
            const auto *bytes = reinterpret_cast<const unsigned char *>(text.data());
            stream.feed(bytes, cut[0], false, &out);
            stream.feed(bytes + cut[0], cut[1] - cut[0], false, &out);
            stream.feed(bytes + cut[1], text.size() - cut[1], true, &out);
            ASSERT_EQ(std::string(out.begin(), out.end()), expected) << file << text << " cut " << cut[0] << " " << cut[1];
        }
    }
}

// A scrub file is refused, with the line at fault, unless it is a regular
// file of root's or ours that only its owner reads, of name=value lines.
TEST(Scrub, FileRules)
{
    qt::TempDir dir;
    const std::string path = dir.file("secrets"), at = "Scrub file " + path + ", line 2: ";
    std::string many;  // 10,000 secrets at most
    for (int i = 0; i <= 10000; ++i)
        many += "n" + std::to_string(i) + "=secret" + std::to_string(i) + "\n";
    // kind 1: another user's, 2: a link, 3: a FIFO nobody writes (never waited on).
    const struct { std::string text; unsigned mode; int kind; std::string said; } CASES[] = {
        {"a=four\nb=five \n", 0600, 0, at + "the value begins or ends with a blank\n"},
        {"a=four\nb= five\n", 0600, 0, at + "the value begins or ends with a blank\n"},
        {"a=four\nb=\r\n", 0600, 0, at + "the value is empty\n"},
        {"a=four\na=five\n", 0600, 0, at + "the name is used twice\n"},
        {"a=four\nb=abc\n", 0600, 0, at + "the value must be 4 to 4096 bytes\n"},
        {"a=four\nb=" + std::string(4097, 'x') + "\n", 0600, 0, at + "the value must be 4 to 4096 bytes\n"},
        {"a=four\nno equals\n", 0600, 0, at + "expected name=value, the name of letters, digits, '_', '.' or '-'\n"},
        {"# nothing\n", 0600, 0, "Scrub file " + path + " holds no secrets\n"},
        {many, 0600, 0, "Scrub file " + path + ", line 10001: more than 10000 secrets\n"},
        {"a=four\n", 0640, 0, "Refusing scrub file " + path + ": it must be a regular file readable only by its owner\n"},
        {"a=four\n", 0600, 1, "Refusing scrub file " + path + ": it belongs to neither root nor the caller\n"},
        {"", 0600, 2, "Refusing scrub file " + path + ": it is a symbolic link\n"},
        {"", 0600, 3, "Refusing scrub file " + path + ": it must be a regular file readable only by its owner\n"},
    };
    for (const auto &c : CASES) {
        SCOPED_TRACE(c.said);
        unlink(path.c_str());
        ASSERT_TRUE(c.kind == 2   ? symlink(dir.file("elsewhere").c_str(), path.c_str()) == 0
                    : c.kind == 3 ? mkfifo(path.c_str(), 0600) == 0
                                  : qt::write_file(path, c.text, c.mode) && (c.kind == 0 || chown(path.c_str(), 12345, 12345) == 0));
        Scrubber scrub;
        Result result = Result::ok;
        EXPECT_EQ(qt::capture_stderr([&] { result = scrub.load(path); }), c.said);
        EXPECT_EQ(result, Result::refused);
    }
}

}  // namespace
