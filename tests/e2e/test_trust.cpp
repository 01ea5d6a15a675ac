// What leaves the controller can be trusted: the progress channel and the manifest against
// the archive, every encryption read by the stock openssl command with its checksum read
// by sha256sum -c, and secrets scrubbed in every form they take.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <openssl/evp.h>

#include <map>
#include <regex>

#include "testsupport.h"

TEST(Trust, ProgressLinesAndManifestTellAMixedRun)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::write_file(dir.file("data"), std::string(100000, 'd') + "end\n"));
    qt::Collect asked{"cmd i,-,y,n ok /bin/echo fine\ncmd i,1,y,n slow /bin/sleep 10\ncmd i,-,y,n fails /bin/ls /nonexistent\n"
                      "cmd i,-,y,n gone /bin/no-such-program\nfile i,-,y,y f " + dir.file("data") + "\nfile i,-,y,y g " +
                      dir.file("absent") + "\n", {"-L", "i", "--manifest", "-P", "secret", "-e"}, "out.zip", "secret"};
    asked.progress = true;
    asked.flagged = {"t/g/" + qt::flat(dir.file("absent")) + ".err"};
    const qt::Collection c = qt::collect(dir, asked);
    ASSERT_EQ(c.run.status, 0) << c.run.err;
    EXPECT_EQ(c.zip.problems, "");
    // BEGIN, then START and END for each entry, then the archive's size as delivered.
    const std::vector<std::string> &lines = c.progress;
    ASSERT_EQ(lines.size(), 1u + 2 * 6 + 1);
    EXPECT_EQ(lines.front() + " " + lines.back(), "BEGIN 6 v1 OK " + std::to_string(c.sent.size()));
    const std::regex start(R"(START (\d) (cmd|file) (t/\S+))"), end(R"(END (\d) (t/\S+) (\w+) (\d+) (\d+) (\d+))");
    const char *const results[] = {"ok", "timeout", "error", "error", "ok", "error"};
    for (int i = 0; i < 6; ++i) {
        std::smatch began, ended;
        ASSERT_TRUE(std::regex_match(lines[1 + 2 * i], began, start) && std::regex_match(lines[2 + 2 * i], ended, end))
            << lines[1 + 2 * i] << " / " << lines[2 + 2 * i];
        EXPECT_EQ(began[1].str() + began[2].str() + " " + ended[1].str() + ended[2].str() + " " + ended[3].str(),
                  std::to_string(i + 1) + (i < 4 ? "cmd " : "file ") + std::to_string(i + 1) + began[3].str() + " " + results[i]);
        // A missing program or file makes no member of its own.
        EXPECT_EQ(c.zip.find(began[3]) != nullptr, i != 3 && i != 5) << began[3];
    }
    EXPECT_GE(std::stoi(std::regex_replace(lines[4], end, "$6")), 1000);  // the time-out took its second
    EXPECT_EQ(std::regex_replace(lines[10], end, "$4"), "100004");         // the file's bytes in are its own
    // The manifest describes every member before it, and never holds the password.
    ASSERT_EQ(c.zip.names().back(), "t/MANIFEST.json");
    const nlohmann::json manifest = nlohmann::json::parse(c.zip.members.back().data);
    EXPECT_EQ(manifest["version"].get<std::string>() + manifest["options"]["encrypted"].get<std::string>(), QUELVANE_VERSION "yes");
    EXPECT_EQ(c.zip.members.back().data.find("secret"), std::string::npos) << "a password in the manifest";
    ASSERT_EQ(manifest["members"].size(), c.zip.members.size() - 1);
    std::map<std::string, nlohmann::json> described;
    for (size_t i = 0; i + 1 < c.zip.members.size(); ++i) {
        const nlohmann::json &member = manifest["members"][i];
        const qt::Member &m = c.zip.members[i];
        char crc[16];
        snprintf(crc, sizeof crc, "%08x", m.crc);
        EXPECT_EQ(member["name"], m.name);
        EXPECT_EQ(member["sha256"].get<std::string>() + member["crc32"].get<std::string>(), qt::sha256(m.data) + crc) << m.name;
        EXPECT_EQ(member["bytes_in"], m.data.size()) << m.name;
        EXPECT_EQ(member["bytes_out"], m.compressed) << m.name;
        described[m.name] = member;
    }
    EXPECT_EQ(described["t/ok/@bin@echo_fine.out"]["result"]["status"], "ok");
    EXPECT_EQ(described["t/fails/@bin@ls_@nonexistent.err"]["result"], nlohmann::json::parse(R"({"status": "exit", "exit_status": 2, "cut": false})"));
    EXPECT_EQ(described["t/slow/@bin@sleep_10.out"]["result"]["status"], "timeout");
    EXPECT_EQ(described["t/gone/@bin@no-such-program.err"]["result"]["status"], "missing");
    EXPECT_EQ(described["t/f/" + qt::flat(dir.file("data"))]["made_by"]["path"], dir.file("data"));
    EXPECT_EQ(described["t/ok/@bin@echo_fine.out"]["made_by"]["command"], "/bin/echo fine");
    EXPECT_GE(described["t/slow/@bin@sleep_10.out"]["duration_ms"], 1000);
}

// Every encryption in both modes: the console says no more than for a plain run, openssl
// opens it, and the checksum (of the bytes delivered, download header excluded) is what
// sha256sum -c reads and, in download mode, the progress channel's last line.
TEST(Trust, EncryptionsAndChecksumsReadByTheStockTools)
{
    qt::TempDir dir;
    ASSERT_TRUE(qt::make_certificate(dir));
    auto enc = [](std::vector<std::string> how) {
        how.insert(how.begin(), {"enc", "-d", "-aes-128-cbc", "-pass", "pass:secret"});
        return how;
    };
    const struct { std::vector<std::string> options, decrypt; } CASES[] = {
        {{}, {}},
        {{"-e", "-P", "secret"}, enc({"-md", "md5"})},
        {{"-e", "-P", "secret", "--pbkdf2"}, enc({"-pbkdf2", "-iter", "100000"})},
        {{"-e", "-P", "secret", "--pbkdf2=2000"}, enc({"-pbkdf2", "-iter", "2000"})},
        {{"--recipient=support.pem"}, {"cms", "-decrypt", "-binary", "-inform", "DER", "-recip", dir.file("support.pem"),
                                       "-inkey", dir.file("support.key")}},
    };
    for (const auto &c : CASES) {
        for (const std::string out : {"t.zip", "-"}) {
            SCOPED_TRACE((c.options.empty() ? "plain" : c.options.back()) + " " + out);
            qt::Collect asked{"cmd i,-,y,n a /bin/echo hello\n", {"-L", "i", "-b", "--checksum=t.sha256"}, out};
            asked.args.insert(asked.args.end(), c.options.begin(), c.options.end());
            asked.progress = true;
            const qt::Collection got = qt::collect(dir, asked);
            ASSERT_EQ(got.run.status, 0) << got.run.err;
            EXPECT_EQ(got.run.err, "");
            EXPECT_EQ(got.run.out.substr(0, out == "-" ? 0 : std::string::npos),
                      out == "-" ? "" : std::string(c.options.size() > 1 ? "Output data will be encrypted.\n" : "") +
                                            "Collecting data into t.zip\nData collection complete\n");
            ASSERT_TRUE(qt::write_file(dir.file("t.zip"), got.sent));
            const qt::RunResult check = qt::run_program("/bin/sh", {"-c", "cd " + dir.path() + " && sha256sum -c t.sha256"});
            EXPECT_EQ(check.status, 0) << check.out << check.err;
            EXPECT_EQ(qt::read_file(dir.file("t.sha256")), qt::sha256(got.sent) + "  t.zip\n");
            EXPECT_EQ(got.progress.back(), out == "-" ? "SHA256 " + qt::sha256(got.sent) : "OK " + std::to_string(got.sent.size()));
            std::vector<std::string> decrypt = c.decrypt;
            decrypt.insert(decrypt.end(), {"-in", dir.file("t.zip"), "-out", dir.file("opened.zip")});
            const qt::RunResult opened = qt::run_program("/usr/bin/openssl", decrypt);
            ASSERT_TRUE(c.options.empty() || opened.status == 0) << opened.err;
            const qt::Archive zip = qt::read_archive(dir.file(c.options.empty() ? "t.zip" : "opened.zip"));
            EXPECT_EQ(zip.problems, "");
            EXPECT_EQ(zip.members.size(), 3u);
        }
    }
}

TEST(Trust, ScrubbedSecretsAppearInNoExtractedByte)
{
    qt::TempDir dir;
    const std::string secret = "p@ss w/rd:Secret!42", token = "tok-7f3a9c2e1b";
    ASSERT_TRUE(qt::write_file(dir.file("secrets"), "# the controller's own\nadmin=" + secret + "\napi=" + token + "\n", 0600));
    auto base64 = [](const std::string &data) {
        std::string out(4 * ((data.size() + 2) / 3) + 1, '\0');
        out.resize(size_t(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(&out[0]),
                                          reinterpret_cast<const unsigned char *>(data.data()), int(data.size()))));
        return out;
    };
    // At the start and end of a member, across the 32 KB file read and 1 KB pipe reads,
    // percent-encoded, and in base64 after 0, 1 and 2 bytes of something else.
    std::string planted = secret + "\n" + std::string(32768 - 7 - secret.size() - 1, 'a') + secret + "\n", percent;
    for (unsigned char c : secret) {
        char hex[4];
        snprintf(hex, sizeof hex, "%%%02X", c);
        percent += isalnum(c) || c == '-' || c == '.' || c == '_' ? std::string(1, static_cast<char>(c)) : hex;
    }
    planted += "url=" + percent + "&x\n";
    std::vector<std::string> forms = {secret, token, percent};
    for (size_t align = 0; align < 3; ++align) {
        const std::string encoded = base64(std::string(align, 'x') + secret + "tail");
        planted += "b64=" + encoded + "\n";
        // What the secret alone decides in base64.
        forms.push_back(encoded.substr((8 * align + 5) / 6, (8 * (align + secret.size())) / 6 - (8 * align + 5) / 6));
    }
    ASSERT_TRUE(qt::write_file(dir.file("data"), planted + "key " + token));
    const std::string noisy = qt::script(dir, "noisy", "cat " + dir.file("data") + " >&2\necho " + token + "\n");
    const qt::Collection c = qt::collect(dir, {"file i,-,y,y f " + dir.file("data") + "\ncmd i,-,y,n c /bin/cat " +
                                               dir.file("data") + "\ncmd i,-,y,n n " + noisy + "\ncmd i,-,y,n gone /bin/missing-" +
                                               token + "\n", {"-L", "i", "--scrub=secrets", "--manifest"}});
    ASSERT_EQ(c.run.status, 0) << c.run.err;
    // Sizes and CRCs are the scrubbed data's: no reader flags anything.
    EXPECT_EQ(c.zip.problems, "");
    size_t redactions = 0;
    for (const qt::Member &m : c.zip.members) {
        for (const std::string &form : forms)
            EXPECT_EQ((m.name + m.data).find(form), std::string::npos) << m.name << " holds " << form;
        for (size_t at = 0; (at = m.data.find("[REDACTED:admin]", at)) != std::string::npos; ++at)
            ++redactions;
    }
    EXPECT_EQ(redactions, 3u * (2 + 1 + 3));  // the file, its copy on stdout and on stderr
    const qt::Member *file = c.zip.find("t/f/" + qt::flat(dir.file("data")));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->data.substr(0, 17), "[REDACTED:admin]\n");
    // A scrub file that others may read is refused before anything is collected.
    for (mode_t mode : {0644, 0640, 0604}) {
        chmod(dir.file("secrets").c_str(), mode);
        const qt::Collection refused = qt::collect(dir, {"", {"--scrub=secrets"}, "r.zip"});
        EXPECT_EQ(std::to_string(refused.run.status) + " " + refused.run.err,
                  "1 Refusing scrub file secrets: it must be a regular file readable only by its owner\n");
        EXPECT_FALSE(qt::file_exists(dir.file("r.zip")));
    }
}
