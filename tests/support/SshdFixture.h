// A throwaway OpenSSH sshd on 127.0.0.1 for integration tests: its own host
// key, client key, authorized_keys and known_hosts in a temporary directory,
// an ephemeral port, stopped by PID when the fixture is destroyed.
//
//   SshdFixture& sshd = SshdFixture::shared();   // one per test program
//   if (!sshd.ok()) GTEST_SKIP() << sshd.error();
//   ClsSsh ssh; ASSERT_TRUE(sshd.connectAndLogin(ssh));
#pragma once

#include <string>
#include <sys/types.h>

namespace scpkit {
class ClsSsh;
}

namespace scpkit::test {

struct SshdOptions {
    std::string extraConfig;   // lines appended to sshd_config (e.g. "ForceCommand ...")
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
    std::string user() const { return m_user; }            // the user running the tests
    std::string clientKeyPath() const { return m_clientKey; }  // unencrypted ed25519
    std::string knownHostsPath() const { return m_knownHosts; }  // holds the server's key
    std::string hostKeyFingerprint() const { return m_hostKeyFp; }  // SHA256:...
    std::string tempDir() const { return m_dir; }
    pid_t pid() const { return m_pid; }

    std::string passwordUser() const { return m_pwUser; }  // empty when not created
    std::string password() const { return m_pwPassword; }

    // Connects with the fixture's known_hosts and key, short timeouts.
    bool connectAndLogin(ClsSsh& ssh) const;

    // A fresh scratch directory under the fixture's temporary directory.
    std::string makeScratchDir(const std::string& name) const;

private:
    bool start(const SshdOptions& options);
    void stop();

    bool m_ok = false;
    std::string m_error;
    std::string m_dir;
    std::string m_user;
    std::string m_clientKey;
    std::string m_knownHosts;
    std::string m_hostKeyFp;
    std::string m_pwUser;
    std::string m_pwPassword;
    int m_port = 0;
    pid_t m_pid = -1;
};

}  // namespace scpkit::test
