// LibsshTransport: opening the connection (options, ~/.ssh/config, key
// exchange), describing the server, and closing it.
#include <libssh/libssh.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include <scpkit/base/LogBase.h>
#include <scpkit/ssh/JumpHosts.h>
#include <scpkit/ssh/LibsshTransport.h>

namespace scpkit {

const char* const LibsshTransport::kDefaultCiphers =
    "aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com,"
    "aes128-ctr,aes256-ctr";

std::string LibsshTransport::userHomeDir() {
    // As ssh does: the account's entry decides, so a HOME changed by sudo or
    // a wrapper does not send the program to another user's keys.
    std::vector<char> buf(16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_dir &&
        found->pw_dir[0] == '/')
        return found->pw_dir;
    const char* home = getenv("HOME");
    return home && home[0] == '/' ? home : "";
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
    // Defaults go first so that the config's lines win over them.
    if (!setOption(SSH_OPTIONS_CIPHERS_C_S, kDefaultCiphers, "Ciphers") ||
        !setOption(SSH_OPTIONS_CIPHERS_S_C, kDefaultCiphers, "Ciphers"))
        return false;
    if (settings.useSshConfig) {
        const char* file = settings.configFile.empty() ? nullptr : settings.configFile.c_str();
        if (file && access(file, R_OK) != 0) {
            log.LogError("The SSH config file cannot be read.");
            log.LogData("configFile", file);
            return false;
        }
        if (ssh_options_parse_config(m_session, file) != SSH_OK) {
            logSessionError("Failed to read the SSH config file.", log);
            return false;
        }
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
    if (!settings.compression.empty() &&
        !setOption(SSH_OPTIONS_COMPRESSION, settings.compression.c_str(), "Compression"))
        return false;
    if (!settings.knownHostsPath.empty() &&
        !setOption(SSH_OPTIONS_KNOWNHOSTS, settings.knownHostsPath.c_str(), "KnownHosts"))
        return false;
    m_timeoutMs = settings.timeoutMs > 0 ? settings.timeoutMs : 30000;
    long seconds = m_timeoutMs / 1000;
    long micros = (m_timeoutMs % 1000) * 1000L;
    return setOption(SSH_OPTIONS_NODELAY, &on, "NoDelay") &&
           setOption(SSH_OPTIONS_TIMEOUT, &seconds, "Timeout") &&
           setOption(SSH_OPTIONS_TIMEOUT_USEC, &micros, "TimeoutUsec");
}

// Where the settings and the config lead: host, port, user, and a ProxyJump,
// which is run here rather than by libssh's own "ssh -W" command.
void LibsshTransport::readConfigResults(const LibsshConnectSettings& settings, LogBase& log) {
    char* value = nullptr;
    auto take = [&](enum ssh_options_e option, std::string& out) {
        if (ssh_options_get(m_session, option, &value) == SSH_OK && value) {
            out = value;
            ssh_string_free_char(value);
            value = nullptr;
        }
    };
    m_host = settings.host;
    take(SSH_OPTIONS_HOST, m_host);
    unsigned int port = 0;
    m_port = ssh_options_get_port(m_session, &port) == SSH_OK ? static_cast<int>(port) : 22;
    m_configUser.clear();
    take(SSH_OPTIONS_USER, m_configUser);
    if (m_configUser.empty()) m_configUser = localUserName();
    m_configProxyJump.clear();
    std::string proxyCommand;
    take(SSH_OPTIONS_PROXYCOMMAND, proxyCommand);
    if (proxyJumpFromCommand(proxyCommand, m_configProxyJump))
        ssh_options_set(m_session, SSH_OPTIONS_PROXYCOMMAND, "none");
    if (!settings.useSshConfig) return;
    if (!settings.configFile.empty()) log.LogData("configFile", settings.configFile.c_str());
    log.LogData("configHostName", m_host.c_str());
    log.LogDataLong("configPort", m_port);
    log.LogData("configUser", m_configUser.c_str());
    if (!m_configProxyJump.empty()) log.LogData("configProxyJump", m_configProxyJump.c_str());
    if (!proxyCommand.empty() && m_configProxyJump.empty())
        log.LogData("configProxyCommand", proxyCommand.c_str());
}

bool LibsshTransport::prepare(const LibsshConnectSettings& settings, LogBase& log) {
    Guard guard(m_lock);
    disconnect();
    m_session = ssh_new();
    if (!m_session) {
        log.LogError("Out of memory.");
        return false;
    }
    m_authMethods.clear();
    m_lockedKeys.clear();
    if (!applyOptions(settings, log)) return false;
    readConfigResults(settings, log);
    return true;
}

bool LibsshTransport::connect(const LibsshRoute& route, LogBase& log) {
    Guard guard(m_lock);
    if (!m_session) {
        if (route.socketFd >= 0) ::close(route.socketFd);
        log.LogError("The connection was not prepared.");
        return false;
    }
    if (route.socketFd >= 0) {
        // ssh_connect hands the socket to the session, which closes it.
        socket_t fd = route.socketFd;
        if (ssh_options_set(m_session, SSH_OPTIONS_FD, &fd) != SSH_OK) {
            ::close(route.socketFd);
            logSessionError("Failed to connect to the SSH server.", log);
            return false;
        }
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
    char* path = nullptr;
    m_knownHostsFile.clear();
    if (ssh_options_get(m_session, SSH_OPTIONS_KNOWNHOSTS, &path) == SSH_OK && path) {
        m_knownHostsFile = path;
        ssh_string_free_char(path);
    }
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
