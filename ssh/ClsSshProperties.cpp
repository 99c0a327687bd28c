// ClsSsh's properties. Every value is read and written under m_propertyLock,
// held only while the value is copied, so an accessor never waits for a
// Connect or a transfer in another thread, and those read each value once,
// when they start.
#include <string>

#include <scpkit/ssh/ChannelTable.h>
#include <scpkit/ssh/ClsSsh.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

namespace {

constexpr int kDefaultConnectTimeoutMs = 30000;

std::string trimmed(const XString& text) {
    XString copy;
    copy.copyFromX(text);
    copy.trim2();
    return copy.getUtf8();
}

bool isPolicy(const std::string& p) {
    return p == "yes" || p == "accept-new" || p == "no";
}

}  // namespace

bool ClsSsh::get_IsConnected() {
    std::shared_ptr<SshTransport> t = m_table->transport();
    return t && t->isConnected();
}

void ClsSsh::put_KnownHostsPath(XString& path) {
    std::string value = trimmed(path);
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_knownHostsPath.setFromUtf8(value.c_str());
}

void ClsSsh::get_KnownHostsPath(XString& path) {
    std::string value;
    {
        std::lock_guard<std::mutex> lock(m_propertyLock);
        value = m_knownHostsPath.getUtf8();
    }
    if (value.empty()) {
        std::string home = LibsshTransport::userHomeDir();
        if (!home.empty()) value = home + "/.ssh/known_hosts";
    }
    path.setFromUtf8(value.c_str());
}

void ClsSsh::put_StrictHostKeyChecking(XString& policy) {
    std::string value = trimmed(policy);
    if (!isPolicy(value)) return;
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_hostKeyPolicy.setFromUtf8(value.c_str());
}

void ClsSsh::get_StrictHostKeyChecking(XString& policy) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    policy.copyFromX(m_hostKeyPolicy);
}

void ClsSsh::get_ServerKeySha256(XString& fingerprint) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    fingerprint.copyFromX(m_serverKeySha256);
}

void ClsSsh::get_ServerKeyType(XString& keyType) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    keyType.copyFromX(m_serverKeyType);
}

void ClsSsh::get_ServerKeyHost(XString& host) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    host.copyFromX(m_serverKeyHost);
}

bool ClsSsh::get_HostKeyUnknown() {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    return m_hostKeyUnknown;
}

void ClsSsh::put_ConnectTimeoutMs(int ms) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_connectTimeoutMs = ms > 0 ? ms : kDefaultConnectTimeoutMs;
}

int ClsSsh::get_ConnectTimeoutMs() {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    return m_connectTimeoutMs;
}

void ClsSsh::put_StallTimeoutMs(int ms) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_stallTimeoutMs = ms < 0 ? 0 : ms;
}

int ClsSsh::get_StallTimeoutMs() {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    return m_stallTimeoutMs;
}

void ClsSsh::put_UseSshConfig(bool use) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_useSshConfig = use;
}

bool ClsSsh::get_UseSshConfig() {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    return m_useSshConfig;
}

void ClsSsh::put_SshConfigPath(XString& path) {
    std::string value = trimmed(path);
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_sshConfigPath.setFromUtf8(value.c_str());
}

void ClsSsh::get_SshConfigPath(XString& path) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    path.copyFromX(m_sshConfigPath);
}

void ClsSsh::put_ProxyJump(XString& jumpHosts) {
    std::string value = trimmed(jumpHosts);
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_proxyJump.setFromUtf8(value.c_str());
}

void ClsSsh::get_ProxyJump(XString& jumpHosts) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    jumpHosts.copyFromX(m_proxyJump);
}

void ClsSsh::put_Compression(XString& compression) {
    std::string value = trimmed(compression);
    if (value != "yes" && value != "no" && !value.empty()) return;
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_compression.setFromUtf8(value.c_str());
}

void ClsSsh::get_Compression(XString& compression) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    compression.copyFromX(m_compression);
}

void ClsSsh::get_AuthMethods(XString& methods) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    methods.copyFromX(m_authMethods);
}

void ClsSsh::get_KeysNeedingPassphrase(XString& paths) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    paths.copyFromX(m_lockedKeys);
}

void ClsSsh::put_Ciphers(XString& ciphers) {
    std::string value = trimmed(ciphers);
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_ciphers.setFromUtf8(value.c_str());
}

void ClsSsh::get_Ciphers(XString& ciphers) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    ciphers.copyFromX(m_ciphers);
}

void ClsSsh::get_ConfigUser(XString& user) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    user.copyFromX(m_configUser);
}

void ClsSsh::put_StderrToStdout(bool merge) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_stderrToStdout = merge;
}

bool ClsSsh::get_StderrToStdout() {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    return m_stderrToStdout;
}

void ClsSsh::setConnectionFacts(LibsshTransport* session, const char* configUser) {
    std::string fingerprint, keyType, host;
    if (session && session->serverKeyFingerprint(fingerprint, keyType)) {
        int port = session->connectedPort();
        host = port == 22 ? session->connectedHost()
                          : "[" + session->connectedHost() + "]:" + std::to_string(port);
    }
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_serverKeySha256.setFromUtf8(fingerprint.c_str());
    m_serverKeyType.setFromUtf8(keyType.c_str());
    m_serverKeyHost.setFromUtf8(host.c_str());
    m_configUser.setFromUtf8(configUser);
    m_authMethods.clear();
    m_lockedKeys.clear();
}

void ClsSsh::setExecObserver(std::function<void(const std::string&)> observer) {
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_execObserver = std::move(observer);
}

void ClsSsh::notifyExec(const XString& command) {
    std::function<void(const std::string&)> observer;
    {
        std::lock_guard<std::mutex> lock(m_propertyLock);
        observer = m_execObserver;
    }
    if (observer) observer(command.getUtf8());
}

void ClsSsh::setLoginFacts(LibsshTransport* session) {
    std::string methods, locked;
    if (session) {
        methods = session->authMethodsKnown();
        for (const std::string& key : session->keysWantingPassphrase()) locked += key + "\n";
    }
    std::lock_guard<std::mutex> lock(m_propertyLock);
    m_authMethods.setFromUtf8(methods.c_str());
    m_lockedKeys.setFromUtf8(locked.c_str());
}

}  // namespace scpkit
