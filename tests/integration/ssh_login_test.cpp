// Logging in to a real sshd: key files, password, ssh-agent, and the
// automatic order (agent, then the default keys).
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "tests/integration/ssh_test_util.h"

namespace scpkit::test {
namespace {

constexpr const char* kPassphrase = "correct horse";

// A key of the fixture's directory; made, with the authorized ones added to
// authorized_keys, on first use: "pem" (PEM RSA), "enc" (with a passphrase),
// "stranger" (not authorized), and the fixture's own "client_ed25519".
std::string key(const SshdFixture& sshd, const std::string& name) {
    const std::string d = sshd.tempDir() + "/";
    static const int made =
        shell("ssh-keygen -q -t rsa -b 1024 -m PEM -N '' -f " + d +
              "pem && ssh-keygen -q -t ed25519 -N '" + kPassphrase + "' -f " + d +
              "enc && ssh-keygen -q -t ed25519 -N '' -f " + d + "stranger && cat " + d +
              "pem.pub " + d + "enc.pub >> " + d + "authorized_keys");
    EXPECT_EQ(made, 0);
    return d + name;
}

bool connectOnly(ClsSsh& ssh, const SshdFixture& sshd) {
    XString kh(sshd.knownHostsPath().c_str()), host(sshd.host().c_str());
    ssh.put_KnownHostsPath(kh);
    return ssh.Connect(host, sshd.port());
}

// A login's outcome: its result, its log, and still connected either way
// (another method may be tried); the remote user when it worked.
void expectLogin(ClsSsh& ssh, bool ok, bool expected, const char* logged, const std::string& user) {
    EXPECT_EQ(ok, expected);
    expectLog(lastErrorText(ssh), {logged, expected ? "Success." : "Failed."});
    EXPECT_TRUE(ssh.get_IsConnected());
    if (!expected) return;
    EXPECT_EQ(execOutput(ssh, "id -un | tr -d '\\n'"), user);
}

TEST(SshLogin, KeyFiles) {
    REQUIRE_SSHD(sshd);
    const struct {
        const char *key, *passphrase, *logged;
        bool ok;
    } cases[] = {
        {"client_ed25519", "", "LoginWithKeyFile:", true},
        {"pem", "", "LoginWithKeyFile:", true},
        {"enc", kPassphrase, "LoginWithKeyFile:", true},
        {"enc", "", "a passphrase is required", false},
        {"enc", "wrong", "wrong passphrase", false},
        {"stranger", "", "The server refused the key.", false},
        {"client_ed25519.pub", "", "not an OpenSSH or PEM", false},
        {"nope", "", "cannot be read", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " / " + c.passphrase);
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.user().c_str()), path(key(sshd, c.key).c_str()), pass(c.passphrase);
        expectLogin(ssh, ssh.LoginWithKeyFile(user, path, pass), c.ok, c.logged, sshd.user());
    }
}

TEST(SshLogin, Password) {
    REQUIRE_SSHD(sshd);
    if (sshd.passwordUser().empty()) GTEST_SKIP() << "needs the password user (root)";
    const struct {
        std::string password;
        bool ok;
        const char* logged;
    } cases[] = {
        {sshd.password(), true, "LoginWithPassword:"},
        {sshd.password() + "x", false, "The server refused the user name and password."},
        {"", false, "No password given."},
    };
    for (const auto& c : cases) {
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.passwordUser().c_str()), pw(c.password.c_str());
        expectLogin(ssh, ssh.LoginWithPassword(user, pw), c.ok, c.logged, sshd.passwordUser());
    }
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

// An ssh-agent on its own socket holding one key, stopped by its PID.
struct TestAgent {
    std::string socket;
    int pid = -1;
    TestAgent(const std::string& dir, const std::string& key) : socket(dir + "/agent.sock") {
        std::string out;
        const int rc = shell(
            "ssh-agent -a " + socket + " && SSH_AUTH_SOCK=" + socket + " ssh-add -q " + key, &out);
        EXPECT_EQ(rc, 0) << out;
        const size_t at = out.find("SSH_AGENT_PID=");
        if (at != std::string::npos) pid = std::atoi(out.c_str() + at + 14);
    }
    ~TestAgent() {
        if (pid > 0) kill(pid, SIGTERM);
    }
};

TEST(SshLogin, AgentAndAutomaticOrder) {
    REQUIRE_SSHD(sshd);
    TestAgent good(sshd.makeScratchDir("agent"), key(sshd, "client_ed25519"));
    TestAgent stranger(sshd.makeScratchDir("agent"), key(sshd, "stranger"));
    const std::string emptyHome = sshd.makeScratchDir("home"),
                      keyedHome = sshd.makeScratchDir("home");
    ASSERT_EQ(shell("mkdir " + keyedHome + "/.ssh && cp " + key(sshd, "client_ed25519") + " " +
                    keyedHome + "/.ssh/id_ed25519"),
              0);
    const struct {
        bool agentOnly;
        std::optional<std::string> agent;
        std::string home;
        bool ok;
        const char* logged;
    } cases[] = {
        {true, good.socket, emptyHome, true, "LoginWithAgent:"},
        {true, stranger.socket, emptyHome, false, "accepted none of the agent's keys"},
        {true, std::nullopt, emptyHome, false, "SSH_AUTH_SOCK is not set"},
        {false, good.socket, emptyHome, true, "LoginAuto:"},
        {false, std::nullopt, keyedHome, true, "LoginAuto:"},
        {false, stranger.socket, keyedHome, true, "LoginAuto:"},
        {false, stranger.socket, emptyHome, false, "none of the default keys"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.agentOnly ? "agent: " : "auto: ") + c.agent.value_or("none") +
                     ", " + c.home);
        ScopedEnv sock("SSH_AUTH_SOCK", c.agent), home("HOME", c.home);
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.user().c_str());
        const bool ok = c.agentOnly ? ssh.LoginWithAgent(user) : ssh.LoginAuto(user);
        expectLogin(ssh, ok, c.ok, c.logged, sshd.user());
    }
}

}  // namespace
}  // namespace scpkit::test
