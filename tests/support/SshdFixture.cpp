// A throwaway OpenSSH sshd on loopback for the integration tests.
#include "tests/support/SshdFixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "base/XString.h"
#include "ssh/ClsSsh.h"

extern char** environ;

namespace scpkit::test {

namespace {

constexpr const char* kSshd = "/usr/sbin/sshd";
constexpr const char* kSetpriv = "/usr/bin/setpriv";
constexpr const char* kKeygen = "/usr/bin/ssh-keygen";
constexpr const char* kPasswordUser = "scpkittest";
constexpr const char* kPassword = "Scpkit-test-pw-7351";

// Runs a program with arguments (no shell), its output captured; -1 when it
// could not run, else its exit status.
int runProgram(const std::vector<std::string>& args, std::string* output = nullptr,
               const std::string& input = "") {
    int outPipe[2];
    int inPipe[2];
    if (pipe(outPipe) != 0) return -1;
    if (pipe(inPipe) != 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 2);
    posix_spawn_file_actions_addclose(&actions, inPipe[1]);
    posix_spawn_file_actions_addclose(&actions, outPipe[0]);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(inPipe[0]);
    close(outPipe[1]);
    if (rc != 0) {
        close(inPipe[1]);
        close(outPipe[0]);
        return -1;
    }
    if (!input.empty() && ::write(inPipe[1], input.data(), input.size()) < 0) {
        // the program's exit status tells what went wrong
    }
    close(inPipe[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(outPipe[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    close(outPipe[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (output) *output = out;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string trimEnd(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

// A port nobody listens on right now (the kernel's pick for port 0).
int freeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

bool portAnswers(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

std::string currentUser() {
    struct passwd* pw = getpwuid(geteuid());
    return pw && pw->pw_name ? pw->pw_name : "";
}

// The local account for password logins, created on first use.
bool ensurePasswordUser(std::string& error) {
    // Test programs of other worktrees may do the same at the same moment:
    // the account database is locked while one of them writes, so retry.
    for (int attempt = 0; attempt < 10; ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
        if (!getpwnam(kPasswordUser) &&
            runProgram({"useradd", "-m", "-s", "/bin/sh", kPasswordUser}) != 0)
            continue;
        if (runProgram({"chpasswd"}, nullptr,
                       std::string(kPasswordUser) + ":" + kPassword + "\n") == 0)
            return true;
    }
    error = "cannot create the password test user (useradd/chpasswd failed)";
    return false;
}

}  // namespace

SshdFixture::SshdFixture(const SshdOptions& options) {
    m_ok = start(options);
    if (!m_ok) stop();
}

SshdFixture::~SshdFixture() {
    stop();
    if (!m_dir.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
}

SshdFixture& SshdFixture::shared() {
    static SshdFixture fixture([] {
        SshdOptions options;
        options.withPasswordUser = geteuid() == 0;
        return options;
    }());
    return fixture;
}

bool SshdFixture::start(const SshdOptions& options) {
    if (access(kSshd, X_OK) != 0 || access(kKeygen, X_OK) != 0) {
        m_error = "OpenSSH server or ssh-keygen not installed";
        return false;
    }
    if (geteuid() != 0) {
        m_error = "the test sshd needs root";
        return false;
    }
    char templ[] = "/tmp/scpkit-sshd-XXXXXX";
    if (!mkdtemp(templ)) {
        m_error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    m_dir = templ;
    mkdir("/run/sshd", 0755);  // sshd's privilege-separation directory

    std::string hostKey = m_dir + "/host_ed25519";
    m_clientKey = m_dir + "/client_ed25519";
    for (const auto& [path, comment] :
         {std::pair{hostKey, "scpkit-test-host"}, std::pair{m_clientKey, "scpkit-test-client"}}) {
        std::string out;
        if (runProgram({kKeygen, "-q", "-t", "ed25519", "-N", "", "-C", comment, "-f", path},
                       &out) != 0) {
            m_error = "ssh-keygen failed: " + out;
            return false;
        }
    }
    std::string authorized = m_dir + "/authorized_keys";
    if (!writeFile(authorized, readFile(m_clientKey + ".pub"))) {
        m_error = "cannot write authorized_keys";
        return false;
    }
    std::string fpLine;
    if (runProgram({kKeygen, "-lf", hostKey + ".pub"}, &fpLine) != 0) {
        m_error = "ssh-keygen -lf failed: " + fpLine;
        return false;
    }
    std::istringstream fields(fpLine);
    std::string bits;
    fields >> bits >> m_hostKeyFp;

    m_user = currentUser();
    if (options.withPasswordUser && ensurePasswordUser(m_error)) {
        m_pwUser = kPasswordUser;
        m_pwPassword = kPassword;
    }
    m_error.clear();

    std::string config = m_dir + "/sshd_config";
    std::string logPath = m_dir + "/sshd.log";
    for (int attempt = 0; attempt < 5; ++attempt) {
        m_port = freeLoopbackPort();
        if (m_port <= 0) {
            m_error = "no free port";
            return false;
        }
        // sshd keeps the first value of a keyword, so the caller's lines go
        // first; a Match block must come last, as it runs to the end.
        bool hasMatch = options.extraConfig.find("Match ") != std::string::npos;
        std::ostringstream conf;
        if (!hasMatch) conf << options.extraConfig << "\n";
        conf << "ListenAddress 127.0.0.1\n"
             << "Port " << m_port << "\n"
             << "HostKey " << hostKey << "\n"
             << "PidFile " << m_dir << "/sshd.pid\n"
             << "UsePAM no\n"
             << "StrictModes no\n"
             << "AuthorizedKeysFile " << authorized << "\n"
             << "AcceptEnv LANG LC_*\n"
             << "PermitRootLogin prohibit-password\n"
             << "PasswordAuthentication yes\n"
             << "KbdInteractiveAuthentication no\n"
             << "Subsystem sftp internal-sftp\n";
        if (hasMatch) conf << options.extraConfig << "\n";
        if (!writeFile(config, conf.str())) {
            m_error = "cannot write sshd_config";
            return false;
        }

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0600);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        // setpriv execs sshd in place (same PID) with a parent-death signal,
        // so a test program that is killed cannot leave its sshd running.
        std::vector<std::string> args = {kSetpriv, "--pdeathsig", "TERM", "--", kSshd,
                                         "-f",     config,        "-D",   "-e"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, kSetpriv, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            m_error = std::string("cannot start sshd: ") + std::strerror(rc);
            return false;
        }
        m_pid = pid;

        // Up to 10 s for sshd to listen, or to give up on the port.
        bool exited = false;
        for (int i = 0; i < 200; ++i) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                exited = true;
                m_pid = -1;
                break;
            }
            if (portAnswers(m_port)) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!exited && portAnswers(m_port)) {
            m_knownHosts = m_dir + "/known_hosts";
            std::string entry = "[127.0.0.1]:" + std::to_string(m_port) + " " +
                                trimEnd(readFile(hostKey + ".pub")) + "\n";
            if (!writeFile(m_knownHosts, entry)) {
                m_error = "cannot write known_hosts";
                return false;
            }
            return true;
        }
        std::string log = readFile(logPath);
        stop();
        if (log.find("Address already in use") == std::string::npos) {
            m_error = "sshd did not start: " + log;
            return false;
        }
        // Someone took the port between our probe and sshd's bind: next one.
    }
    m_error = "sshd found no free port";
    return false;
}

void SshdFixture::stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        int status = 0;
        bool reaped = false;
        for (int i = 0; i < 100 && !reaped; ++i) {
            pid_t r = waitpid(m_pid, &status, WNOHANG);
            reaped = r == m_pid || (r < 0 && errno == ECHILD);
            if (!reaped) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        if (!reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
        }
        m_pid = -1;
    }
}

bool SshdFixture::connectAndLogin(ClsSsh& ssh) const {
    if (!m_ok) return false;
    XString knownHosts(m_knownHosts.c_str());
    ssh.put_KnownHostsPath(knownHosts);
    ssh.put_ConnectTimeoutMs(10000);
    ssh.put_StallTimeoutMs(20000);
    XString host(this->host().c_str());
    XString user(m_user.c_str());
    XString key(m_clientKey.c_str());
    XString noPassphrase;
    return ssh.Connect(host, m_port) && ssh.LoginWithKeyFile(user, key, noPassphrase);
}

std::string SshdFixture::makeScratchDir(const std::string& name) const {
    static std::atomic<int> counter{0};
    std::string path = m_dir + "/" + name + "." + std::to_string(++counter);
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    std::filesystem::create_directories(path, ec);
    return ec ? std::string() : path;
}

}  // namespace scpkit::test
