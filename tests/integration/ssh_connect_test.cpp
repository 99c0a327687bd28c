// Connecting to and logging in on a real sshd: what is logged of the
// server, the host-key policies, ciphers, connections that cannot succeed,
// and each way of logging in.
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

bool connect(ClsSsh& ssh, const std::string& host, int port, const std::string& knownHosts,
             const char* policy = "yes", const char* ciphers = "") {
    XString kh(knownHosts.c_str()), pol(policy), ciph(ciphers), h(host.c_str());
    ssh.put_KnownHostsPath(kh);
    ssh.put_StrictHostKeyChecking(pol);
    ssh.put_Ciphers(ciph);
    ssh.put_ConnectTimeoutMs(1000);
    return ssh.Connect(h, port);
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

// Sets (or, given nothing, removes) an environment variable until scope exit.
struct ScopedEnv {
    std::string name;
    std::optional<std::string> old;
    ScopedEnv(const char* n, const std::optional<std::string>& value) : name(n) {
        if (const char* o = getenv(n)) old = o;
        value ? setenv(n, value->c_str(), 1) : unsetenv(n);
    }
    ~ScopedEnv() { old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str()); }
};

// Each login method against keys, a password and an agent holding one key
// (started for the test, stopped by its PID). A failed login leaves the
// connection up for another try; a good one runs commands as the user.
TEST(SshLogin, EveryMethod) {
    REQUIRE_SSHD(sshd);
    const std::string d = sshd.tempDir() + "/", home = sshd.makeScratchDir("home"),
                      keyedHome = sshd.makeScratchDir("home"), sock = d + "agent.sock";
    std::string agentOut;
    ASSERT_EQ(shell("ssh-keygen -q -t rsa -b 1024 -m PEM -N '' -f " + d + "pem && ssh-keygen -q " +
                        "-t ed25519 -N 'pass phrase' -f " + d + "enc && ssh-keygen -q -t ed25519 " +
                        "-N '' -f " + d + "stranger && cat " + d + "pem.pub " + d + "enc.pub >> " +
                        d + "authorized_keys && mkdir " + keyedHome + "/.ssh && cp " + d +
                        "client_ed25519 " + keyedHome + "/.ssh/id_ed25519 && ssh-agent -a " + sock +
                        " && SSH_AUTH_SOCK=" + sock + " ssh-add -q " + d + "client_ed25519",
                    &agentOut),
              0)
        << agentOut;
    const size_t at = agentOut.find("SSH_AGENT_PID=");
    ASSERT_NE(at, std::string::npos) << agentOut;
    struct Agent {
        int pid;
        ~Agent() {
            if (pid > 0) kill(pid, SIGTERM);
        }
    } agent{std::atoi(agentOut.c_str() + at + 14)};
    enum Method { Key, Password, AgentOnly, Auto };
    const struct {
        Method method;
        std::string secret, keyOrHome;  // password or passphrase; key file or $HOME
        std::optional<std::string> agentSocket;
        bool ok;
        const char* logged;
    } cases[] = {
        {Key, "", d + "client_ed25519", {}, true, "LoginWithKeyFile:"},
        {Key, "", d + "pem", {}, true, "privateKeyPath"},
        {Key, "pass phrase", d + "enc", {}, true, "privateKeyPath"},
        {Key, "", d + "enc", {}, false, "a passphrase is required"},
        {Key, "wrong", d + "enc", {}, false, "wrong passphrase"},
        {Key, "", d + "stranger", {}, false, "The server refused the key."},
        {Key, "", d + "client_ed25519.pub", {}, false, "not an OpenSSH or PEM"},
        {Key, "", d + "nope", {}, false, "cannot be read"},
        {Password, sshd.password(), "", {}, true, "LoginWithPassword:"},
        {Password, sshd.password() + "x", "", {}, false, "refused the user name and password"},
        {Password, "", "", {}, false, "No password given."},
        {AgentOnly, "", home, sock, true, "LoginWithAgent:"},
        {AgentOnly, "", home, {}, false, "SSH_AUTH_SOCK is not set"},
        {Auto, "", home, sock, true, "LoginAuto:"},
        {Auto, "", keyedHome, {}, true, "LoginAuto:"},
        {Auto, "", home, {}, false, "none of the default keys"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.method) + " " + c.keyOrHome + " " + c.secret);
        if (c.method == Password && sshd.passwordUser().empty()) continue;  // needs root
        ScopedEnv sockEnv("SSH_AUTH_SOCK", c.agentSocket);
        std::optional<ScopedEnv> homeEnv;
        if (c.method == AgentOnly || c.method == Auto) homeEnv.emplace("HOME", c.keyOrHome);
        ClsSsh ssh;
        ASSERT_TRUE(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()));
        const std::string name = c.method == Password ? sshd.passwordUser() : sshd.user();
        XString user(name.c_str()), secret(c.secret.c_str()), path(c.keyOrHome.c_str());
        const bool ok = c.method == Key         ? ssh.LoginWithKeyFile(user, path, secret)
                        : c.method == Password  ? ssh.LoginWithPassword(user, secret)
                        : c.method == AgentOnly ? ssh.LoginWithAgent(user)
                                                : ssh.LoginAuto(user);
        EXPECT_EQ(ok, c.ok);
        expectLog(lastErrorText(ssh), {c.logged, c.ok ? "Success." : "Failed."});
        EXPECT_TRUE(ssh.get_IsConnected());
        if (c.ok) {
            EXPECT_EQ(execOutput(ssh, "id -un | tr -d '\\n'"), name);
        }
    }
}

}  // namespace
}  // namespace scpkit::test
