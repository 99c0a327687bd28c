// LibsshTransport: opening the connection (options, ~/.ssh/config, key
// exchange), describing the server, and closing it.
#include <libssh/libssh.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

const char* const LibsshTransport::kDefaultCiphers =
    "aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com,"
    "aes128-ctr,aes256-ctr";

std::string LibsshTransport::userHomeDir() {
    const char* home = getenv("HOME");
    if (home && home[0] == '/') return home;
    std::vector<char> buf(16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_dir)
        return found->pw_dir;
    return "";
}

std::string LibsshTransport::localUserName() {
    std::vector<char> buf(16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_name)
        return found->pw_name;
    const char* user = getenv("USER");
    return user ? user : "";
}

void LibsshTransport::logSessionError(const char* what, LogBase& log) {
    log.LogError(what);
    const char* detail = m_session ? ssh_get_error(m_session) : nullptr;
    if (detail && *detail) log.LogData("sshError", detail);
}

bool LibsshTransport::applyOptions(const LibsshConnectSettings& settings, LogBase& log) {
    auto setOption = [&](enum ssh_options_e option, const void* value, const char* name) {
        if (ssh_options_set(m_session, option, value) == SSH_OK) return true;
        log.LogError("Invalid SSH option value.");
        log.LogData("option", name);
        const char* detail = ssh_get_error(m_session);
        if (detail && *detail) log.LogData("sshError", detail);
        return false;
    };

    // ssh_connect would read ~/.ssh/config by itself: only when asked.
    int off = 0;
    int on = 1;
    if (!setOption(SSH_OPTIONS_PROCESS_CONFIG, &off, "ProcessConfig") ||
        !setOption(SSH_OPTIONS_HOST, settings.host.c_str(), "Host"))
        return false;
    if (!settings.sshDir.empty() &&
        !setOption(SSH_OPTIONS_SSH_DIR, settings.sshDir.c_str(), "SshDir"))
        return false;
    // The fast default goes first so that a Ciphers line of the config wins over it.
    if (!setOption(SSH_OPTIONS_CIPHERS_C_S, kDefaultCiphers, "Ciphers") ||
        !setOption(SSH_OPTIONS_CIPHERS_S_C, kDefaultCiphers, "Ciphers"))
        return false;
    if (settings.useSshConfig && ssh_options_parse_config(m_session, nullptr) != SSH_OK) {
        logSessionError("Failed to read the SSH config file.", log);
        return false;
    }
    // A port of 22 (or none) is the usual default; the config may then name another.
    bool portGiven = settings.port > 0 && !(settings.useSshConfig && settings.port == 22);
    if (portGiven || !settings.useSshConfig) {
        int port = settings.port > 0 ? settings.port : 22;
        if (!setOption(SSH_OPTIONS_PORT, &port, "Port")) return false;
    }
    if (!settings.ciphers.empty()) {
        if (ssh_options_set(m_session, SSH_OPTIONS_CIPHERS_C_S, settings.ciphers.c_str()) !=
                SSH_OK ||
            ssh_options_set(m_session, SSH_OPTIONS_CIPHERS_S_C, settings.ciphers.c_str()) !=
                SSH_OK) {
            log.LogError("None of the requested ciphers is supported.");
            log.LogData("ciphers", settings.ciphers.c_str());
            return false;
        }
    }
    int timeoutMs = settings.timeoutMs > 0 ? settings.timeoutMs : 30000;
    long seconds = timeoutMs / 1000;
    long micros = (timeoutMs % 1000) * 1000L;
    if (!setOption(SSH_OPTIONS_NODELAY, &on, "NoDelay") ||
        !setOption(SSH_OPTIONS_TIMEOUT, &seconds, "Timeout") ||
        !setOption(SSH_OPTIONS_TIMEOUT_USEC, &micros, "TimeoutUsec") ||
        !setOption(SSH_OPTIONS_KNOWNHOSTS, settings.knownHostsPath.c_str(), "KnownHosts"))
        return false;
    return true;
}

bool LibsshTransport::connect(const LibsshConnectSettings& settings, LogBase& log) {
    Guard guard(m_lock);
    disconnect();
    m_session = ssh_new();
    if (!m_session) {
        log.LogError("Out of memory.");
        return false;
    }
    if (!applyOptions(settings, log)) return false;
    char* value = nullptr;
    m_host = settings.host;
    if (ssh_options_get(m_session, SSH_OPTIONS_HOST, &value) == SSH_OK && value) {
        m_host = value;
        ssh_string_free_char(value);
        value = nullptr;
    }
    unsigned int port = 0;
    m_port = ssh_options_get_port(m_session, &port) == SSH_OK ? static_cast<int>(port) : 22;
    m_configUser.clear();
    if (ssh_options_get(m_session, SSH_OPTIONS_USER, &value) == SSH_OK && value) {
        m_configUser = value;
        ssh_string_free_char(value);
    }
    if (m_configUser.empty()) m_configUser = localUserName();
    if (settings.useSshConfig) {
        log.LogData("configHostName", m_host.c_str());
        log.LogDataLong("configPort", m_port);
        log.LogData("configUser", m_configUser.c_str());
    }

    if (ssh_connect(m_session) != SSH_OK) {
        logSessionError("Failed to connect to the SSH server.", log);
        log.LogData("server", m_host.c_str());
        log.LogDataLong("port", m_port);
        disconnect();
        return false;
    }
    m_connected = true;
    ssh_set_counters(m_session, m_socketCounter.get(), nullptr);
    return true;
}

bool LibsshTransport::connected() const {
    return m_session && m_connected && ssh_is_connected(m_session) == 1;
}

bool LibsshTransport::isConnected() {
    Guard guard(m_lock);
    return connected();
}

void LibsshTransport::describeServer(LogBase& log) {
    Guard guard(m_lock);
    if (!connected()) {
        log.LogInfo("Not connected to an SSH server.");
        return;
    }
    log.LogData("server", m_host.c_str());
    log.LogDataLong("port", m_port);
    const char* banner = ssh_get_serverbanner(m_session);
    log.LogData("serverBanner", banner ? banner : "");
    std::string fingerprint;
    std::string keyType;
    if (fingerprintOf(fingerprint, keyType)) {
        log.LogData("hostKeyType", keyType.c_str());
        log.LogData("hostKeyFingerprint", fingerprint.c_str());
    }
    const char* kex = ssh_get_kex_algo(m_session);
    const char* out = ssh_get_cipher_out(m_session);
    const char* in = ssh_get_cipher_in(m_session);
    log.LogData("kexAlgorithm", kex ? kex : "");
    log.LogData("cipherClientToServer", out ? out : "");
    log.LogData("cipherServerToClient", in ? in : "");
}

}  // namespace scpkit
