// How the program connects and logs in, seen from outside: jump hosts, an
// ssh config and ssh options, the home directory, the reasons it gives for
// failing, and the questions it asks on a terminal and only there.
#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/ChildProcess.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

using Args = std::vector<std::string>;

class CliConnect : public ::testing::Test {
  protected:
    void SetUp() override {
        sshd = &SshdFixture::shared();
        if (!sshd->ok()) GTEST_SKIP() << "no sshd: " << sshd->error();
        d = sshd->makeScratchDir("cli-connect") + "/";
        port = std::to_string(sshd->port());
        ASSERT_EQ(shell("ssh-keygen -q -t ed25519 -N secret -f " + d + "enc && cat " + d +
                        "enc.pub >> " + sshd->tempDir() + "/authorized_keys"),
                  0);
        writeFile(d + "f", "payload");
        writeFile(d + "empty", "");
        const std::string host = "Host 127.0.0.1\n Port " + port + "\n UserKnownHostsFile " +
                                 sshd->knownHostsPath() + "\n IdentityFile ";
        for (const char* key : {"key", "enc", "nokey"})
            writeFile(d + key + ".conf", host + (key[0] == 'k' ? sshd->clientKeyPath() : d + key));
    }
    // The words of `line`, D/ standing for the scratch directory, :P for the port.
    Args args(std::string line) const {
        for (auto [from, to] : {std::pair<std::string, std::string>{"D/", d}, {":P", ":" + port}})
            for (size_t i = 0; (i = line.find(from, i)) != std::string::npos; i += to.size())
                line.replace(i, 2, to);
        Args out;
        std::istringstream in(line);
        for (std::string w; in >> w;) out.push_back(w);
        return out;
    }

    SshdFixture* sshd = nullptr;
    std::string d, port;
};

// Without a terminal: what runs, and what fails with which reason.
TEST_F(CliConnect, OptionsConfigAndReasons) {
    const std::string key = sshd->clientKeyPath();
    const struct {
        std::string line;
        int status;
        std::vector<std::string> says;  // on standard error
    } cases[] = {
        {"-F D/key.conf -J 127.0.0.1:P put D/f 127.0.0.1:D/r", 0, {}},
        {"-F D/key.conf -J 127.0.0.1:P,127.0.0.1:P -C -v put D/f 127.0.0.1:D/r",
         0,
         {"jumpHost: 127.0.0.1:" + port, "authMethods: publickey,password",
          "keyTried: " + key + ": accepted", "debug: running: scp -t " + d}},
        {"-F none -o Port=" + port + " -o IdentityFile=" + key + " -o UserKnownHostsFile=" + d +
             "new/known_hosts -o StrictHostKeyChecking=accept-new put D/f 127.0.0.1:D/r",
         0,
         {}},
        {"-F D/nokey.conf put D/f 127.0.0.1:D/r",
         3,
         {d + "nokey cannot be read (No such file or directory)"}},
        {"-F D/enc.conf put D/f 127.0.0.1:D/r",
         3,
         {d + "enc is encrypted and no passphrase was given"}},
        {"-F D/key.conf --known-hosts D/empty put D/f 127.0.0.1:D/r",
         3,
         {"key (ssh-ed25519 " + sshd->hostKeyFingerprint()}},
        {"-o Bogus=1 put D/f 127.0.0.1:D/r", 2, {"-o Bogus is not an option scpkit takes"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ChildResult r = runChild(SCPKIT_CLI_PATH, args(c.line), {"SSH_AUTH_SOCK", "SSH_ASKPASS"});
        EXPECT_EQ(r.exitStatus, c.status) << r.err;
        for (const std::string& text : c.says)
            EXPECT_NE(r.err.find(text), std::string::npos) << r.err;
        EXPECT_EQ(readFile(d + "r"), c.status == 0 ? "payload" : "");
        unlink((d + "r").c_str());
    }
    EXPECT_NE(readFile(d + "new/known_hosts").find("[127.0.0.1]:" + port + " ssh-ed25519 "),
              std::string::npos);
}

// On a terminal the program asks what ssh would ask, and only that: a new
// host key, a passphrase, a password where the server takes one.
TEST_F(CliConnect, QuestionsOnATerminal) {
    SshdFixture keysOnly({"PasswordAuthentication no\n"});
    ASSERT_TRUE(keysOnly.ok()) << keysOnly.error();
    const passwd* pwUser = getpwnam(sshd->passwordUser().c_str());
    const std::string pw = sshd->password(), fp = sshd->hostKeyFingerprint(),
                      pwLanding = pwUser ? std::string(pwUser->pw_dir) + "/cli-pw" : "";
    const std::string asUser = "-F none -P " + port + " --known-hosts " + sshd->knownHostsPath() +
                               " put D/f " + sshd->passwordUser() + "@127.0.0.1:cli-pw";
    const struct {
        std::string line, env, trigger, reply;
        int status;
    } cases[] = {
        {"-F D/key.conf --known-hosts D/new put D/f 127.0.0.1:D/r", "",
         "ED25519 key fingerprint is " + fp +
             ".\r\nAre you sure you want to continue connecting (yes/no/[fingerprint])? ",
         fp, 0},
        {"-F D/key.conf -i D/enc put D/f 127.0.0.1:D/r", "",
         "Enter passphrase for key '" + d + "enc': ", "secret", 0},
        {"-F D/enc.conf put D/f 127.0.0.1:D/r", "",
         "Enter passphrase for key '" + d + "enc': ", "secret", 0},
        {asUser, "", sshd->passwordUser() + "@127.0.0.1's password: ", pw, 0},
        {"--password-env PW " + asUser, "PW=" + pw, "", "", 0},
        {"--password-env PW " + asUser, "PW=not-" + pw, "", "", 3},
        {"-F none -P " + std::to_string(keysOnly.port()) + " --known-hosts " +
             keysOnly.knownHostsPath() + " put D/f 127.0.0.1:D/r",
         "", "", "", 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const bool asPwUser = c.line.find("@127.0.0.1:cli-pw") != std::string::npos;
        if (asPwUser && !pwUser) continue;
        ChildProcess child;
        child.trigger = c.trigger;
        child.reply = c.reply + "\n";
        ASSERT_TRUE(child.start(SCPKIT_CLI_PATH, args(c.line),
                                {c.env.empty() ? "PW" : c.env, "SSH_AUTH_SOCK"}, "", 100));
        ChildResult r = child.finish(20000);
        EXPECT_EQ(r.exitStatus, c.status) << r.out;
        EXPECT_NE(r.out.find(c.trigger), std::string::npos) << r.out;
        // Nothing else is asked, and no secret shows.
        EXPECT_EQ(r.out.find("password: ") == std::string::npos,
                  c.trigger.find("password") == std::string::npos)
            << r.out;
        EXPECT_TRUE(c.reply == fp || c.reply.empty() ||
                    r.out.find(c.reply + "\r") == std::string::npos)
            << "echoed: " << r.out;
        const std::string landed = asPwUser ? pwLanding : d + "r";
        EXPECT_EQ(readFile(landed), c.status == 0 ? "payload" : "");
        unlink(landed.c_str());
    }
    EXPECT_EQ(readFile(d + "new").substr(0, 80), readFile(sshd->knownHostsPath()).substr(0, 80))
        << "the key was added";
}

// The home directory is the password database's, as for ssh: the config
// there applies whatever $HOME says. A private mount namespace puts a
// scratch directory in its place.
TEST_F(CliConnect, HomeComesFromThePasswordDatabase) {
    const passwd* pw = getpwuid(geteuid());
    if (!pw || shell("unshare -m true") != 0) GTEST_SKIP() << "no private mount namespace";
    writeFile(d + "home/.ssh/config", readFile(d + "key.conf"));
    ChildResult r =
        runChild("/usr/bin/unshare",
                 {"-m", "sh", "-c", "mount --bind \"$0\" \"$1\" && exec \"$2\" put \"$3\" \"$4\"",
                  d + "home", pw->pw_dir, SCPKIT_CLI_PATH, d + "f", "127.0.0.1:" + d + "r"},
                 {"HOME=" + d + "elsewhere", "SSH_AUTH_SOCK"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(readFile(d + "r"), "payload");
}

}  // namespace
}  // namespace scpkit::test
