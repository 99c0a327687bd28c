// The real transport under ClsSsh: one libssh session and its session
// channels. Connecting, host-key lookups and authentication are here too,
// so that only this class (LibsshTransport.cpp, LibsshConnect.cpp,
// LibsshLogin.cpp) talks to libssh; the policies (which key is acceptable,
// which user) are ClsSsh's. A libssh session is not thread safe: every
// call into it is made under m_lock, never held while waiting for traffic.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <scpkit/ssh/SshTransport.h>

struct ssh_session_struct;
struct ssh_channel_struct;
struct ssh_event_struct;
struct ssh_counter_struct;
struct ssh_callbacks_struct;

namespace scpkit {

struct LibsshConnectSettings {
    std::string host;
    int port = 22;  // with useSshConfig, 0 or 22 let the config's Port apply
    int timeoutMs = 30000;
    std::string ciphers;  // empty: AES-GCM first, then ChaCha20, then AES-CTR
    bool useSshConfig = false;
    std::string configFile;      // with useSshConfig: this file alone, not ~/.ssh/config
    std::string knownHostsPath;  // empty: the config's UserKnownHostsFile, else the default
    std::string sshDir;          // holds the config file, known_hosts and the default keys
    std::string compression;     // "yes" or "no"; empty: the config's choice, else no
};

// How connect reaches the server: TCP to the prepared host and port (or
// the config's ProxyCommand), or a socket carried through jump hosts, which
// the session closes from then on.
struct LibsshRoute {
    int socketFd = -1;
};

enum class KnownHostState { Known, Unknown, Changed, OtherKeyType, Error };

enum class AuthOutcome { Success, Denied, Partial, Error };

class LibsshTransport : public SshTransport {
  public:
    // The cipher preference used when none is given: AES-GCM is the fastest
    // on CPUs with AES instructions.
    static const char* const kDefaultCiphers;

    LibsshTransport();
    ~LibsshTransport() override;
    LibsshTransport(const LibsshTransport&) = delete;
    LibsshTransport& operator=(const LibsshTransport&) = delete;

    // Resolves the options (and the ssh config when asked) without
    // connecting: afterwards the accessors below tell where they lead.
    bool prepare(const LibsshConnectSettings& settings, LogBase& log);
    // Opens the connection along the route and completes the key exchange,
    // within the timeout of the settings.
    bool connect(const LibsshRoute& route, LogBase& log);

    // After prepare: where the settings and the config led.
    const std::string& connectedHost() const { return m_host; }
    int connectedPort() const { return m_port; }
    const std::string& configUser() const { return m_configUser; }
    // The config's ProxyJump for the host; empty when it gives none.
    const std::string& configProxyJump() const { return m_configProxyJump; }
    // After connect: the known_hosts file in use, expanded.
    const std::string& knownHostsFile() const { return m_knownHostsFile; }

    // The server key as `ssh-keygen -l` shows it ("SHA256:" and unpadded
    // base64) and its type name ("ssh-ed25519").
    bool serverKeyFingerprint(std::string& sha256, std::string& keyType);
    KnownHostState checkKnownHosts(LogBase& log);
    // Appends the server's key to the known_hosts file.
    bool recordServerKey(LogBase& log);

    // The methods the server lets the user go on with ("publickey,password"),
    // asking it first when no attempt has told yet; logged as "authMethods".
    std::string authMethods(const std::string& user, LogBase& log);
    std::string authMethodsKnown() {
        Guard guard(m_lock);
        return m_authMethods;
    }
    // The password method, else keyboard-interactive answering each hidden
    // prompt with the password.
    AuthOutcome authPassword(const std::string& user, const std::string& password, LogBase& log);
    // OpenSSH or PEM private key; an empty passphrase for an unencrypted key.
    AuthOutcome authKeyFile(const std::string& user, const std::string& path,
                            const std::string& passphrase, LogBase& log);
    AuthOutcome authAgent(const std::string& user, LogBase& log);
    // The agent, then the default keys of the ssh directory and IdentityFile.
    AuthOutcome authAuto(const std::string& user, LogBase& log);
    bool isAuthenticated() const { return m_authenticated; }
    // The key files the last key login could not use for want of a
    // passphrase (encrypted, none given or the one given was wrong).
    const std::vector<std::string>& keysWantingPassphrase() const { return m_lockedKeys; }

    // The user's home as ssh finds it: the password database's entry, else $HOME.
    static std::string userHomeDir();
    static std::string localUserName();

    // ---- SshTransport ----
    bool isConnected() override;
    void describeServer(LogBase& log) override;
    int openChannel(ChannelInbox& inbox) override;
    bool setEnv(int ch, const char* name, const char* value) override;
    bool exec(int ch, const char* command) override;
    long write(int ch, const unsigned char* data, size_t numBytes) override;
    bool pump(int timeoutMs) override;
    void wakePump() override;
    void redeliver(int ch) override;
    bool sendClose(int ch) override;
    void releaseChannel(int ch) override;
    std::string lastError() override;

  private:
    friend class LibsshTunnel;  // pumps a jump host's forwarding channel
    struct Channel;
    using Guard = std::lock_guard<std::mutex>;
    // The rest with m_lock held.
    Channel* find(int ch);
    bool connected() const;
    bool fingerprintOf(std::string& sha256, std::string& keyType);
    // Detaches the entry's callbacks and frees its libssh channel.
    void freeHandle(Channel& c);
    // Runs a request that the server answers (open, env, exec) with the
    // session nonblocking, waiting for the answer without the lock so that
    // the other channels' traffic goes on meanwhile. Bounded by the timeout.
    template <class Request>
    bool untilAnswered(int ch, Request request);
    // Tells the channels whose writes found the window closed that it reopened.
    void reportWindows();
    AuthOutcome authResult(int rc, const char* refusal, LogBase& log);
    void logSessionError(const char* what, LogBase& log);
    bool applyOptions(const LibsshConnectSettings& settings, LogBase& log);
    void readConfigResults(const LibsshConnectSettings& settings, LogBase& log);
    void noteAuthMethods(LogBase& log);
    void disconnect();

    std::mutex m_lock;
    ssh_session_struct* m_session = nullptr;
    ssh_event_struct* m_event = nullptr;                  // polls the session's socket
    std::unique_ptr<ssh_counter_struct> m_socketCounter;  // libssh counts the socket's bytes here
    int m_wakeFd = -1;                                    // an eventfd that ends a pump's poll
    std::map<int, std::unique_ptr<Channel>> m_channels;
    int m_windowWaiters = 0;
    std::vector<unsigned char> m_scratch;  // redeliver's buffer
    std::string m_error;                   // our own reason for the last failure
    std::string m_host;
    int m_port = 0;
    std::string m_configUser;
    std::string m_configProxyJump;
    std::string m_knownHostsFile;
    int m_timeoutMs = 30000;
    std::string m_authMethods;  // empty until an attempt or a query told them
    std::vector<std::string> m_lockedKeys;
    std::unique_ptr<ssh_callbacks_struct> m_authCallbacks;  // answers passphrase questions
    bool m_connected = false;
    bool m_authenticated = false;
};

}  // namespace scpkit
