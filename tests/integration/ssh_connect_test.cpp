// Connecting to a real sshd: what is logged of the server, the host-key
// policies, the application's ciphers, and connections that cannot succeed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tests/integration/ssh_test_util.h"

namespace scpkit::test {
namespace {

bool connect(ClsSsh& ssh, const std::string& host, int port, const std::string& knownHosts,
             const char* policy = "yes", const char* ciphers = "") {
    XString kh(knownHosts.c_str()), pol(policy), ciph(ciphers), h(host.c_str());
    ssh.put_KnownHostsPath(kh);
    ssh.put_StrictHostKeyChecking(pol);
    if (*ciphers) ssh.put_Ciphers(ciph);
    ssh.put_ConnectTimeoutMs(1000);
    return ssh.Connect(h, port);
}

TEST(SshConnect, ConnectsLogsTheServerAndDisconnects) {
    REQUIRE_SSHD(sshd);
    ClsSsh ssh;
    for (int i = 0; i < 2; ++i) {  // the second Connect replaces a live connection
        ASSERT_TRUE(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()))
            << lastErrorText(ssh);
        EXPECT_TRUE(ssh.get_IsConnected());
    }
    expectLog(lastErrorText(ssh),
              {"Connect:", "serverBanner: SSH-2.0-OpenSSH", "hostKeyType: ssh-ed25519",
               "hostKeyFingerprint: " + sshd.hostKeyFingerprint(), "Success.",
               // The fast default: AES-GCM both ways.
               "cipherClientToServer: aes128-gcm@openssh.com",
               "cipherServerToClient: aes128-gcm@openssh.com"});
    XString fp;
    ssh.get_ServerKeySha256(fp);
    EXPECT_EQ(fp.getUtf8(), sshd.hostKeyFingerprint());  // as ssh-keygen -lf prints it
    ssh.Disconnect();
    EXPECT_FALSE(ssh.get_IsConnected());
}

TEST(SshConnect, HostKeyPolicies) {
    REQUIRE_SSHD(sshd);
    enum Known { Missing, OtherKey, RightKey };
    const struct {
        const char *policy, *logged;
        Known known;
        bool connects, fileGainsKey;
    } cases[] = {
        {"yes", "not in the known_hosts file", Missing, false, false},
        {"yes", "differs from the one recorded", OtherKey, false, false},
        {"yes", "Success.", RightKey, true, false},
        {"accept-new", "Added the server's host key", Missing, true, true},
        {"accept-new", "differs from the one recorded", OtherKey, false, false},
        {"no", "Success.", Missing, true, false},
        {"no", "Success.", OtherKey, true, false},
    };
    const std::string entry = "[127.0.0.1]:" + std::to_string(sshd.port()) + " ";
    const std::string hostKey = readFile(sshd.tempDir() + "/host_ed25519.pub");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.policy) + ", known " + std::to_string(c.known));
        const std::string dir = sshd.makeScratchDir("hostkeys");
        std::string knownHosts = dir + "/sub/known_hosts";  // sub/ does not exist yet
        if (c.known == RightKey) knownHosts = sshd.knownHostsPath();
        if (c.known == OtherKey) {
            knownHosts = dir + "/known_hosts";
            ASSERT_EQ(shell("ssh-keygen -q -t ed25519 -N '' -f " + dir + "/other"), 0);
            writeFile(knownHosts, entry + readFile(dir + "/other.pub"));
        }
        const std::string before = readFile(knownHosts);
        ClsSsh ssh;
        EXPECT_EQ(connect(ssh, sshd.host(), sshd.port(), knownHosts, c.policy), c.connects);
        EXPECT_EQ(ssh.get_IsConnected(), c.connects);
        // A refusal names the file and the key, so the user can check both.
        expectLog(lastErrorText(ssh),
                  {c.logged, c.connects ? "" : "knownHostsFile: " + knownHosts,
                   c.connects ? "" : "hostKeyFingerprint: " + sshd.hostKeyFingerprint()});
        if (c.fileGainsKey) {
            expectLog(readFile(knownHosts), {entry + hostKey.substr(0, hostKey.rfind(' '))});
            ClsSsh again;  // what was recorded is trusted from now on
            EXPECT_TRUE(connect(again, sshd.host(), sshd.port(), knownHosts))
                << lastErrorText(again);
        } else {
            EXPECT_EQ(readFile(knownHosts), before);
        }
    }
}

TEST(SshConnect, CiphersAndConnectionsThatCannotSucceed) {
    REQUIRE_SSHD(sshd);
    // Two ports of our own: one accepts TCP connections (the kernel completes
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
        {"127.0.0.1", sshd.port(), "aes256-ctr", "cipherClientToServer: aes256-ctr", true},
        {"127.0.0.1", sshd.port(), "rot13", "None of the requested ciphers is supported.", false},
        {"127.0.0.1", ports[0], "", "Timeout", false},
        {"127.0.0.1", ports[1], "", "Connection refused", false},
        {"  ", 22, "", "No host name given.", false},
        {"127.0.0.1", 70000, "", "Invalid port number.", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        ClsSsh ssh;
        EXPECT_EQ(connect(ssh, c.host, c.port, sshd.knownHostsPath(), "yes", c.ciphers),
                  c.connects);
        expectLog(lastErrorText(ssh), {c.logged, c.connects ? "Success." : "Failed."});
    }
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
}  // namespace scpkit::test
