// ClsSsh: connecting, checking the server's host key, and logging in. The
// channel operations are in ClsSsh.cpp, the properties in
// ClsSshProperties.cpp, the jump hosts in ClsSshJump.cpp.
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
#include <scpkit/ssh/HostKeyCheck.h>
#include <scpkit/ssh/JumpHosts.h>
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

void logHostKey(LibsshTransport& t, LogBase& log) {
    std::string fingerprint, keyType;
    t.serverKeyFingerprint(fingerprint, keyType);
    log.LogData("knownHostsFile", t.knownHostsFile().c_str());
    log.LogData("hostKeyType", keyType.c_str());
    log.LogData("hostKeyFingerprint", fingerprint.c_str());
}

// The refusal names the key, so that the user can compare it with the one
// the server's administrator gives.
void hostKeyError(LibsshTransport& t, const char* whose, const char* what, LogBase& log) {
    std::string fingerprint, keyType;
    t.serverKeyFingerprint(fingerprint, keyType);
    log.LogError(("Host key verification failed: " + std::string(whose) + " key (" + keyType + " " +
                  fingerprint + ") " + what)
                     .c_str());
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
    session->authMethods(name, log);
    if (session->isAuthenticated()) return true;
    if (attempt(*session, name) != AuthOutcome::Success) {
        log.LogError("Authentication failed.");
        return false;
    }
    return true;
}

}  // namespace

HostKeyVerdict checkHostKey(LibsshTransport& t, const std::string& policy, const char* whose,
                            LogBase& log) {
    if (policy == "no") {
        if (log.m_verboseLogging) log.LogInfo("Host key checking is off.");
        return HostKeyVerdict::Trusted;
    }
    switch (t.checkKnownHosts(log)) {
        case KnownHostState::Known:
            if (log.m_verboseLogging) log.LogInfo("The server's host key matches known_hosts.");
            return HostKeyVerdict::Trusted;
        case KnownHostState::Unknown:
            if (policy == "accept-new") {
                bool recorded = t.recordServerKey(log);
                if (recorded) log.LogInfo("Added the server's host key to the known_hosts file.");
                logHostKey(t, log);
                return recorded ? HostKeyVerdict::Trusted : HostKeyVerdict::Refused;
            }
            hostKeyError(t, whose, "is not in the known_hosts file.", log);
            logHostKey(t, log);
            log.LogInfo(
                "Add the key to the known_hosts file, or set StrictHostKeyChecking to accept-new "
                "to record it on first connection.");
            return HostKeyVerdict::Unknown;
        case KnownHostState::Changed:
            hostKeyError(t, whose,
                         "differs from the one recorded in the known_hosts file. The key may have "
                         "been replaced, or the connection may be intercepted.",
                         log);
            break;
        case KnownHostState::OtherKeyType:
            hostKeyError(t, whose, "is of another type than the one the known_hosts file records.",
                         log);
            break;
        case KnownHostState::Error:
        default:
            log.LogError("Host key verification failed: the known_hosts file could not be read.");
            break;
    }
    logHostKey(t, log);
    return HostKeyVerdict::Refused;
}

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

LibsshConnectSettings ClsSsh::connectSettings(const std::string& host, int port) {
    XString ciphers, configPath, compression;
    get_Ciphers(ciphers);
    get_SshConfigPath(configPath);
    get_Compression(compression);
    LibsshConnectSettings settings;
    settings.host = host;
    settings.port = port;
    settings.timeoutMs = get_ConnectTimeoutMs();
    settings.ciphers = ciphers.getUtf8();
    settings.useSshConfig = get_UseSshConfig();
    settings.configFile = expandHome(configPath.getUtf8());
    settings.compression = compression.getUtf8();
    {
        // Empty unless set: the config's UserKnownHostsFile may then apply.
        std::lock_guard<std::mutex> lock(m_propertyLock);
        settings.knownHostsPath = expandHome(m_knownHostsPath.getUtf8());
    }
    std::string home = LibsshTransport::userHomeDir();
    settings.sshDir = home.empty() ? std::string() : home + "/.ssh";
    return settings;
}

bool ClsSsh::connectTo(const std::string& host, int port) {
    // A new connection replaces the old one and everything it held.
    m_session.reset();
    m_unverified.reset();
    m_table->attach(nullptr);
    m_jumpLinks.clear();
    setConnectionFacts(nullptr, "");
    {
        std::lock_guard<std::mutex> lock(m_propertyLock);
        m_hostKeyUnknown = false;
    }

    XString policy, jumpText;
    get_StrictHostKeyChecking(policy);
    get_ProxyJump(jumpText);
    LibsshConnectSettings settings = connectSettings(host, port);
    auto session = std::make_shared<LibsshTransport>();
    if (!session->prepare(settings, m_log)) return false;

    std::string jumps = jumpText.isEmpty() ? session->configProxyJump() : jumpText.getUtf8();
    std::vector<JumpHost> hops;
    std::string error;
    if (!parseJumpHosts(jumps, hops, error)) {
        m_log.LogError("Invalid ProxyJump.");
        m_log.LogData("reason", error.c_str());
        return false;
    }
    LibsshRoute route;
    if (!hops.empty() &&
        !connectThroughJumps(hops, session->connectedHost(), session->connectedPort(), route))
        return false;
    if (!session->connect(route, m_log)) return false;

    setConnectionFacts(session.get(), session->configUser().c_str());
    std::string fingerprint, keyType;
    if (!session->serverKeyFingerprint(fingerprint, keyType)) {
        m_log.LogError("The server presented no usable host key.");
        return false;
    }
    HostKeyVerdict verdict = checkHostKey(*session, policy.getUtf8(), "the server's", m_log);
    if (verdict == HostKeyVerdict::Unknown) awaitTrust(session, false);
    if (verdict != HostKeyVerdict::Trusted) return false;
    session->describeServer(m_log);
    m_session = session;
    m_table->attach(session);
    return true;
}

void ClsSsh::awaitTrust(const std::shared_ptr<LibsshTransport>& session, bool jumpHost) {
    setConnectionFacts(session.get(), jumpHost ? "" : session->configUser().c_str());
    m_unverified = session;
    m_unverifiedIsJump = jumpHost;
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_hostKeyUnknown = true;
}

bool ClsSsh::TrustServerKey() {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "TrustServerKey");
    bool ok = false;
    if (!m_unverified || !m_unverified->isConnected()) {
        m_log.LogError("No connection waits for its host key: Connect first.");
    } else if (m_unverified->recordServerKey(m_log)) {
        m_log.LogInfo(m_unverifiedIsJump
                          ? "Added the jump host's key to the known_hosts file: Connect again."
                          : "Added the server's host key to the known_hosts file.");
        logHostKey(*m_unverified, m_log);
        if (!m_unverifiedIsJump) {
            m_unverified->describeServer(m_log);
            m_session = std::move(m_unverified);
            m_table->attach(m_session);
        }
        ok = true;
    }
    m_unverified.reset();
    {
        std::lock_guard<std::mutex> lock(m_propertyLock);
        m_hostKeyUnknown = false;
    }
    logSuccessFailure(ok);
    return ok;
}

void ClsSsh::Disconnect() {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "Disconnect");
    if (!m_table->transport() && m_log.m_verboseLogging) m_log.LogInfo("Not connected.");
    m_session.reset();
    m_unverified.reset();
    m_table->attach(nullptr);
    m_jumpLinks.clear();
    {
        std::lock_guard<std::mutex> lock(m_propertyLock);
        m_hostKeyUnknown = false;
    }
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
    setLoginFacts(m_session.get());
    logSuccessFailure(ok);
    return ok;
}

bool ClsSsh::LoginWithKeyFile(XString& user, XString& privateKeyPath, XString& passphrase) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "LoginWithKeyFile");
    XString configUser;
    get_ConfigUser(configUser);
    bool ok = login(
        m_session.get(), configUser, user, m_log, [&](LibsshTransport& t, const std::string& name) {
            std::string path = expandHome(trimmed(privateKeyPath));
            if (path.empty()) {
                m_log.LogError("No private key file given.");
                return AuthOutcome::Error;
            }
            m_log.LogData("privateKeyPath", path.c_str());
            struct stat st;
            if (stat(path.c_str(), &st) != 0 || access(path.c_str(), R_OK) != 0) {
                m_log.LogError(("The private key file " + path + " cannot be read.").c_str());
                m_log.LogData("osError", std::strerror(errno));
                return AuthOutcome::Error;
            }
            if (!S_ISREG(st.st_mode)) {
                m_log.LogError(("The private key path " + path + " is not a file.").c_str());
                return AuthOutcome::Error;
            }
            return t.authKeyFile(name, path, passphrase.getUtf8(), m_log);
        });
    setLoginFacts(m_session.get());
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
    setLoginFacts(m_session.get());
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
    setLoginFacts(m_session.get());
    logSuccessFailure(ok);
    return ok;
}

}  // namespace scpkit
