// Logging in to a real sshd: password, key files of each kind, ssh-agent,
// and the automatic order (agent, then default keys).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/DataBuffer.h"
#include "base/Logger.h"
#include "base/Progress.h"
#include "ssh/ClsSsh.h"
#include "tests/integration/ssh_test_util.h"
#include "tests/support/SshdFixture.h"

extern char** environ;

namespace scpkit::test {
namespace {

#define REQUIRE_SSHD(sshd)                     \
    SshdFixture& sshd = SshdFixture::shared(); \
    if (!sshd.ok()) GTEST_SKIP() << "no test sshd: " << sshd.error()

bool connectOnly(ClsSsh& ssh, const SshdFixture& sshd) {
    XString kh(sshd.knownHostsPath().c_str());
    ssh.put_KnownHostsPath(kh);
    ssh.put_ConnectTimeoutMs(10000);
    ssh.put_StallTimeoutMs(10000);
    XString host(sshd.host().c_str());
    return ssh.Connect(host, sshd.port());
}

// The remote user name as the server sees it, through a channel.
std::string remoteWhoami(ClsSsh& ssh) {
    _vqLogger log;
    SocketParams sp(nullptr);
    int ch = ssh.openSessionChannel(sp, log);
    if (ch < 0) return "<no channel>";
    XString cmd("id -un");
    SshReadParams rp;
    if (!ssh.sendReqExec(ch, cmd, sp, log) || !ssh.channelReceiveUntilCondition(ch, 1, rp, sp, log))
        return "<failed> " + rendered(log);
    DataBuffer out;
    ssh.getReceivedData(ch, out, log);
    std::string s(reinterpret_cast<const char*>(out.getData2()), out.getSize());
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

// Keys of every kind the login must handle, made once; the authorized ones
// are appended to the fixture's authorized_keys.
struct KeySet {
    std::string dir;
    std::string opensshPlain, pemRsa, pemEcdsa, opensshEnc, pemEnc, unauthorized;
    static constexpr const char* kPassphrase = "correct horse";
};

const KeySet& keys(const SshdFixture& sshd) {
    static KeySet set;
    static std::once_flag once;
    std::call_once(once, [&] {
        set.dir = sshd.makeScratchDir("keys");
        auto make = [&](const char* name, const char* args, const char* pass, bool authorize) {
            std::string path = set.dir + "/" + name;
            std::string out;
            EXPECT_EQ(
                shell(std::string("ssh-keygen -q ") + args + " -N '" + pass + "' -f " + path, &out),
                0)
                << out;
            if (authorize) {
                EXPECT_EQ(shell("cat " + path + ".pub >> " + sshd.tempDir() + "/authorized_keys"),
                          0);
            }
            return path;
        };
        set.opensshPlain = sshd.clientKeyPath();
        set.pemRsa = make("pem_rsa", "-t rsa -b 1024 -m PEM", "", true);
        set.pemEcdsa = make("pem_ecdsa", "-t ecdsa -m PEM", "", true);
        set.opensshEnc = make("openssh_enc", "-t ed25519", KeySet::kPassphrase, true);
        set.pemEnc = make("pem_enc", "-t rsa -b 1024 -m PEM", KeySet::kPassphrase, true);
        set.unauthorized = make("stranger", "-t ed25519", "", false);
    });
    return set;
}

TEST(SshLogin, KeyFilesOfEachKind) {
    REQUIRE_SSHD(sshd);
    const KeySet& k = keys(sshd);
    struct Case {
        const char* name;
        std::string path;
        const char* passphrase;
        bool ok;
        const char* expected;  // in LastErrorText when it fails
    };
    const Case cases[] = {
        {"openssh ed25519", k.opensshPlain, "", true, ""},
        {"pem rsa", k.pemRsa, "", true, ""},
        {"pem ecdsa", k.pemEcdsa, "", true, ""},
        {"openssh encrypted, passphrase", k.opensshEnc, KeySet::kPassphrase, true, ""},
        {"pem encrypted, passphrase", k.pemEnc, KeySet::kPassphrase, true, ""},
        {"openssh encrypted, none", k.opensshEnc, "", false, "a passphrase is required"},
        {"pem encrypted, none", k.pemEnc, "", false, "a passphrase is required"},
        {"openssh encrypted, wrong", k.opensshEnc, "wrong", false, "wrong passphrase"},
        {"not authorized", k.unauthorized, "", false, "The server refused the key."},
        {"public key file", k.opensshPlain + ".pub", "", false, "not an OpenSSH or PEM"},
        {"missing file", k.dir + "/nope", "", false, "cannot be read"},
        {"directory", k.dir, "", false, "not a file"},
        {"empty path", "", "", false, "No private key file given."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.user().c_str());
        XString path(c.path.c_str());
        XString pass(c.passphrase);
        EXPECT_EQ(ssh.LoginWithKeyFile(user, path, pass), c.ok);
        std::string log = lastErrorText(ssh);
        EXPECT_NE(log.find("LoginWithKeyFile:"), std::string::npos) << log;
        if (c.ok) {
            EXPECT_NE(log.find("Success."), std::string::npos) << log;
            EXPECT_TRUE(ssh.get_IsConnected());
        } else {
            EXPECT_NE(log.find(c.expected), std::string::npos) << log;
            EXPECT_NE(log.find("Failed."), std::string::npos) << log;
            // Still connected: another method may be tried.
            EXPECT_TRUE(ssh.get_IsConnected());
        }
    }
}

TEST(SshLogin, Password) {
    REQUIRE_SSHD(sshd);
    if (sshd.passwordUser().empty()) GTEST_SKIP() << "needs the password user (root)";
    struct Case {
        std::string password;
        bool ok;
        const char* expected;
    };
    const Case cases[] = {
        {sshd.password(), true, "Success."},
        {sshd.password() + "x", false, "The server refused the user name and password."},
        {"", false, "No password given."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.password);
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.passwordUser().c_str());
        XString pw(c.password.c_str());
        EXPECT_EQ(ssh.LoginWithPassword(user, pw), c.ok);
        std::string log = lastErrorText(ssh);
        EXPECT_NE(log.find(c.expected), std::string::npos) << log;
        if (c.ok) {
            EXPECT_EQ(remoteWhoami(ssh), sshd.passwordUser());
        }
    }
}

TEST(SshLogin, NeedsAConnection) {
    ClsSsh ssh;
    XString user("root");
    XString pw("x");
    XString none;
    EXPECT_FALSE(ssh.LoginWithPassword(user, pw));
    EXPECT_NE(lastErrorText(ssh).find("Not connected to an SSH server"), std::string::npos);
    EXPECT_FALSE(ssh.LoginWithKeyFile(user, pw, none));
    EXPECT_FALSE(ssh.LoginWithAgent(user));
    EXPECT_FALSE(ssh.LoginAuto(user));
    EXPECT_NE(lastErrorText(ssh).find("LoginAuto:"), std::string::npos);
}

// An ssh-agent on its own socket, started in the foreground so that its
// PID is ours to stop.
class TestAgent {
  public:
    explicit TestAgent(const std::string& dir) : m_socket(dir + "/agent.sock") {
        std::vector<std::string> args = {"/usr/bin/ssh-agent", "-D", "-a", m_socket};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        if (posix_spawn(&m_pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        struct stat st;
        for (int i = 0; i < 100 && m_pid > 0 && stat(m_socket.c_str(), &st) != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ~TestAgent() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            int status;
            waitpid(m_pid, &status, 0);
        }
    }
    bool running() const { return m_pid > 0; }
    const std::string& socket() const { return m_socket; }
    bool add(const std::string& key) {
        std::string out;
        bool ok = shell("SSH_AUTH_SOCK=" + m_socket + " ssh-add -q " + key, &out) == 0;
        EXPECT_TRUE(ok) << out;
        return ok;
    }

  private:
    std::string m_socket;
    pid_t m_pid = -1;
};

TEST(SshLogin, AgentAndAutomaticOrder) {
    REQUIRE_SSHD(sshd);
    const KeySet& k = keys(sshd);
    TestAgent goodAgent(sshd.makeScratchDir("agent"));
    TestAgent strangerAgent(sshd.makeScratchDir("agent"));
    ASSERT_TRUE(goodAgent.running() && strangerAgent.running());
    ASSERT_TRUE(goodAgent.add(k.opensshPlain));
    ASSERT_TRUE(strangerAgent.add(k.unauthorized));

    std::string emptyHome = sshd.makeScratchDir("emptyhome");
    std::string keyedHome = sshd.makeScratchDir("keyedhome");
    ASSERT_EQ(shell("mkdir -p " + keyedHome + "/.ssh && cp " + k.opensshPlain + " " + keyedHome +
                    "/.ssh/id_ed25519"),
              0);

    enum Method { Agent, Auto };
    struct Case {
        const char* name;
        Method method;
        std::optional<std::string> agentSocket;
        std::string home;
        bool ok;
        const char* expected;
    };
    const Case cases[] = {
        {"agent with the key", Agent, goodAgent.socket(), emptyHome, true, "Success."},
        {"agent without it", Agent, strangerAgent.socket(), emptyHome, false,
         "accepted none of the agent's keys"},
        {"no agent", Agent, std::nullopt, emptyHome, false, "SSH_AUTH_SOCK is not set"},
        {"auto: agent", Auto, goodAgent.socket(), emptyHome, true, "Success."},
        {"auto: default key", Auto, std::nullopt, keyedHome, true, "Success."},
        {"auto: agent without it, default key", Auto, strangerAgent.socket(), keyedHome, true,
         "Success."},
        {"auto: nothing", Auto, strangerAgent.socket(), emptyHome, false,
         "none of the default keys"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScopedEnv sock("SSH_AUTH_SOCK", c.agentSocket);
        ScopedEnv home("HOME", c.home);
        ClsSsh ssh;
        ASSERT_TRUE(connectOnly(ssh, sshd)) << lastErrorText(ssh);
        XString user(sshd.user().c_str());
        bool ok = c.method == Agent ? ssh.LoginWithAgent(user) : ssh.LoginAuto(user);
        EXPECT_EQ(ok, c.ok);
        std::string log = lastErrorText(ssh);
        EXPECT_NE(log.find(c.method == Agent ? "LoginWithAgent:" : "LoginAuto:"),
                  std::string::npos);
        EXPECT_NE(log.find(c.expected), std::string::npos) << log;
        if (ok) {
            EXPECT_EQ(remoteWhoami(ssh), sshd.user());
        }
    }
}

}  // namespace
}  // namespace scpkit::test
