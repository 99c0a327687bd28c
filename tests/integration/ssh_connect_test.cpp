// Connecting to a real sshd: what is logged of the server, the host-key
// policies, ciphers, connections that cannot succeed, and jump hosts.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "tests/integration/ssh_test_util.h"

namespace scpkit::test {
namespace {

TEST(SshConnect, HostKeyPolicies) {
    REQUIRE_SSHD(sshd);
    enum Known { Missing, OtherKey, RightKey };
    const struct {
        const char *policy, *logged;
        Known known;
        bool connects, fileGainsKey;
    } cases[] = {
        {"yes", "not in the known_hosts file", Missing, false, true},  // trusted after
        {"yes", "differs from the one recorded", OtherKey, false, false},
        {"yes", "serverBanner: SSH-2.0-OpenSSH", RightKey, true, false},
        {"accept-new", "Added the server's host key", Missing, true, true},
        {"accept-new", "differs from the one recorded", OtherKey, false, false},
        {"no", "Success.", OtherKey, true, false},
    };
    const std::string entry = "[127.0.0.1]:" + std::to_string(sshd.port()) + " ";
    const std::string dir = sshd.makeScratchDir("hostkeys");
    ASSERT_EQ(shell("ssh-keygen -q -t ed25519 -N '' -f " + dir + "/other"), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.policy) + ", known " + std::to_string(c.known));
        std::string knownHosts = sshd.makeScratchDir("hostkeys") + "/sub/known_hosts";
        if (c.known == RightKey) knownHosts = sshd.knownHostsPath();
        if (c.known == OtherKey)
            writeFile(knownHosts = dir + "/known_hosts", entry + readFile(dir + "/other.pub"));
        const std::string before = readFile(knownHosts);
        ClsSsh ssh;
        EXPECT_EQ(connect(ssh, sshd.host(), sshd.port(), knownHosts, c.policy), c.connects);
        EXPECT_EQ(ssh.get_IsConnected(), c.connects);
        // A refusal or a new entry names the file and the key, so the user can
        // check both; the property holds the key's fingerprint either way.
        const bool named = !c.connects || c.fileGainsKey;
        expectLog(lastErrorText(ssh), {c.logged, named ? "knownHostsFile: " + knownHosts : "",
                                       "hostKeyFingerprint: " + sshd.hostKeyFingerprint()});
        XString fp;
        ssh.get_ServerKeySha256(fp);
        EXPECT_EQ(fp.getUtf8(), sshd.hostKeyFingerprint());
        // Under "yes" an unknown key (not a changed one) waits for the application to trust it.
        EXPECT_EQ(ssh.get_HostKeyUnknown(), !c.connects && c.known == Missing);
        EXPECT_TRUE(!ssh.get_HostKeyUnknown() || (ssh.TrustServerKey() && ssh.get_IsConnected()));
        if (c.fileGainsKey) {  // and what was recorded is trusted from now on
            expectLog(readFile(knownHosts), {entry + "ssh-ed25519 "});
            ClsSsh again;
            EXPECT_TRUE(connect(again, sshd.host(), sshd.port(), knownHosts));
        } else {
            EXPECT_EQ(readFile(knownHosts), before);
        }
        ssh.Disconnect();
        EXPECT_FALSE(ssh.get_IsConnected());
    }
}

TEST(SshConnect, CiphersAndConnectionsThatCannotSucceed) {
    REQUIRE_SSHD(sshd);
    // Ports of our own: one accepts TCP connections (the kernel completes
    // them) but never says anything, the other is only bound and refuses them.
    int fds[2], ports[2];
    for (int i : {0, 1}) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        fds[i] = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(bind(fds[i], reinterpret_cast<sockaddr*>(&addr), len) |
                      (i ? 0 : listen(fds[i], 8)) |
                      getsockname(fds[i], reinterpret_cast<sockaddr*>(&addr), &len),
                  0);
        ports[i] = ntohs(addr.sin_port);
    }
    const struct {
        std::string host;
        int port;
        const char *ciphers, *logged;
        bool connects;
    } cases[] = {
        {"127.0.0.1", sshd.port(), "", "cipherServerToClient: aes128-gcm@openssh.com", true},
        {"127.0.0.1", sshd.port(), "aes256-ctr", "cipherClientToServer: aes256-ctr", true},
        {"127.0.0.1", sshd.port(), "rot13", "None of the requested ciphers is supported.", false},
        {"127.0.0.1", ports[0], "", "Timeout", false},
        {"127.0.0.1", ports[1], "", "Connection refused", false},
        {"  ", 22, "", "No host name given.", false},
        {"127.0.0.1", 70000, "", "Invalid port number.", false},
    };
    ClsSsh ssh;  // each Connect replaces what the one before made
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        EXPECT_EQ(connect(ssh, c.host, c.port, sshd.knownHostsPath(), "yes", c.ciphers),
                  c.connects);
        expectLog(lastErrorText(ssh), {c.logged, c.connects ? "Success." : "Failed."});
    }
    close(fds[0]);
    close(fds[1]);
}

// The loopback sshd as its own jump host (named, twice over, by a config's
// ProxyJump, left to the ssh program), and a second sshd that forwards
// nothing, or whose key is not known.
TEST(SshConnect, ThroughJumpHosts) {
    REQUIRE_SSHD(sshd);
    SshdFixture closed({"AllowTcpForwarding no\n"});
    ASSERT_TRUE(closed.ok()) << closed.error();
    const std::string d = sshd.makeScratchDir("jump") + "/", p = std::to_string(sshd.port()),
                      q = std::to_string(closed.port()), both = d + "known_hosts";
    ASSERT_EQ(shell("ssh-keygen -q -t ed25519 -N secret -f " + d + "enc && cat " + d +
                    "enc.pub >> " + sshd.tempDir() + "/authorized_keys"),
              0);
    writeFile(both, readFile(sshd.knownHostsPath()) + readFile(closed.knownHostsPath()));
    writeFile(d + "one_known", readFile(sshd.knownHostsPath()));
    writeFile(d + "askpass", "#!/bin/sh\necho secret\n", -1, 0755);
    // libssh matches later Host lines against the HostName: "jumpenc" comes last.
    writeFile(d + "config", "Host target\n HostName 127.0.0.1\n Port " + p +
                                "\n ProxyJump 127.0.0.1:" + p + "\nHost 127.0.0.1\n IdentityFile " +
                                sshd.clientKeyPath() + "\n IdentityFile " + closed.clientKeyPath() +
                                "\nHost jumpenc\n HostName 127.0.0.1\n Port " + p +
                                "\n IdentityFile " + d + "enc\n");
    ScopedEnv askpass("SSH_ASKPASS", d + "askpass"), force("SSH_ASKPASS_REQUIRE", "force");
    const std::string path = getenv("PATH");
    const struct {
        std::string host, jumps, knownHosts, path, logged;
        bool ok;
    } cases[] = {
        {"127.0.0.1", "root@127.0.0.1:" + p, both, path, "jumpHost: root@127.0.0.1:" + p, true},
        {"target", "", both, path, "configProxyJump: 127.0.0.1:" + p, true},
        {"127.0.0.1", "127.0.0.1:" + p + ",127.0.0.1:" + p, both, path, "jumpHost: 127.0.0.1",
         true},
        {"127.0.0.1", "jumpenc", both, path, "The ssh program makes the jumps instead.", true},
        {"127.0.0.1", "jumpenc", both, "/nonexistent", "There is no ssh program", false},
        {"127.0.0.1", "127.0.0.1:" + q, both, path, "refused to open a connection", false},
        {"127.0.0.1", "127.0.0.1:" + q, d + "one_known", path, "the jump host's key", false},
        {"127.0.0.1", "127.0.0.1:0", both, path, "bad port in jump host '127.0.0.1:0'", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host + " via " + c.jumps + " " + c.path);
        ScopedEnv pathEnv("PATH", c.path);
        ClsSsh ssh;
        XString config((d + "config").c_str()), jumps(c.jumps.c_str()), user(sshd.user().c_str());
        ssh.put_UseSshConfig(true);
        ssh.put_SshConfigPath(config);
        ssh.put_ProxyJump(jumps);
        const bool ok = connect(ssh, c.host, c.host == "target" ? 0 : sshd.port(), c.knownHosts);
        EXPECT_EQ(ok, c.ok) << lastErrorText(ssh);
        expectLog(lastErrorText(ssh), {c.logged});
        if (ssh.get_HostKeyUnknown()) {  // the jump host's key, trusted: the next Connect goes on
            EXPECT_TRUE(ssh.TrustServerKey() && !ssh.get_IsConnected());
            EXPECT_FALSE(connect(ssh, c.host, sshd.port(), c.knownHosts));
            expectLog(lastErrorText(ssh), {"refused to open a connection"});
        }
        if (ok) {
            EXPECT_TRUE(ssh.LoginAuto(user)) << lastErrorText(ssh);
            EXPECT_EQ(execOutput(ssh, "echo through"), "through\n");
        }
    }
}

}  // namespace
}  // namespace scpkit::test
