// ClsSsh: connecting, checking the server's host key, and logging in. The
// channel operations are in ClsSsh.cpp, the properties in
// ClsSshProperties.cpp.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <scpkit/base/CritSec.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/Logger.h>
#include <scpkit/ssh/ChannelTable.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

std::string trimmed(const XString& text) {
    XString copy;
    copy.copyFromX(text);
    copy.trim2();
    return copy.getUtf8();
}

// "~/x" as the user's home, like the shell.
std::string expandHome(const std::string& path) {
    if (path.size() >= 2 && path[0] == '~' && path[1] == '/') {
        std::string home = LibsshTransport::userHomeDir();
        if (!home.empty()) return home + path.substr(1);
    }
    return path;
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

// The shared frame of the login methods: a connected session, a user name
// (the configured one when none is given), and one authentication attempt.
template <typename Attempt>
bool login(LibsshTransport* session, const XString& configUser, const XString& user, LogBase& log,
           Attempt attempt) {
    if (!session || !session->isConnected()) {
        log.LogError("Not connected to an SSH server: call Connect first.");
        return false;
    }
    std::string name = trimmed(user);
    if (name.empty()) name = configUser.getUtf8();
    if (name.empty()) {
        log.LogError("No user name given.");
        return false;
    }
    log.LogData("user", name.c_str());
    if (session->isAuthenticated()) {
        log.LogInfo("Already authenticated on this connection.");
        return true;
    }
    if (attempt(*session, name) != AuthOutcome::Success) {
        log.LogError("Authentication failed.");
        return false;
    }
    return true;
}

}  // namespace

bool ClsSsh::Connect(XString& hostname, int port) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "Connect");
    std::string host = trimmed(hostname);
    m_log.LogData("hostname", host.c_str());
    m_log.LogDataLong("port", port);
    bool ok = false;
    if (host.empty()) {
        m_log.LogError("No host name given.");
    } else if (port < 0 || port > 65535) {
        m_log.LogError("Invalid port number.");
    } else {
        ok = connectTo(host, port);
    }
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::connectTo(const std::string& host, int port) {
    // A new connection replaces the old one and everything it held.
    m_session.reset();
    m_table->attach(nullptr);
    setConnectionFacts("", "");

    XString knownHosts, policy, ciphers;
    get_KnownHostsPath(knownHosts);
    get_StrictHostKeyChecking(policy);
    get_Ciphers(ciphers);
    LibsshConnectSettings settings;
    settings.host = host;
    settings.port = port;
    settings.timeoutMs = get_ConnectTimeoutMs();
    settings.ciphers = ciphers.getUtf8();
    settings.useSshConfig = get_UseSshConfig();
    settings.knownHostsPath = knownHosts.getUtf8();
    std::string home = LibsshTransport::userHomeDir();
    settings.sshDir = home.empty() ? std::string() : home + "/.ssh";

    auto session = std::make_shared<LibsshTransport>();
    if (!session->connect(settings, m_log)) return false;
    std::string fingerprint;
    std::string keyType;
    bool keyKnown = session->serverKeyFingerprint(fingerprint, keyType);
    setConnectionFacts(fingerprint.c_str(), session->configUser().c_str());
    if (!keyKnown) {
        m_log.LogError("The server presented no usable host key.");
        return false;
    }
    if (!verifyHostKey(*session, policy.getUtf8(), settings.knownHostsPath, fingerprint, keyType,
                       m_log))
        return false;
    session->describeServer(m_log);
    m_session = session;
    m_table->attach(session);
    return true;
}

void ClsSsh::Disconnect() {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "Disconnect");
    if (!m_table->transport() && m_log.m_verboseLogging) m_log.LogInfo("Not connected.");
    m_session.reset();
    m_table->attach(nullptr);
    logSuccessFailure(true);
}

bool ClsSsh::LoginWithPassword(XString& user, XString& password) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginWithPassword");
    XString configUser;
    get_ConfigUser(configUser);
    bool ok = login(m_session.get(), configUser, user, m_log,
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
    XString configUser;
    get_ConfigUser(configUser);
    bool ok = login(m_session.get(), configUser, user, m_log,
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
    XString configUser;
    get_ConfigUser(configUser);
    bool ok = login(
        m_session.get(), configUser, user, m_log,
        [&](LibsshTransport& t, const std::string& name) { return t.authAgent(name, m_log); });
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::LoginAuto(XString& user) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginAuto");
    XString configUser;
    get_ConfigUser(configUser);
    bool ok =
        login(m_session.get(), configUser, user, m_log,
              [&](LibsshTransport& t, const std::string& name) { return t.authAuto(name, m_log); });
    logSuccessFailure(ok);
    return ok;
}

}  // namespace scpkit
