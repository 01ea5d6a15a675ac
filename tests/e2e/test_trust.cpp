// What leaves the controller can be trusted: secrets scrubbed in every form they take, the
// manifest and the progress channel true to the archive, refusals that touch nothing.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <signal.h>
#include <unistd.h>

#include <map>
#include <set>

#include "testsupport.h"

// Secrets are scrubbed where text is born: in data, in standard error before its cap
// (a secret the cap cuts leaves no first bytes), in command lines before they become
// member names, progress names and manifest values (a '/', '\' or '"' in a secret
// changes nothing), and in the archive's name in the download header.
TEST(Trust, ScrubbedSecretsAppearInNoExtractedByte)
{
    qt::TempDir dir;
    const std::string secret = "p@ss w/rd:Secret!42", token = "tok-7f3a9c2e1b", odd = "ab/c\\d\"e99";
    ASSERT_TRUE(qt::write_file(dir.file("secrets"), "# the controller's own\r\nadmin=" + secret + "\r\napi=" + token +
                                                        "\nodd=" + odd + "\n", 0600));
    auto base64 = [](const std::string &data) {
        std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
        out.resize(size_t(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                          reinterpret_cast<const unsigned char *>(data.data()), int(data.size()))));
        return out;
    };
    // At the start and end of a member, across the 32 KB file read and 1 KB pipe reads,
    // percent-encoded (all of it, or a mix), and in base64 after 0, 1 and 2 bytes of
    // something else.
    std::string planted = secret + "\n" + std::string(32768 - 7 - secret.size() - 1, 'a') + secret + "\n", percent;
    for (unsigned char c : secret) {
        char hex[4];
        snprintf(hex, sizeof hex, "%%%02X", c);
        percent += isalnum(c) || c == '-' || c == '.' || c == '_' ? std::string(1, static_cast<char>(c)) : hex;
    }
    planted += "url=" + percent + "&x\nmix=p%40ss%20w/rd%3aSecret!42\n";
    std::vector<std::string> forms = {secret, token, percent, odd, "p%40ss", token.substr(0, 4), "pw-9"};
    for (size_t align = 0; align < 3; ++align) {
        const std::string encoded = base64(std::string(align, 'x') + secret + "tail");
        planted += "b64=" + encoded + "\n";
        // What the secret alone decides in base64.
        forms.push_back(encoded.substr((8 * align + 5) / 6, (8 * (align + secret.size())) / 6 - (8 * align + 5) / 6));
    }
    ASSERT_TRUE(qt::write_file(dir.file("data"), planted + "key " + token));
    const std::string noisy = qt::script(dir, "noisy", "cat " + dir.file("data") + " >&2\necho " + token + "\n");
    // The token's first bytes inside the cap, the rest past it.
    const std::string capped = qt::script(dir, "capped", "head -c 262140 /dev/zero | tr '\\0' e >&2\necho " + token + " >&2\n");
    const std::string config = "file i,-,y,y f " + dir.file("data") + "\ncmd i,-,y,n c /bin/cat " + dir.file("data") +
                               "\ncmd i,-,y,n n " + noisy + "\ncmd i,-,y,n gone /bin/missing-" + token +
                               "\ncmd i,-,y,n arg /bin/echo " + odd + "\ncmd i,-,y,n cap " + capped +
                               "\nlog i,-,y,n utf " + dir.file("a*") + "\ncmd i,-,y,n fails /bin/ls /nonexistent\n";
    // Names that differ only in bytes that are not UTF-8, as the output's name in file mode.
    ASSERT_TRUE(qt::write_file(dir.file("a\xfe"), "one\n") && qt::write_file(dir.file("a\xff"), "two\n") &&
                qt::write_file(dir.file("a\xc3\xa9"), "utf-8\n"));
    for (const std::string out : {"o\xff.zip", "-"}) {
        SCOPED_TRACE(out);
        qt::Collect asked{config, {"-L", "i", "--scrub=secrets", "--manifest", "-v", "-e", "-P", "pw-9"}, out, "pw-9"};
        if (out == "-")  // the archive's name holds a secret: so do its header, README and member names
            asked.args.push_back("-b"), asked.archive = token + ".zip";
        const std::string top = out == "-" ? "[REDACTED:api]/" : "t/";
        asked.progress = true;
        const qt::Collection c = qt::collect(dir, asked);  // no reader flags a scrubbed member's size or CRC
        size_t redactions = 0;
        std::string everything = c.header + c.run.out + c.run.err;
        for (const std::string &line : c.progress)
            everything += line + "\n";
        for (const qt::Member &m : c.zip.members) {
            everything += m.name + m.data;
            for (size_t at = 0; (at = m.data.find("[REDACTED:admin]", at)) != std::string::npos; ++at)
                ++redactions;
        }
        for (const std::string &form : forms)  // nor the password
            EXPECT_EQ(everything.find(form), std::string::npos) << "holds " << form;
        EXPECT_EQ(redactions, 3u * (2 + 2 + 3));  // the file, its copy on stdout and on stderr
        EXPECT_EQ(c.zip.data(top + "f/" + qt::flat(dir.file("data"))).substr(0, 17), "[REDACTED:admin]\n");
        EXPECT_NE(c.zip.find(top + "arg/@bin@echo_[REDACTED:odd].out"), nullptr);
        EXPECT_EQ(c.header.find("filename=\"[REDACTED:api].zip\"") != std::string::npos ||
                      c.header.find("filename=[REDACTED:api].zip") != std::string::npos, out == "-");
        EXPECT_EQ(c.zip.data(top + "cap/" + qt::flat(capped) + ".err"), std::string(262140, 'e') + "[RED");
        // MANIFEST.json is valid JSON whatever bytes a name holds: each byte that is not UTF-8
        // shows as U+FFFD, and the exact bytes follow in base64, so no two names merge.
        const nlohmann::json manifest = nlohmann::json::parse(c.zip.data(top + "MANIFEST.json"));
        std::set<std::string> exact;
        for (const auto &member : manifest["members"])
            exact.insert(member.value("name_base64", ""));
        EXPECT_EQ(exact.size(), 3u);  // two, and "" for all UTF-8 names
        EXPECT_TRUE(out == "-" || (manifest["options"]["output"] == "o\xef\xbf\xbd.zip" && manifest["options"]["output_base64"] == "b/8uemlw"));
        // It describes every member before it, in order, by what the member holds.
        EXPECT_EQ(manifest["version"].get<std::string>() + manifest["options"]["encrypted"].get<std::string>(), QUELVANE_VERSION "yes");
        ASSERT_EQ(manifest["members"].size() + 1, c.zip.members.size());
        std::map<std::string, nlohmann::json> described;
        for (size_t i = 0; i + 1 < c.zip.members.size(); ++i) {
            const nlohmann::json &member = manifest["members"][i];
            const qt::Member &m = c.zip.members[i];
            char crc[16];
            snprintf(crc, sizeof crc, "%08x", m.crc);
            EXPECT_TRUE(member.contains("name_base64") || member["name"] == m.name) << m.name;
            EXPECT_EQ(member["sha256"].get<std::string>() + member["crc32"].get<std::string>(), qt::sha256(m.data) + crc) << m.name;
            EXPECT_EQ(member["bytes_in"].dump() + " " + member["bytes_out"].dump(), std::to_string(m.data.size()) + " " +
                      std::to_string(m.compressed)) << m.name;
            described[m.name.substr(top.size())] = member;
        }
        EXPECT_EQ(described["fails/@bin@ls_@nonexistent.err"]["result"].dump(), R"({"cut":false,"exit_status":2,"status":"exit"})");
        EXPECT_EQ(described["gone/@bin@missing-[REDACTED:api].err"]["result"]["status"], "missing");
        EXPECT_EQ(described["f/" + qt::flat(dir.file("data"))]["made_by"]["path"], dir.file("data"));
        EXPECT_EQ(described["arg/@bin@echo_[REDACTED:odd].out"]["made_by"]["command"], "/bin/echo [REDACTED:odd]");
        // The progress channel: BEGIN, START and END for each of the 8 entries, then the size sent.
        EXPECT_EQ(c.progress.front() + " " + c.progress.back(), "BEGIN 8 v1 OK " + std::to_string(c.sent.size()));
        EXPECT_EQ(c.progress.size(), 2 + 2 * 8u);
    }
}

// Every refusal comes before the output is touched, so an earlier archive stays; a
// link planted at the archive's or the checksum's name is replaced, never followed;
// a checksum that cannot be written fails the run and keeps the archive.
TEST(Trust, RefusalsAndLinksLeaveEveryFileAlone)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::make_certificate(dir) && qt::write_file(dir.file("junk.pem"), "junk\n"));
    ASSERT_EQ(qt::run_program("/usr/bin/openssl", {"req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=x",
                                                   "-keyout", dir.file("ed.key"), "-out", dir.file("ed.pem")}).status, 0);
    // A certificate of 2020, valid for a day (made on a clock frozen then).
    ASSERT_EQ(qt::run_program("/bin/sh", {"-c", "cd " + dir.path() + " && TZ=UTC faketime -f '2020-01-01 00:00:00' openssl req -x509 "
                                          "-newkey rsa:2048 -nodes -subj /CN=old -days 1 -keyout old.key -out old.pem"}).status, 0);
    ASSERT_EQ(mkdir(dir.file("adir").c_str(), 0755), 0);
    const struct { std::vector<std::string> args; std::string out; int status; std::string err; int signo; } CASES[] = {
        {{"--recipient=junk.pem"}, "out.zip", 1, "Unable to read a PEM certificate from junk.pem\n", 0},
        {{"--recipient=ed.pem"}, "out.zip", 1, "Refusing certificate ed.pem: its key cannot receive an encrypted archive (RSA or EC only)\n", 0},
        {{"--recipient=old.pem"}, "out.zip", 1, "Refusing certificate old.pem: valid from Jan  1 00:00:00 2020 GMT until Jan  2 00:00:00 2020 GMT, not now\n", 0},
        {{"--checksum=./out.zip"}, "out.zip", 1, "Refusing checksum file ./out.zip: it is the archive's own file\n", 0},
        {{"--checksum=/dev/stdout"}, "-", 1, "Refusing checksum file /dev/stdout: it is standard output\n", 0},
        {{"--checksum=adir"}, "out.zip", 1, "Refusing checksum file adir: it is a directory\n", 0},
        {{}, "out.zip", 5, "Data capture interrupted by user.  Attempting to remove archive.\n", SIGTERM},
        {{"--checksum=sums/t.sha256"}, "out.zip", 2, "Unable to write the checksum to sums/t.sha256: No such file or directory\n", SIGCONT},
        {{"--checksum=link.sum"}, "link.zip", 0, "", 0},
        {{}, "special.zip", 1, "Unable to open output file: special.zip\n", 0},
        {{"--checksum=special.sum"}, "out.zip", 1, "Refusing checksum file special.sum: it is not a regular file\n", 0},
    };
    for (const auto &c : CASES) {
        SCOPED_TRACE(c.err);
        ASSERT_TRUE(qt::write_file(dir.file("out.zip"), "earlier\n") && qt::write_file(dir.file("victim"), "kept\n"));
        // Links to a file are replaced; links to a device (as in /dev) stay.
        for (const char *link : {"link.zip", "link.sum", "special.zip", "special.sum"}) {
            unlink(dir.file(link).c_str());
            ASSERT_EQ(symlink(link[0] == 's' ? "/dev/null" : dir.file("victim").c_str(), dir.file(link).c_str()), 0);
        }
        mkdir(dir.file("sums").c_str(), 0755);
        qt::Collect asked{"cmd i,-,y,n a /bin/echo a\ncmd i,5,y,n s /bin/sleep 1\n", c.args, c.out};
        asked.args.insert(asked.args.end(), {"-L", "i"});
        asked.job.during = [&](pid_t pid) {
            usleep(400000);  // into the sleep
            if (c.signo == SIGCONT)  // the checksum's directory goes away
                EXPECT_EQ(system(("rm -r " + dir.file("sums")).c_str()), 0);
            else if (c.signo != 0)
                kill(pid, c.signo);
        };
        asked.status = c.status;
        const qt::Collection got = qt::collect(dir, asked);
        EXPECT_EQ(got.run.err.substr(0, c.err.size()), c.err);
        EXPECT_EQ(qt::read_file(dir.file("victim")), "kept\n");
        for (const char *link : {"special.zip", "special.sum"}) {
            char target[16] = {};
            EXPECT_EQ(readlink(dir.file(link).c_str(), target, sizeof target - 1) > 0 ? target : "", std::string("/dev/null"));
        }
        EXPECT_EQ(qt::read_file(dir.file("out.zip")) == "earlier\n", c.status != 2);
        EXPECT_EQ(qt::run_program("/bin/sh", {"-c", "ls -a " + dir.path() + " | grep -c '^\\.[a-z].*\\.'"}).out, "0\n");
        if (c.status == 0) {
            EXPECT_EQ(qt::read_file(dir.file("link.sum")), qt::sha256(qt::read_file(dir.file("link.zip"))) + "  link.zip\n");
        }
    }
}
