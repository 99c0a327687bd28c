// ClsSsh: connecting, checking the server's host key, logging in, and the
// connection properties. The channel operations are in ClsSsh.cpp.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <scpkit/base/CritSec.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

constexpr int kDefaultConnectTimeoutMs = 30000;

std::string trimmed(const XString& text) {
    std::string s = text.getUtf8();
    const char* blanks = " \t\r\n";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

std::string sshDir() {
    std::string home = LibsshTransport::userHomeDir();
    return home.empty() ? std::string() : home + "/.ssh";
}

std::string effectiveKnownHosts(const XString& configured) {
    std::string path = trimmed(configured);
    if (!path.empty()) return path;
    std::string dir = sshDir();
    return dir.empty() ? std::string() : dir + "/known_hosts";
}

// "~/x" as the user's home, like the shell.
std::string expandHome(const std::string& path) {
    if (path.size() >= 2 && path[0] == '~' && path[1] == '/') {
        std::string home = LibsshTransport::userHomeDir();
        if (!home.empty()) return home + path.substr(1);
    }
    return path;
}

bool isPolicy(const std::string& p) {
    return p == "yes" || p == "accept-new" || p == "no";
}

void logHostKey(const std::string& knownHosts, const std::string& fingerprint,
                const std::string& keyType, LogBase& log) {
    log.LogData("knownHostsFile", knownHosts.c_str());
    log.LogData("hostKeyType", keyType.c_str());
    log.LogData("hostKeyFingerprint", fingerprint.c_str());
}

// Applies the host-key policy to a freshly connected server.
bool verifyHostKey(LibsshTransport& t, const std::string& policy, const std::string& knownHosts,
                   const std::string& fingerprint, const std::string& keyType, LogBase& log) {
    if (policy == "no") {
        if (log.m_verboseLogging) log.LogInfo("Host key checking is off.");
        return true;
    }
    switch (t.checkKnownHosts(log)) {
        case KnownHostState::Known:
            if (log.m_verboseLogging) log.LogInfo("The server's host key matches known_hosts.");
            return true;
        case KnownHostState::Unknown:
            if (policy == "accept-new") {
                if (!t.recordServerKey(log)) {
                    logHostKey(knownHosts, fingerprint, keyType, log);
                    return false;
                }
                log.LogInfo("Added the server's host key to the known_hosts file.");
                logHostKey(knownHosts, fingerprint, keyType, log);
                return true;
            }
            log.LogError(
                "Host key verification failed: the server's key is not in the known_hosts file.");
            logHostKey(knownHosts, fingerprint, keyType, log);
            log.LogInfo(
                "Add the key to the known_hosts file, or set StrictHostKeyChecking to accept-new "
                "to record it on first connection.");
            return false;
        case KnownHostState::Changed:
            log.LogError(
                "Host key verification failed: the server's key differs from the one recorded in "
                "the known_hosts file. The key may have been replaced, or the connection may be "
                "intercepted.");
            logHostKey(knownHosts, fingerprint, keyType, log);
            return false;
        case KnownHostState::OtherKeyType:
            log.LogError(
                "Host key verification failed: the known_hosts file records a key of another "
                "type for this server.");
            logHostKey(knownHosts, fingerprint, keyType, log);
            return false;
        case KnownHostState::Error:
        default:
            log.LogError("Host key verification failed: the known_hosts file could not be read.");
            logHostKey(knownHosts, fingerprint, keyType, log);
            return false;
    }
}

// The connected libssh session, or null with the reason logged.
LibsshTransport* connectedSession(const std::shared_ptr<SshTransport>& transport, LogBase& log) {
    auto* t = dynamic_cast<LibsshTransport*>(transport.get());
    if (!t || !t->isConnected()) {
        log.LogError("Not connected to an SSH server: call Connect first.");
        return nullptr;
    }
    return t;
}

// The shared frame of the login methods: a connected session, a user name
// (the configured one when none is given), and one authentication attempt.
template <typename Attempt>
bool login(const std::shared_ptr<SshTransport>& transport, const XString& configUser,
           const XString& user, LogBase& log, Attempt attempt) {
    LibsshTransport* t = connectedSession(transport, log);
    if (!t) return false;
    std::string name = trimmed(user);
    if (name.empty()) name = configUser.getUtf8();
    if (name.empty()) {
        log.LogError("No user name given.");
        return false;
    }
    log.LogData("user", name.c_str());
    if (t->isAuthenticated()) {
        log.LogInfo("Already authenticated on this connection.");
        return true;
    }
    if (attempt(*t, name) != AuthOutcome::Success) {
        log.LogError("Authentication failed.");
        return false;
    }
    return true;
}

}  // namespace

bool ClsSsh::Connect(XString& hostname, int port) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "Connect");
    bool ok = [&]() {
        std::string host = trimmed(hostname);
        m_log.LogData("hostname", host.c_str());
        m_log.LogDataLong("port", port);
        if (host.empty()) {
            m_log.LogError("No host name given.");
            return false;
        }
        if (port < 0 || port > 65535) {
            m_log.LogError("Invalid port number.");
            return false;
        }
        // A new connection replaces the old one and everything it held.
        useTransport(nullptr);
        m_serverKeySha256.clear();
        m_configUser.clear();

        LibsshConnectSettings settings;
        settings.host = host;
        settings.port = port;
        settings.timeoutMs = m_connectTimeoutMs;
        settings.ciphers = trimmed(m_ciphers);
        settings.useSshConfig = m_useSshConfig;
        settings.knownHostsPath = effectiveKnownHosts(m_knownHostsPath);
        settings.sshDir = sshDir();
        std::string policy = trimmed(m_hostKeyPolicy);
        if (!isPolicy(policy)) policy = "yes";

        auto transport = std::make_shared<LibsshTransport>();
        if (!transport->connect(settings, m_log)) return false;
        m_configUser.setFromUtf8(transport->configUser().c_str());

        std::string fingerprint;
        std::string keyType;
        if (!transport->serverKeyFingerprint(fingerprint, keyType)) {
            m_log.LogError("The server presented no usable host key.");
            return false;
        }
        m_serverKeySha256.setFromUtf8(fingerprint.c_str());
        if (!verifyHostKey(*transport, policy, settings.knownHostsPath, fingerprint, keyType,
                           m_log))
            return false;
        transport->describeServer(m_log);
        useTransport(transport);
        return true;
    }();
    logSuccessFailure(ok);
    return ok;
}

void ClsSsh::Disconnect() {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "Disconnect");
    {
        std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
        if (!m_transport && m_log.m_verboseLogging) m_log.LogInfo("Not connected.");
    }
    useTransport(nullptr);
    logSuccessFailure(true);
}

bool ClsSsh::get_IsConnected() {
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    return m_transport && m_transport->isConnected();
}

bool ClsSsh::LoginWithPassword(XString& user, XString& password) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginWithPassword");
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    bool ok = login(m_transport, m_configUser, user, m_log,
                    [&](LibsshTransport& t, const std::string& name) {
                        if (password.isEmpty()) {
                            m_log.LogError("No password given.");
                            return AuthOutcome::Error;
                        }
                        return t.authPassword(name, password.getUtf8(), m_log);
                    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::LoginWithKeyFile(XString& user, XString& privateKeyPath, XString& passphrase) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginWithKeyFile");
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    bool ok = login(m_transport, m_configUser, user, m_log,
                    [&](LibsshTransport& t, const std::string& name) {
                        std::string path = expandHome(trimmed(privateKeyPath));
                        if (path.empty()) {
                            m_log.LogError("No private key file given.");
                            return AuthOutcome::Error;
                        }
                        m_log.LogData("privateKeyPath", path.c_str());
                        struct stat st;
                        if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) {
                            m_log.LogError("The private key file cannot be read.");
                            m_log.LogData("reason", std::strerror(errno));
                            return AuthOutcome::Error;
                        }
                        if (!S_ISREG(st.st_mode)) {
                            m_log.LogError("The private key path is not a file.");
                            return AuthOutcome::Error;
                        }
                        return t.authKeyFile(name, path, passphrase.getUtf8(), m_log);
                    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::LoginWithAgent(XString& user) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginWithAgent");
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    bool ok = login(
        m_transport, m_configUser, user, m_log,
        [&](LibsshTransport& t, const std::string& name) { return t.authAgent(name, m_log); });
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::LoginAuto(XString& user) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginAuto");
    std::lock_guard<std::recursive_mutex> lock(m_ioMutex);
    bool ok =
        login(m_transport, m_configUser, user, m_log,
              [&](LibsshTransport& t, const std::string& name) { return t.authAuto(name, m_log); });
    logSuccessFailure(ok);
    return ok;
}

void ClsSsh::put_KnownHostsPath(XString& path) {
    CritSecExitor cs(m_critSec);
    m_knownHostsPath.setFromUtf8(trimmed(path).c_str());
}

void ClsSsh::get_KnownHostsPath(XString& path) {
    CritSecExitor cs(m_critSec);
    path.setFromUtf8(effectiveKnownHosts(m_knownHostsPath).c_str());
}

void ClsSsh::put_StrictHostKeyChecking(XString& policy) {
    CritSecExitor cs(m_critSec);
    std::string p = trimmed(policy);
    if (isPolicy(p)) m_hostKeyPolicy.setFromUtf8(p.c_str());
}

void ClsSsh::get_StrictHostKeyChecking(XString& policy) {
    CritSecExitor cs(m_critSec);
    std::string p = trimmed(m_hostKeyPolicy);
    policy.setFromUtf8(isPolicy(p) ? p.c_str() : "yes");
}

void ClsSsh::get_ServerKeySha256(XString& fingerprint) {
    CritSecExitor cs(m_critSec);
    fingerprint.copyFromX(m_serverKeySha256);
}

void ClsSsh::put_ConnectTimeoutMs(int ms) {
    CritSecExitor cs(m_critSec);
    m_connectTimeoutMs = ms > 0 ? ms : kDefaultConnectTimeoutMs;
}

int ClsSsh::get_ConnectTimeoutMs() {
    CritSecExitor cs(m_critSec);
    return m_connectTimeoutMs;
}

void ClsSsh::put_UseSshConfig(bool use) {
    CritSecExitor cs(m_critSec);
    m_useSshConfig = use;
}

bool ClsSsh::get_UseSshConfig() {
    CritSecExitor cs(m_critSec);
    return m_useSshConfig;
}

void ClsSsh::put_Ciphers(XString& ciphers) {
    CritSecExitor cs(m_critSec);
    m_ciphers.setFromUtf8(trimmed(ciphers).c_str());
}

void ClsSsh::get_ConfigUser(XString& user) {
    CritSecExitor cs(m_critSec);
    user.copyFromX(m_configUser);
}

}  // namespace scpkit
