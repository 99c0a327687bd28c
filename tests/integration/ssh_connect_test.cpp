// Connecting to a real sshd: host-key policies, fingerprints, ciphers,
// ~/.ssh/config, and connections that cannot succeed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "ssh/ClsSsh.h"
#include "tests/integration/ssh_test_util.h"
#include "tests/support/SshdFixture.h"

namespace scpkit::test {
namespace {

#define REQUIRE_SSHD(sshd)                     \
    SshdFixture& sshd = SshdFixture::shared(); \
    if (!sshd.ok()) GTEST_SKIP() << "no test sshd: " << sshd.error()

bool connect(ClsSsh& ssh, const std::string& host, int port, const std::string& knownHosts,
             const char* policy = "yes") {
    XString kh(knownHosts.c_str());
    XString pol(policy);
    ssh.put_KnownHostsPath(kh);
    ssh.put_StrictHostKeyChecking(pol);
    ssh.put_ConnectTimeoutMs(10000);
    XString h(host.c_str());
    return ssh.Connect(h, port);
}

std::string hostPublicKey(const SshdFixture& sshd) {
    std::string pub = readWholeFile(sshd.tempDir() + "/host_ed25519.pub");
    // "ssh-ed25519 BASE64 comment" -> "ssh-ed25519 BASE64"
    return pub.substr(0, pub.find(' ', pub.find(' ') + 1));
}

// A known_hosts file naming the fixture's address with a different key.
std::string knownHostsWithOtherKey(const SshdFixture& sshd, const std::string& dir) {
    EXPECT_EQ(shell("ssh-keygen -q -t ed25519 -N '' -f " + dir + "/other"), 0);
    std::string pub = readWholeFile(dir + "/other.pub");
    std::string path = dir + "/known_hosts";
    writeWholeFile(path, "[127.0.0.1]:" + std::to_string(sshd.port()) + " " + pub);
    return path;
}

TEST(SshConnect, ConnectsLogsTheServerAndDisconnects) {
    REQUIRE_SSHD(sshd);
    ClsSsh ssh;
    EXPECT_FALSE(ssh.get_IsConnected());
    ASSERT_TRUE(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()))
        << lastErrorText(ssh);
    std::string log = lastErrorText(ssh);
    EXPECT_TRUE(ssh.get_IsConnected());
    EXPECT_NE(log.find("Connect:"), std::string::npos) << log;
    EXPECT_NE(log.find("serverBanner: SSH-2.0-OpenSSH"), std::string::npos) << log;
    EXPECT_NE(log.find("hostKeyType: ssh-ed25519"), std::string::npos) << log;
    // The fast default: AES-GCM in both directions.
    EXPECT_NE(log.find("cipherClientToServer: aes128-gcm@openssh.com"), std::string::npos) << log;
    EXPECT_NE(log.find("cipherServerToClient: aes128-gcm@openssh.com"), std::string::npos) << log;
    EXPECT_NE(log.find("Success."), std::string::npos) << log;

    XString fp;
    ssh.get_ServerKeySha256(fp);
    ASSERT_FALSE(sshd.hostKeyFingerprint().empty());
    EXPECT_EQ(std::string(fp.getUtf8()), sshd.hostKeyFingerprint());  // as ssh-keygen -lf prints it
    EXPECT_NE(log.find("hostKeyFingerprint: " + sshd.hostKeyFingerprint()), std::string::npos);

    ssh.Disconnect();
    EXPECT_FALSE(ssh.get_IsConnected());
    EXPECT_NE(lastErrorText(ssh).find("Disconnect:"), std::string::npos);

    // The object connects again, and a second Connect replaces a live connection.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()))
            << lastErrorText(ssh);
        EXPECT_TRUE(ssh.get_IsConnected());
    }
}

TEST(SshConnect, HostKeyPolicies) {
    REQUIRE_SSHD(sshd);
    enum Known { Missing, OtherKey, RightKey };
    struct Case {
        const char* policy;
        Known known;
        bool connects;
        const char* logText;  // expected in LastErrorText
        bool fileGainsKey;
    };
    const Case cases[] = {
        {"yes", Missing, false, "not in the known_hosts file", false},
        {"yes", OtherKey, false, "differs from the one recorded", false},
        {"yes", RightKey, true, "Success.", false},
        {"accept-new", Missing, true, "Added the server's host key", true},
        {"accept-new", OtherKey, false, "differs from the one recorded", false},
        {"no", Missing, true, "Success.", false},
        {"no", OtherKey, true, "Success.", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.policy) + " / known " + std::to_string(c.known));
        std::string dir = sshd.makeScratchDir("hostkeys");
        std::string knownHosts = dir + "/sub/known_hosts";  // sub/ does not exist yet
        if (c.known == OtherKey) knownHosts = knownHostsWithOtherKey(sshd, dir);
        if (c.known == RightKey) knownHosts = sshd.knownHostsPath();
        std::string before = readWholeFile(knownHosts);

        ClsSsh ssh;
        bool ok = connect(ssh, sshd.host(), sshd.port(), knownHosts, c.policy);
        std::string log = lastErrorText(ssh);
        EXPECT_EQ(ok, c.connects) << log;
        EXPECT_EQ(ssh.get_IsConnected(), c.connects);
        EXPECT_NE(log.find(c.logText), std::string::npos) << log;
        if (!c.connects) {
            // A refusal names the file and the key, so the user can check both.
            EXPECT_NE(log.find("knownHostsFile: " + knownHosts), std::string::npos) << log;
            EXPECT_NE(log.find("hostKeyFingerprint: " + sshd.hostKeyFingerprint()),
                      std::string::npos)
                << log;
            EXPECT_NE(log.find("Failed."), std::string::npos) << log;
        }
        std::string after = readWholeFile(knownHosts);
        if (c.fileGainsKey) {
            EXPECT_NE(after.find("[127.0.0.1]:" + std::to_string(sshd.port()) + " " +
                                 hostPublicKey(sshd)),
                      std::string::npos)
                << after;
            // What was recorded is trusted from now on.
            ClsSsh again;
            EXPECT_TRUE(connect(again, sshd.host(), sshd.port(), knownHosts, "yes"))
                << lastErrorText(again);
        } else {
            EXPECT_EQ(after, before);
        }
    }
}

TEST(SshConnect, PolicyAndTimeoutProperties) {
    ClsSsh ssh;
    XString value;
    ssh.get_StrictHostKeyChecking(value);
    EXPECT_STREQ(value.getUtf8(), "yes");
    for (const char* accepted : {"accept-new", "no", "yes"}) {
        XString p(accepted);
        ssh.put_StrictHostKeyChecking(p);
        ssh.get_StrictHostKeyChecking(value);
        EXPECT_STREQ(value.getUtf8(), accepted);
    }
    XString bogus("sometimes");
    ssh.put_StrictHostKeyChecking(bogus);  // ignored: the policy stays strict
    ssh.get_StrictHostKeyChecking(value);
    EXPECT_STREQ(value.getUtf8(), "yes");

    EXPECT_EQ(ssh.get_ConnectTimeoutMs(), 30000);
    ssh.put_ConnectTimeoutMs(1500);
    EXPECT_EQ(ssh.get_ConnectTimeoutMs(), 1500);

    ssh.get_KnownHostsPath(value);  // the user's file by default
    EXPECT_NE(std::string(value.getUtf8()).find("/.ssh/known_hosts"), std::string::npos);
    XString none;
    ssh.get_ServerKeySha256(none);
    EXPECT_TRUE(none.isEmpty());
}

// A port that accepts TCP connections (the kernel completes them for the
// backlog) but never says anything.
class SilentListener {
  public:
    SilentListener() {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            listen(m_fd, 8) == 0 &&
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
            m_port = ntohs(addr.sin_port);
    }
    ~SilentListener() {
        if (m_fd >= 0) close(m_fd);
    }
    int port() const { return m_port; }

  private:
    int m_fd = -1;
    int m_port = 0;
};

int closedPort() {
    SilentListener probe;  // bound, then released: nobody listens there
    return probe.port();
}

TEST(SshConnect, ConnectionsThatCannotSucceedFailCleanly) {
    SilentListener silent;
    ASSERT_GT(silent.port(), 0);
    struct Case {
        const char* name;
        std::string host;
        int port;
        const char* expected;
    };
    const Case cases[] = {
        {"unknown host", "no-such-host.invalid", 22, "Failed to resolve hostname"},
        {"refused port", "127.0.0.1", closedPort(), "Connection refused"},
        {"silent server", "127.0.0.1", silent.port(), "Timeout"},
        {"empty host", "  ", 22, "No host name given."},
        {"port too large", "127.0.0.1", 70000, "Invalid port number."},
        {"negative port", "127.0.0.1", -1, "Invalid port number."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClsSsh ssh;
        ssh.put_ConnectTimeoutMs(1000);
        XString host(c.host.c_str());
        EXPECT_FALSE(ssh.Connect(host, c.port));
        EXPECT_FALSE(ssh.get_IsConnected());
        std::string log = lastErrorText(ssh);
        EXPECT_NE(log.find(c.expected), std::string::npos) << log;
        EXPECT_NE(log.find("Failed."), std::string::npos) << log;
    }
}

TEST(SshConnect, CiphersChosenByTheApplication) {
    REQUIRE_SSHD(sshd);
    struct Case {
        const char* ciphers;
        bool connects;
        const char* expected;
    };
    const Case cases[] = {
        {"aes256-ctr", true, "cipherClientToServer: aes256-ctr"},
        {"chacha20-poly1305@openssh.com,aes128-ctr", true,
         "cipherServerToClient: chacha20-poly1305@openssh.com"},
        {"rot13-imaginary", false, "None of the requested ciphers is supported."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ciphers);
        ClsSsh ssh;
        XString ciphers(c.ciphers);
        ssh.put_Ciphers(ciphers);
        EXPECT_EQ(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()), c.connects);
        std::string log = lastErrorText(ssh);
        EXPECT_NE(log.find(c.expected), std::string::npos) << log;
    }
}

TEST(SshConnect, SshConfigSuppliesHostPortUserAndKey) {
    REQUIRE_SSHD(sshd);
    std::string home = sshd.makeScratchDir("home");
    ASSERT_EQ(shell("mkdir -p " + home + "/.ssh"), 0);
    writeWholeFile(home + "/.ssh/config",
                   "Host scpkit-alias\n"
                   "    HostName 127.0.0.1\n"
                   "    Port " +
                       std::to_string(sshd.port()) +
                       "\n"
                       "    User " +
                       sshd.user() +
                       "\n"
                       "    IdentityFile " +
                       sshd.clientKeyPath() + "\n");
    ScopedEnv homeEnv("HOME", home);
    ScopedEnv noAgent("SSH_AUTH_SOCK", std::nullopt);

    // Without UseSshConfig the alias means nothing.
    ClsSsh plain;
    plain.put_ConnectTimeoutMs(2000);
    XString alias("scpkit-alias");
    EXPECT_FALSE(plain.Connect(alias, 22));

    ClsSsh ssh;
    ssh.put_UseSshConfig(true);
    EXPECT_TRUE(ssh.get_UseSshConfig());
    ASSERT_TRUE(connect(ssh, "scpkit-alias", 22, sshd.knownHostsPath())) << lastErrorText(ssh);
    XString user;
    ssh.get_ConfigUser(user);
    EXPECT_EQ(std::string(user.getUtf8()), sshd.user());
    std::string log = lastErrorText(ssh);
    EXPECT_NE(log.find("configPort: " + std::to_string(sshd.port())), std::string::npos) << log;

    // No agent and no default key in this home: only the IdentityFile can work.
    XString noUser;
    EXPECT_TRUE(ssh.LoginAuto(noUser)) << lastErrorText(ssh);
    EXPECT_NE(lastErrorText(ssh).find("user: " + sshd.user()), std::string::npos);
}

TEST(SshConnect, SshConfigUserIsUsedWhenLoginNamesNone) {
    REQUIRE_SSHD(sshd);
    if (sshd.passwordUser().empty()) GTEST_SKIP() << "needs the password user (root)";
    std::string home = sshd.makeScratchDir("home");
    ASSERT_EQ(shell("mkdir -p " + home + "/.ssh"), 0);
    writeWholeFile(home + "/.ssh/config",
                   "Host pw-alias\n"
                   "    HostName 127.0.0.1\n"
                   "    User " +
                       sshd.passwordUser() + "\n");
    ScopedEnv homeEnv("HOME", home);

    ClsSsh ssh;
    ssh.put_UseSshConfig(true);
    ASSERT_TRUE(connect(ssh, "pw-alias", sshd.port(), sshd.knownHostsPath())) << lastErrorText(ssh);
    XString user;
    ssh.get_ConfigUser(user);
    EXPECT_EQ(std::string(user.getUtf8()), sshd.passwordUser());
    XString noUser;
    XString password(sshd.password().c_str());
    EXPECT_TRUE(ssh.LoginWithPassword(noUser, password)) << lastErrorText(ssh);
}

}  // namespace
}  // namespace scpkit::test
