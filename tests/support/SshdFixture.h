// A throwaway OpenSSH sshd on 127.0.0.1 for integration tests: its own host
// key, client key, authorized_keys and known_hosts in a temporary directory,
// a free port, stopped by PID when the fixture is destroyed (and, through a
// parent-death signal, when the test program dies).
//
//   SshdFixture& sshd = SshdFixture::shared();   // one per test program
//   if (!sshd.ok()) GTEST_SKIP() << sshd.error();
//   ClsSsh ssh; ASSERT_TRUE(sshd.connectAndLogin(ssh));
#pragma once

#include <sys/types.h>

#include <string>

namespace scpkit {
class ClsSsh;
}

namespace scpkit::test {

struct SshdOptions {
    std::string extraConfig;        // sshd_config lines that win over the defaults
    bool withPasswordUser = false;  // create a local user with a password (needs root)
};

class SshdFixture {
  public:
    explicit SshdFixture(const SshdOptions& options = SshdOptions());
    ~SshdFixture();  // stops sshd by PID and removes the temporary directory
    SshdFixture(const SshdFixture&) = delete;
    SshdFixture& operator=(const SshdFixture&) = delete;

    // The fixture shared by all tests of a program (started on first use).
    static SshdFixture& shared();

    bool ok() const { return m_ok; }
    const std::string& error() const { return m_error; }

    std::string host() const { return "127.0.0.1"; }
    int port() const { return m_port; }
    std::string user() const { return m_user; }                     // the user running the tests
    std::string clientKeyPath() const { return m_clientKey; }       // unencrypted ed25519
    std::string knownHostsPath() const { return m_knownHosts; }     // holds the server's key
    std::string hostKeyFingerprint() const { return m_hostKeyFp; }  // as ssh-keygen -lf prints it
    std::string tempDir() const { return m_dir; }  // host_ed25519.pub, authorized_keys, ...
    pid_t pid() const { return m_pid; }

    std::string passwordUser() const { return m_pwUser; }  // empty when not created
    std::string password() const { return m_pwPassword; }

    // Connects with the fixture's known_hosts and key.
    bool connectAndLogin(ClsSsh& ssh, int connectTimeoutMs = 10000) const;

    // A fresh scratch directory under the fixture's temporary directory.
    std::string makeScratchDir(const std::string& name) const;

  private:
    bool start(const SshdOptions& options);
    bool fail(const std::string& why);
    void stop();

    bool m_ok = false;
    std::string m_error, m_dir, m_user, m_clientKey, m_knownHosts, m_hostKeyFp;
    std::string m_pwUser, m_pwPassword;
    int m_port = 0;
    pid_t m_pid = -1;
};

// Runs a command through /bin/sh; its exit status (-1 when it could not run),
// with what it wrote on both streams in *output.
int shell(const std::string& command, std::string* output = nullptr);

}  // namespace scpkit::test
