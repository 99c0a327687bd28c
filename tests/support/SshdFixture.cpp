#include "tests/support/SshdFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <thread>

#include <scpkit/base/XString.h>
#include <scpkit/ssh/ClsSsh.h>
#include "tests/support/TestKit.h"

extern char** environ;

namespace scpkit::test {

int shell(const std::string& command, std::string* output) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return -1;
    std::string out;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (output) *output = out;
    const int status = pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {

constexpr const char* kPasswordUser = "scpkittest";
constexpr const char* kPassword = "Scpkit-test-pw-7351";

// With a port: whether something accepts connections there. With 0: a
// loopback port nobody listens on right now (the kernel's pick).
int probeLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t len = sizeof addr;
    auto* sa = reinterpret_cast<sockaddr*>(&addr);
    int result = port ? connect(fd, sa, len) == 0
                 : bind(fd, sa, len) == 0 && getsockname(fd, sa, &len) == 0 ? ntohs(addr.sin_port)
                                                                            : -1;
    close(fd);
    return result;
}

// The local account for password logins. Test programs of other worktrees
// may hold the account database's lock at the same moment: retry.
bool ensurePasswordUser() {
    for (int attempt = 0; attempt < 10; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt * 200));
        if ((getpwnam(kPasswordUser) ||
             shell(std::string("useradd -m -s /bin/sh ") + kPasswordUser) == 0) &&
            shell(std::string("echo '") + kPasswordUser + ":" + kPassword + "' | chpasswd") == 0)
            return true;
    }
    return false;
}

}  // namespace

SshdFixture::SshdFixture(const SshdOptions& options) {
    m_ok = start(options);
}

SshdFixture::~SshdFixture() {
    stop();
    std::error_code ec;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
}

SshdFixture& SshdFixture::shared() {
    static SshdFixture fixture([] {
        SshdOptions options;
        options.withPasswordUser = geteuid() == 0;
        return options;
    }());
    return fixture;
}

bool SshdFixture::fail(const std::string& why) {
    m_error = why;
    stop();
    return false;
}

bool SshdFixture::start(const SshdOptions& options) {
    char templ[] = "/tmp/scpkit-sshd-XXXXXX";
    if (geteuid() != 0) return fail("the test sshd needs root");
    if (access("/usr/sbin/sshd", X_OK) != 0 || !mkdtemp(templ))
        return fail("no /usr/sbin/sshd, or no temporary directory");
    m_dir = templ;
    mkdir("/run/sshd", 0755);  // sshd's privilege-separation directory
    const std::string hostKey = m_dir + "/host_ed25519";
    m_clientKey = m_dir + "/client_ed25519";
    std::string out;
    if (shell("ssh-keygen -q -t ed25519 -N '' -f " + hostKey +
                  " && ssh-keygen -q -t ed25519 -N '' -f " + m_clientKey + " && cp " + m_clientKey +
                  ".pub " + m_dir + "/authorized_keys && ssh-keygen -lf " + hostKey + ".pub",
              &out) != 0)
        return fail("ssh-keygen failed: " + out);
    std::istringstream(out) >> m_hostKeyFp >> m_hostKeyFp;  // "256 SHA256:... comment"
    const passwd* pw = getpwuid(geteuid());
    m_user = pw ? pw->pw_name : "root";
    if (options.withPasswordUser && ensurePasswordUser()) {
        m_pwUser = kPasswordUser;
        m_pwPassword = kPassword;
    }
    // Another program may take the port between our pick and sshd's bind: then the next one.
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = probeLoopback(0);
        // The caller's lines first: sshd keeps the first value of a keyword.
        writeFile(m_dir + "/sshd_config",
                  options.extraConfig + "\nListenAddress 127.0.0.1\nPort " +
                      std::to_string(m_port) + "\nHostKey " + hostKey + "\nPidFile " + m_dir +
                      "/sshd.pid\nAuthorizedKeysFile " + m_dir +
                      "/authorized_keys\nUsePAM no\nStrictModes no\nAcceptEnv LANG LC_*\n"
                      "PermitRootLogin prohibit-password\nPasswordAuthentication yes\n"
                      "KbdInteractiveAuthentication no\nSubsystem sftp internal-sftp\n");
        // setpriv execs sshd in place (same PID) with a parent-death signal,
        // so a test program that is killed cannot leave its sshd running.
        std::string command = "exec setpriv --pdeathsig TERM -- /usr/sbin/sshd -D -e -f " + m_dir +
                              "/sshd_config >" + m_dir + "/sshd.log 2>&1";
        char sh[] = "/bin/sh", dashC[] = "-c";
        char* argv[] = {sh, dashC, command.data(), nullptr};
        if (posix_spawn(&m_pid, sh, nullptr, nullptr, argv, environ) != 0) m_pid = -1;
        // Up to 10 s for sshd to listen, or to give up on the port.
        for (int i = 0; i < 200 && m_pid > 0; ++i) {
            if (waitpid(m_pid, nullptr, WNOHANG) != 0) m_pid = -1;  // sshd gave up
            if (m_pid > 0 && probeLoopback(m_port) == 1) {
                m_knownHosts = m_dir + "/known_hosts";
                writeFile(m_knownHosts, "[127.0.0.1]:" + std::to_string(m_port) + " " +
                                            readFile(hostKey + ".pub"));
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        stop();
        const std::string log = readFile(m_dir + "/sshd.log");
        if (log.find("Address already in use") == std::string::npos)
            return fail("sshd did not start: " + log);
    }
    return fail("sshd found no free port");
}

void SshdFixture::stop() {
    if (m_pid > 0 && kill(m_pid, SIGTERM) == 0) waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

bool SshdFixture::connectAndLogin(ClsSsh& ssh, int connectTimeoutMs) const {
    XString knownHosts(m_knownHosts.c_str()), host("127.0.0.1"), user(m_user.c_str());
    XString key(m_clientKey.c_str()), noPassphrase;
    ssh.put_KnownHostsPath(knownHosts);
    ssh.put_ConnectTimeoutMs(connectTimeoutMs);
    ssh.put_StallTimeoutMs(20000);
    return m_ok && ssh.Connect(host, m_port) && ssh.LoginWithKeyFile(user, key, noPassphrase);
}

std::string SshdFixture::makeScratchDir(const std::string& name) const {
    static std::atomic<int> counter{0};
    const std::string path = m_dir + "/" + name + "." + std::to_string(++counter);
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    return ec ? std::string() : path;
}

}  // namespace scpkit::test
