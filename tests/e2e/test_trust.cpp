// What leaves the controller can be trusted: the manifest against the extracted members,
// the checksum for sha256sum -c, secrets scrubbed in every form they take, and the
// stronger encryptions read by the stock openssl command.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <algorithm>
#include <map>

#include "testsupport.h"

namespace {

std::string sha256(const std::string &data)
{
    unsigned char digest[32];
    unsigned length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    std::string text;
    for (unsigned i = 0; i < length; ++i)
        text += "0123456789abcdef"[digest[i] >> 4], text += "0123456789abcdef"[digest[i] & 15];
    return text;
}

std::string base64(const std::string &data)
{
    std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
    out.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                                   reinterpret_cast<const unsigned char *>(data.data()),
                                                   static_cast<int>(data.size()))));
    return out;
}

// The archive from standard output, behind its download header.
std::string body(const std::string &out)
{
    return out.substr(out.find("\n\n") + 2);
}

}  // namespace

TEST(Trust, ManifestDescribesEveryMemberAndWhatHappened)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::write_file(dir.file("data"), std::string(100000, 'd') + "end\n"));
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,-,y,n ok /bin/echo fine\n"
                                                   "cmd i,-,y,n fails /bin/ls /nonexistent\n"
                                                   "cmd i,1,y,n slow /bin/sleep 10\n"
                                                   "cmd i,-,y,n gone /bin/no-such-program\n"
                                                   "file i,-,y,y f " + dir.file("data") + "\n"));
    qt::RunResult run = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                               "--manifest", "-P", "secret", "-e"});
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_EQ(qt::openssl_decrypt(dir.file("t.zip"), "secret", dir.file("plain.zip")), "");
    const qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("plain.zip")));
    ASSERT_EQ(zip.error, "");
    ASSERT_EQ(zip.entries.back().name, "t/MANIFEST.json");
    EXPECT_EQ(qt::check_real_readers(dir.file("plain.zip")), "");
    const nlohmann::json manifest = nlohmann::json::parse(zip.entries.back().data);
    EXPECT_EQ(manifest["version"], "1.1");
    EXPECT_EQ(manifest["options"]["encrypted"], "yes");
    EXPECT_EQ(zip.entries.back().data.find("secret"), std::string::npos) << "a password in the manifest";
    ASSERT_EQ(manifest["members"].size(), zip.entries.size() - 1);
    std::map<std::string, nlohmann::json> results, described;
    for (size_t i = 0; i + 1 < zip.entries.size(); ++i) {
        const nlohmann::json &member = manifest["members"][i];
        const qt::ZipEntry &entry = zip.entries[i];
        EXPECT_EQ(member["name"], entry.name);
        EXPECT_EQ(member["sha256"], sha256(entry.data)) << entry.name;
        EXPECT_EQ(member["bytes_in"], entry.data.size()) << entry.name;
        EXPECT_EQ(member["bytes_out"], entry.compressed_size) << entry.name;
        char crc[16];
        snprintf(crc, sizeof crc, "%08x", entry.crc);
        EXPECT_EQ(member["crc32"], crc);
        results[entry.name] = member["result"];
        described[entry.name] = member;
    }
    EXPECT_EQ(results["t/ok/@bin@echo_fine.out"]["status"], "ok");
    EXPECT_EQ(results["t/fails/@bin@ls_@nonexistent.err"]["status"], "exit");
    EXPECT_EQ(results["t/fails/@bin@ls_@nonexistent.err"]["exit_status"], 2);
    EXPECT_EQ(results["t/slow/@bin@sleep_10.out"]["status"], "timeout");
    EXPECT_EQ(results["t/gone/@bin@no-such-program.err"]["status"], "missing");
    const std::string file_member = "t/f/" + qt::flat(dir.file("data"));
    EXPECT_EQ(described[file_member]["made_by"]["path"], dir.file("data"));
    EXPECT_EQ(described["t/ok/@bin@echo_fine.out"]["made_by"]["command"], "/bin/echo fine");
    EXPECT_GE(described["t/slow/@bin@sleep_10.out"]["duration_ms"], 1000);
}

TEST(Trust, ChecksumIsWhatSha256sumReadsInEveryMode)
{
    for (const bool download : {false, true}) {
        for (const char *encryption : {"", "-e", "--recipient"}) {
            SCOPED_TRACE(std::string(download ? "download " : "file ") + encryption);
            qt::TempDir dir;
            ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,-,y,n a /bin/echo hello\n"));
            std::vector<std::string> args = {"-f", "q.conf", "-a", "t.zip", "-o", download ? "-" : "t.zip", "-L", "i",
                                             "--checksum=t.sha256", "--progress-fd=3"};
            if (download)
                args.push_back("-b");
            if (std::string(encryption) == "-e")
                args.insert(args.end(), {"-e", "-P", "secret"});
            if (std::string(encryption) == "--recipient") {
                ASSERT_TRUE(qt::make_certificate(dir));
                args.push_back("--recipient=support.pem");
            }
            qt::RunSpec job;
            const std::string progress = dir.file("progress");
            job.in_child = [progress] { dup2(open(progress.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 3); };
            qt::RunResult run = qt::run_quelvane(dir, args, job);
            ASSERT_EQ(run.status, 0) << run.err;
            if (download) {
                ASSERT_TRUE(qt::write_file(dir.file("t.zip"), body(run.out)));
            }
            qt::RunResult check = qt::run_program("/bin/sh", {"-c", "cd " + dir.path() + " && sha256sum -c t.sha256"});
            EXPECT_EQ(check.status, 0) << check.out << check.err;
            const std::string digest = sha256(qt::read_file(dir.file("t.zip")));
            EXPECT_EQ(qt::read_file(dir.file("t.sha256")), digest + "  t.zip\n");
            const std::string lines = qt::read_file(progress);
            EXPECT_EQ(lines.substr(lines.rfind('\n', lines.size() - 2) + 1),
                      download ? "SHA256 " + digest + "\n" : "OK " + std::to_string(qt::read_file(dir.file("t.zip")).size()) + "\n");
        }
    }
}

TEST(Trust, ScrubbedSecretsAppearInNoExtractedByte)
{
    qt::TempDir dir;
    const std::string secret = "p@ss w/rd:Secret!42", token = "tok-7f3a9c2e1b";
    ASSERT_TRUE(qt::write_file(dir.file("secrets"), "# the controller's own\nadmin=" + secret + "\napi=" + token + "\n", 0600));
    // At the start and end of a member, across the 32 KB file read and 1 KB pipe reads,
    // percent-encoded, and in base64 after 0, 1 and 2 bytes of something else.
    std::string planted = secret + "\n" + std::string(32768 - 7 - secret.size() - 1, 'a') + secret + "\n";
    std::string percent;
    for (unsigned char c : secret) {
        char hex[4];
        snprintf(hex, sizeof hex, "%%%02X", c);
        percent += isalnum(c) || c == '-' || c == '.' || c == '_' ? std::string(1, static_cast<char>(c)) : hex;
    }
    planted += "url=" + percent + "&x\n";
    for (const char *before : {"", "x", "xy"})
        planted += "b64=" + base64(before + secret + "tail") + "\n";
    planted += "key " + token;
    ASSERT_TRUE(qt::write_file(dir.file("data"), planted));
    const std::string noisy = qt::script(dir, "noisy", "cat " + dir.file("data") + " >&2\necho " + token + "\n");
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "file i,-,y,y f " + dir.file("data") + "\n"
                                                   "cmd i,-,y,n c /bin/cat " + dir.file("data") + "\n"
                                                   "cmd i,-,y,n n " + noisy + "\n"
                                                   "cmd i,-,y,n gone /bin/missing-" + token + "\n"));
    qt::RunResult run = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("t.zip"), "-L", "i",
                                               "--scrub=secrets", "--manifest"});
    ASSERT_EQ(run.status, 0) << run.err;
    const qt::ZipArchive zip = qt::read_zip(qt::read_file(dir.file("t.zip")));
    ASSERT_EQ(zip.error, "");
    std::vector<std::string> forms = {secret, token, percent};
    for (size_t align = 0; align < 3; ++align) {  // what the secret alone decides in base64
        const std::string encoded = base64(std::string(align, 'x') + secret + "tail");
        forms.push_back(encoded.substr((8 * align + 5) / 6, (8 * (align + secret.size())) / 6 - (8 * align + 5) / 6));
    }
    size_t redactions = 0;
    for (const qt::ZipEntry &entry : zip.entries) {
        for (const std::string &form : forms) {
            EXPECT_EQ(entry.data.find(form), std::string::npos) << entry.name << " holds " << form;
            EXPECT_EQ(entry.name.find(form), std::string::npos) << entry.name;
        }
        for (size_t at = 0; (at = entry.data.find("[REDACTED:admin]", at)) != std::string::npos; ++at)
            ++redactions;
    }
    EXPECT_EQ(redactions, 3u * (2 + 1 + 3));  // the file, its copy on stdout and on stderr
    const std::string file_member = "t/f/" + qt::flat(dir.file("data"));
    ASSERT_NE(zip.find(file_member), nullptr);
    EXPECT_EQ(zip.find(file_member)->data.substr(0, 17), "[REDACTED:admin]\n");
    // Sizes and CRCs are the scrubbed data's: no reader flags anything.
    EXPECT_EQ(qt::check_real_readers(dir.file("t.zip")), "");

    // A scrub file that others may read is refused before anything is collected.
    for (mode_t mode : {0644, 0640, 0604}) {
        chmod(dir.file("secrets").c_str(), mode);
        qt::RunResult refused = qt::run_quelvane(dir, {"-f", "q.conf", "-a", "t.zip", "-o", dir.file("r.zip"), "-L", "i",
                                                       "--scrub=secrets"});
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, "Refusing scrub file secrets: it must be a regular file readable only by its owner\n");
        EXPECT_FALSE(qt::file_exists(dir.file("r.zip")));
    }
}

TEST(Trust, StrongerEncryptionReadByOpensslInFileAndDownloadMode)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::make_certificate(dir));
    ASSERT_TRUE(qt::write_file(dir.file("q.conf"), "cmd i,-,y,n a /bin/echo hello\n"));
    const struct { std::vector<std::string> options, decrypt; } CASES[] = {
        {{"-e", "-P", "secret", "--pbkdf2"}, {"enc", "-d", "-aes-128-cbc", "-pbkdf2", "-iter", "100000", "-pass", "pass:secret"}},
        {{"-e", "-P", "secret", "--pbkdf2=2000"}, {"enc", "-d", "-aes-128-cbc", "-pbkdf2", "-iter", "2000", "-pass", "pass:secret"}},
        {{"--recipient=support.pem"}, {"cms", "-decrypt", "-binary", "-inform", "DER", "-recip", dir.file("support.pem"),
                                       "-inkey", dir.file("support.key")}},
    };
    for (const auto &c : CASES) {
        for (const bool download : {false, true}) {
            SCOPED_TRACE(c.options.back() + (download ? " download" : " file"));
            std::vector<std::string> args = {"-f", "q.conf", "-a", "t.zip", "-o", download ? "-" : dir.file("t.zip"), "-L", "i"};
            args.insert(args.end(), c.options.begin(), c.options.end());
            if (download)
                args.push_back("-b");
            qt::RunResult run = qt::run_quelvane(dir, args);
            ASSERT_EQ(run.status, 0) << run.err;
            // Nothing new on the console: the same lines as plain -e or no encryption.
            EXPECT_EQ(run.err, "");
            if (download) {
                ASSERT_TRUE(qt::write_file(dir.file("t.zip"), body(run.out)));
            } else {
                EXPECT_EQ(run.out, std::string(c.options[0] == "-e" ? "Output data will be encrypted.\n" : "") +
                                       "Collecting data into " + dir.file("t.zip") + "\nData collection complete\n");
            }
            std::vector<std::string> decrypt = c.decrypt;
            decrypt.insert(decrypt.end(), {"-in", dir.file("t.zip"), "-out", dir.file("plain.zip")});
            qt::RunResult opened = qt::run_program("/usr/bin/openssl", decrypt);
            ASSERT_EQ(opened.status, 0) << opened.err;
            EXPECT_EQ(qt::check_real_readers(dir.file("plain.zip")), "");
            EXPECT_EQ(qt::read_zip(qt::read_file(dir.file("plain.zip"))).names().size(), 3u);
        }
    }
}
