// LibsshTransport: the session's connection and the channel I/O that every
// transfer runs through (the hot path: no copies beyond libssh's own).
#include <scpkit/ssh/LibsshTransport.h>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <vector>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>

namespace scpkit {

namespace {

using Clock = std::chrono::steady_clock;

// The peer's EOF and CLOSE as libssh reports them through callbacks: its
// own "closed" state also turns true when we close first.
struct PeerFlags {
    bool eof = false;
    bool close = false;
};

void onPeerEof(ssh_session, ssh_channel, void* userdata) {
    static_cast<PeerFlags*>(userdata)->eof = true;
}

void onPeerClose(ssh_session, ssh_channel, void* userdata) {
    static_cast<PeerFlags*>(userdata)->close = true;
}

// Channel ids are never reused within the process, so a stale id held by a
// caller after a reconnect cannot reach a new channel.
std::atomic<int> g_nextChannelId{0};

int allocateChannelId() {
    int id = g_nextChannelId.fetch_add(1);
    if (id < 0 || id == INT_MAX) {
        g_nextChannelId.store(1);
        id = 0;
    }
    return id;
}

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// Moves what the error stream holds into out without blocking.
void drainStderr(ssh_channel handle, DataBuffer& out) {
    unsigned char tmp[4096];
    // Bounded, so a peer that floods the error stream cannot starve the data stream.
    for (int i = 0; i < 256; ++i) {
        int avail = ssh_channel_poll(handle, 1);
        if (avail <= 0) return;
        int n = ssh_channel_read(handle, tmp,
                                 static_cast<uint32_t>(std::min<size_t>(avail, sizeof tmp)), 1);
        if (n <= 0) return;
        out.append(tmp, static_cast<size_t>(n));
    }
}

}  // namespace

const char* const LibsshTransport::kDefaultCiphers =
    "aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com,"
    "aes128-ctr,aes256-ctr";

struct LibsshTransport::Channel {
    ssh_channel handle = nullptr;
    ssh_channel_callbacks_struct callbacks;
    PeerFlags peer;
    bool sentEof = false;
    bool sentClose = false;
};

LibsshTransport::LibsshTransport() = default;

LibsshTransport::~LibsshTransport() {
    disconnect();
}

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

void LibsshTransport::disconnect() {
    for (auto& entry : m_channels) freeHandle(*entry.second);
    m_channels.clear();
    if (m_session) {
        if (m_connected) ssh_disconnect(m_session);
        ssh_free(m_session);
        m_session = nullptr;
    }
    m_connected = false;
    m_authenticated = false;
}

bool LibsshTransport::connect(const LibsshConnectSettings& settings, LogBase& log) {
    disconnect();
    m_session = ssh_new();
    if (!m_session) {
        log.LogError("Out of memory.");
        return false;
    }
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
    return true;
}

bool LibsshTransport::isConnected() {
    return m_session && m_connected && ssh_is_connected(m_session) == 1;
}

void LibsshTransport::describeServer(LogBase& log) {
    if (!isConnected()) {
        log.LogInfo("Not connected to an SSH server.");
        return;
    }
    log.LogData("server", m_host.c_str());
    log.LogDataLong("port", m_port);
    const char* banner = ssh_get_serverbanner(m_session);
    log.LogData("serverBanner", banner ? banner : "");
    std::string fingerprint;
    std::string keyType;
    if (serverKeyFingerprint(fingerprint, keyType)) {
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

LibsshTransport::Channel* LibsshTransport::find(int ch, LogBase* log) {
    auto it = m_channels.find(ch);
    if (it != m_channels.end()) return it->second.get();
    if (log) {
        log->LogError("No such channel on this SSH connection.");
        log->LogDataLong("channel", ch);
    }
    return nullptr;
}

int LibsshTransport::openChannel(LogBase& log) {
    if (!isConnected()) {
        log.LogError("Not connected to an SSH server.");
        return -1;
    }
    std::unique_ptr<Channel> c;
    try {
        c = std::make_unique<Channel>();
    } catch (...) {
        log.LogError("Out of memory.");
        return -1;
    }
    c->handle = ssh_channel_new(m_session);
    if (!c->handle) {
        logSessionError("Failed to create a channel.", log);
        return -1;
    }
    std::memset(&c->callbacks, 0, sizeof c->callbacks);
    c->callbacks.userdata = &c->peer;
    c->callbacks.channel_eof_function = onPeerEof;
    c->callbacks.channel_close_function = onPeerClose;
    ssh_callbacks_init(&c->callbacks);
    if (ssh_set_channel_callbacks(c->handle, &c->callbacks) != SSH_OK ||
        ssh_channel_open_session(c->handle) != SSH_OK) {
        logSessionError("The server did not open a session channel.", log);
        freeHandle(*c);
        return -1;
    }
    int id = allocateChannelId();
    m_channels[id] = std::move(c);
    return id;
}

bool LibsshTransport::setEnv(int ch, const char* name, const char* value, LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return false;
    if (ssh_channel_request_env(c->handle, name, value) == SSH_OK) return true;
    // A refusal leaves the session usable; a lost connection is worth saying.
    if (!isConnected()) logSessionError("The SSH connection was lost.", log);
    return false;
}

bool LibsshTransport::exec(int ch, const char* command, LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return false;
    if (ssh_channel_request_exec(c->handle, command) == SSH_OK) return true;
    logSessionError("The exec request failed.", log);
    return false;
}

bool LibsshTransport::pumpSession(int timeoutMs, LogBase& log) {
    ssh_event event = ssh_event_new();
    if (!event) {
        log.LogError("Out of memory.");
        return false;
    }
    int rc = SSH_ERROR;
    if (ssh_event_add_session(event, m_session) == SSH_OK) {
        rc = ssh_event_dopoll(event, timeoutMs);
        ssh_event_remove_session(event, m_session);
    }
    ssh_event_free(event);
    // An interrupted poll also reports an error: only a lost session counts.
    (void)rc;
    if (ssh_is_connected(m_session) != 1) {
        logSessionError("The SSH connection was lost.", log);
        return false;
    }
    return true;
}

long LibsshTransport::write(int ch, const unsigned char* data, size_t numBytes, int timeoutMs,
                            LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return -1;
    if (c->sentEof || c->sentClose) {
        log.LogError("The channel was already closed for sending.");
        return -1;
    }
    if (numBytes == 0) return 0;
    // ssh_channel_write waits without a time limit while the peer's window
    // is exhausted, so never hand it more than the window, and wait for the
    // window to reopen here, within the caller's time.
    Clock::time_point start = Clock::now();
    uint32_t window = ssh_channel_window_size(c->handle);
    while (window == 0) {
        if (c->peer.close) {
            log.LogError("The server closed the channel.");
            return -1;
        }
        int wait = 1000;
        if (timeoutMs >= 0) {
            long long left = timeoutMs - msSince(start);
            if (left <= 0) return 0;
            wait = static_cast<int>(std::min<long long>(left, wait));
        }
        if (!pumpSession(wait, log)) return -1;
        window = ssh_channel_window_size(c->handle);
    }
    uint32_t chunk = static_cast<uint32_t>(std::min<size_t>(numBytes, window));
    int n = ssh_channel_write(c->handle, data, chunk);
    if (n < 0) {
        logSessionError("Failed to write to the channel.", log);
        return -1;
    }
    return n;
}

long LibsshTransport::read(int ch, unsigned char* buf, size_t cap, DataBuffer& stderrOut,
                           int timeoutMs, LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return -1;
    if (c->sentClose) {
        // libssh refuses reads once our CLOSE is out; all that is left to
        // receive is the peer's CLOSE.
        if (!c->peer.close && !pumpSession(timeoutMs < 0 ? 1000 : timeoutMs, log)) return -1;
        return 0;
    }
    uint32_t want = static_cast<uint32_t>(std::min<size_t>(cap, UINT32_MAX));
    int n = want == 0
                ? 0
                : ssh_channel_read_timeout(c->handle, buf, want, 0, timeoutMs < 0 ? -1 : timeoutMs);
    if (n == SSH_AGAIN) n = 0;
    if (n == 0 && c->peer.eof && !c->peer.close) {
        // After the peer's EOF libssh's read returns at once without
        // touching the socket, so the CLOSE (and late error-stream bytes)
        // would never be taken in: wait for them here.
        if (!pumpSession(timeoutMs < 0 ? 1000 : timeoutMs, log)) return -1;
    }
    drainStderr(c->handle, stderrOut);
    if (n < 0) {
        logSessionError("Failed to read from the channel.", log);
        return -1;
    }
    return n;
}

bool LibsshTransport::sendEof(int ch, LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return false;
    if (c->sentEof || c->sentClose) return true;
    if (ssh_channel_send_eof(c->handle) != SSH_OK) {
        logSessionError("Failed to send the channel EOF.", log);
        return false;
    }
    c->sentEof = true;
    return true;
}

bool LibsshTransport::sendClose(int ch, LogBase& log) {
    Channel* c = find(ch, &log);
    if (!c) return false;
    if (c->sentClose) return true;
    if (ssh_channel_close(c->handle) != SSH_OK) {
        logSessionError("Failed to send the channel CLOSE.", log);
        return false;
    }
    c->sentClose = true;
    return true;
}

bool LibsshTransport::nothingBuffered(Channel& c) {
    if (c.sentClose) return true;
    return ssh_channel_poll(c.handle, 0) <= 0 && ssh_channel_poll(c.handle, 1) <= 0;
}

// EOF and CLOSE count only once every byte before them has been read, so a
// caller that stops at them loses nothing.
bool LibsshTransport::receivedEof(int ch) {
    Channel* c = find(ch, nullptr);
    return c && c->peer.eof && nothingBuffered(*c);
}

bool LibsshTransport::receivedClose(int ch) {
    Channel* c = find(ch, nullptr);
    if (!c || !c->peer.close || !nothingBuffered(*c)) return false;
    // A CLOSE must be answered with one, which libssh leaves to us. Without
    // it the server keeps the session, and OpenSSH allows only MaxSessions
    // (10 by default) per connection.
    if (!c->sentClose && ssh_channel_close(c->handle) == SSH_OK) c->sentClose = true;
    return true;
}

void LibsshTransport::freeHandle(Channel& c) {
    if (!c.handle) return;
    // libssh keeps a freed channel until the server's CLOSE comes and still
    // calls its callbacks then, while processing some other channel: they
    // must not point into the entry, which is gone by that time.
    ssh_remove_channel_callbacks(c.handle, &c.callbacks);
    ssh_channel_free(c.handle);
    c.handle = nullptr;
}

void LibsshTransport::releaseChannel(int ch) {
    auto it = m_channels.find(ch);
    if (it == m_channels.end()) return;
    freeHandle(*it->second);
    m_channels.erase(it);
}

}  // namespace scpkit
