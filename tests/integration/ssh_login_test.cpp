// Logging in on a real sshd: each method, what a failure names as its
// cause, the methods the server offers and the keys left for a passphrase.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "tests/integration/ssh_test_util.h"

namespace scpkit::test {
namespace {

// Each login method against keys, a password, an agent holding one key
// (started for the test, stopped by its PID) and IdentityFile lines of a
// config. A failed login leaves the connection up for another try; a good
// one runs commands as the user.
TEST(SshLogin, EveryMethod) {
    REQUIRE_SSHD(sshd);
    const std::string d = sshd.tempDir() + "/", sock = d + "agent.sock";
    std::string agentOut;
    ASSERT_EQ(shell("ssh-keygen -q -t rsa -b 1024 -m PEM -N '' -f " + d + "pem && ssh-keygen -q " +
                        "-t ed25519 -N 'pass phrase' -f " + d + "enc && ssh-keygen -q -t ed25519 " +
                        "-N '' -f " + d + "stranger && cat " + d + "pem.pub " + d + "enc.pub >> " +
                        d + "authorized_keys && ssh-agent -a " + sock +
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
        std::string secret, key;  // password or passphrase; key file, or IdentityFile for Auto
        std::optional<std::string> agentSocket;
        bool ok;
        const char* logged;
        bool locked;  // the key is left for a passphrase
    } cases[] = {
        {Key, "", d + "client_ed25519", {}, true, "LoginWithKeyFile:", false},
        {Key, "", d + "pem", {}, true, "privateKeyPath", false},
        {Key, "pass phrase", d + "enc", {}, true, "privateKeyPath", false},
        {Key, "", d + "enc", {}, false, "a passphrase is required", true},
        {Key, "wrong", d + "enc", {}, false, "wrong passphrase", true},
        {Key, "", d + "stranger", {}, false, "The server refused the key.", false},
        {Key, "", d + "client_ed25519.pub", {}, false, "not an OpenSSH or PEM", false},
        {Key, "", d + "nope", {}, false, "nope cannot be read.\n    osError: No such file", false},
        {Password, sshd.password(), "", {}, true, "LoginWithPassword:", false},
        {Password,
         sshd.password() + "x",
         "",
         {},
         false,
         "refused the user name and password",
         false},
        {Password, "", "", {}, false, "No password given.", false},
        {AgentOnly, "", "", sock, true, "agentKeyTried: ", false},
        {AgentOnly, "", "", {}, false, "SSH_AUTH_SOCK is not set", false},
        {Auto, "", "", sock, true, "LoginAuto:", false},
        {Auto, "", d + "client_ed25519", {}, true, "client_ed25519: accepted", false},
        {Auto, "", d + "stranger", {}, false, "stranger: refused by the server", false},
        {Auto, "", d + "enc", {}, false, "enc is encrypted and no passphrase was given", true},
        {Auto, "", d + "nope", {}, false, "nope cannot be read.\n    osError: No such file", false},
        {Auto, "", "", {}, false, "none of the default keys", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.method) + " " + c.key + " " + c.secret);
        if (c.method == Password && sshd.passwordUser().empty()) continue;  // needs root
        ScopedEnv sockEnv("SSH_AUTH_SOCK", c.agentSocket);
        ClsSsh ssh;
        XString config((d + "config." + std::to_string(&c - cases)).c_str());
        writeFile(config.getUtf8(),
                  c.method == Auto && !c.key.empty() ? "IdentityFile " + c.key : "");
        ssh.put_UseSshConfig(true);
        ssh.put_SshConfigPath(config);
        ASSERT_TRUE(connect(ssh, sshd.host(), sshd.port(), sshd.knownHostsPath()));
        const std::string name = c.method == Password ? sshd.passwordUser() : sshd.user();
        XString user(name.c_str()), secret(c.secret.c_str()), path(c.key.c_str()), locked, methods;
        const bool ok = c.method == Key         ? ssh.LoginWithKeyFile(user, path, secret)
                        : c.method == Password  ? ssh.LoginWithPassword(user, secret)
                        : c.method == AgentOnly ? ssh.LoginWithAgent(user)
                                                : ssh.LoginAuto(user);
        EXPECT_EQ(ok, c.ok);
        expectLog(lastErrorText(ssh), {c.logged, c.ok ? "Success." : "Failed."});
        EXPECT_TRUE(ssh.get_IsConnected());
        ssh.get_KeysNeedingPassphrase(locked);
        EXPECT_EQ(locked.getUtf8(), c.locked ? c.key + "\n" : "");
        ssh.get_AuthMethods(methods);
        EXPECT_EQ(methods.getUtf8(), std::string("publickey,password"));
        if (c.ok) {
            EXPECT_EQ(execOutput(ssh, "id -un | tr -d '\\n'"), name);
        }
    }
}

}  // namespace
}  // namespace scpkit::test
