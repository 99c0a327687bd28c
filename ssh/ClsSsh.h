// An SSH client connection: connects, authenticates, verifies the host key,
// and offers the session-channel operations that file transfers drive.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/VostrelObject.h>
#include <scpkit/base/XString.h>
#include <scpkit/ssh/SshReadParams.h>

namespace scpkit {

class ChannelTable;
class LibsshTransport;
class LibsshTunnel;
struct JumpHost;
enum class JumpHostOutcome;
struct LibsshConnectSettings;
struct LibsshRoute;
class SshChannel;
class SshTransport;
class SocketParams;
class _vqDataSource;
class _vqOutput;

class ClsSsh : public ClsBase, public RefCountedObject {
  public:
    // A new object with a reference count of 1 (release with decRefCount);
    // null on allocation failure.
    static ClsSsh* createNewCls();
    ClsSsh();
    ~ClsSsh() override;

    // ---- connecting ----
    bool Connect(XString& hostname, int port);
    void Disconnect();
    bool get_IsConnected();
    bool LoginWithPassword(XString& user, XString& password);
    // OpenSSH or PEM private key file; empty passphrase for none.
    bool LoginWithKeyFile(XString& user, XString& privateKeyPath, XString& passphrase);
    bool LoginWithAgent(XString& user);
    // The agent, then the user's default keys, as ssh does. An encrypted key
    // is passed over, never asked for: KeysNeedingPassphrase lists it after.
    bool LoginAuto(XString& user);
    // The methods the server offers for logging in, comma-separated
    // ("publickey,password"), as the last login call learned them.
    void get_AuthMethods(XString& methods);
    // The key files the last login could not use for want of a passphrase,
    // one a line (encrypted, and no passphrase or a wrong one given).
    void get_KeysNeedingPassphrase(XString& paths);

    // After a Connect refused only because the key of the server or of a
    // jump host is not in the known_hosts file (and not because another key
    // is recorded), true until the next Connect or Disconnect: the
    // connection waits for the application, which shows ServerKeyHost and
    // ServerKeySha256 and may call TrustServerKey.
    bool get_HostKeyUnknown();
    // Adds the waiting key to the known_hosts file, as answering "yes" to
    // ssh does, and completes the connection when the key was the server's
    // (IsConnected tells; a jump host's key: Connect again to go on).
    bool TrustServerKey();

    // Default: ~/.ssh/known_hosts.
    void put_KnownHostsPath(XString& path);
    void get_KnownHostsPath(XString& path);
    // "yes" (default), "accept-new" or "no"; other values are ignored.
    void put_StrictHostKeyChecking(XString& policy);
    void get_StrictHostKeyChecking(XString& policy);
    // "SHA256:" and the unpadded base64 of the server key's SHA-256, and
    // the key's type ("ssh-ed25519").
    void get_ServerKeySha256(XString& fingerprint);
    void get_ServerKeyType(XString& keyType);
    // The host that presented that key, as known_hosts names it
    // ("example.com", "[10.0.0.1]:2222").
    void get_ServerKeyHost(XString& host);
    void put_ConnectTimeoutMs(int ms);  // default 30000
    int get_ConnectTimeoutMs();
    // Longest wait without progress in any channel operation; 0 waits forever.
    void put_StallTimeoutMs(int ms);  // default 60000
    int get_StallTimeoutMs();
    // When true, Connect applies ~/.ssh/config for the host (and for each
    // jump host), or the file named by SshConfigPath instead.
    void put_UseSshConfig(bool use);
    bool get_UseSshConfig();
    void put_SshConfigPath(XString& path);
    void get_SshConfigPath(XString& path);
    // The hosts to connect through, as ssh's -J takes them:
    // [user@]host[:port], comma-separated, first hop first. Empty: the
    // config's ProxyJump (with UseSshConfig); "none": no jump host. Each
    // jump host's key is checked like the server's, and the agent and the
    // default keys log in to it; when they cannot, the system's ssh program
    // (when there is one) makes the jumps, asking on the terminal as it does.
    void put_ProxyJump(XString& jumpHosts);
    void get_ProxyJump(XString& jumpHosts);
    // "yes" or "no" (default: the config's choice, else no).
    void put_Compression(XString& compression);
    void get_Compression(XString& compression);
    // Preferred ciphers, comma-separated (empty: the library's fast default,
    // AES-GCM first).
    void put_Ciphers(XString& ciphers);
    void get_Ciphers(XString& ciphers);
    // The user name in effect after Connect (from ~/.ssh/config when used).
    void get_ConfigUser(XString& user);

    // Called with each command line sendReqExec sends (a program's -v shows
    // them), from whichever thread runs the channel operation.
    void setExecObserver(std::function<void(const std::string&)> observer);

    // Replaces the connection's transport (tests plug in their own).
    void useTransport(std::shared_ptr<SshTransport> transport);

    // ---- channel operations driven by file transfers ----
    // Any thread may run them; threads on different channels of one
    // connection wait at the same time, each for its own channel.
    void put_StderrToStdout(bool merge);
    bool get_StderrToStdout();
    void logServerInfo(LogBase& log);
    int openSessionChannel(SocketParams& sp, LogBase& log);
    bool sendReqSetEnv(int channel, XString& name, XString& value, SocketParams& sp, LogBase& log);
    bool sendReqExec(int channel, XString& command, SocketParams& sp, LogBase& log);
    bool channelSendData(unsigned channel, DataBuffer& data, SocketParams& sp, LogBase& log);
    bool channelSendNFromSource(int channel, _vqDataSource& source, long long numBytes,
                                SocketParams& sp, LogBase& log);
    bool channelReadNToOutput(int channel, long long numBytes, _vqOutput& out, SocketParams& sp,
                              LogBase& log);
    // > 0: bytes arrived; 0: none (EOF/CLOSE may have arrived: see sp);
    // < 0: error, abort, or no data within the stall timeout.
    int channelRead(int channel, SocketParams& sp, LogBase& log);
    bool receivedDataContainsChar(int channel, char c);
    void getReceivedData(int channel, DataBuffer& out, LogBase& log);
    // Moves the received bytes up to and including the first `delimiter`
    // into out (appending) and leaves what follows buffered. False, moving
    // nothing, when no delimiter has been received.
    bool getReceivedDataThrough(int channel, char delimiter, DataBuffer& out, LogBase& log);
    void getReceivedStderrText(int channel, const char* charset, XString& out, LogBase& log);
    bool channelReceivedEof(int channel, LogBase& log);
    bool channelReceivedClose(int channel, LogBase& log);
    bool channelSendClose(int channel, SocketParams& sp, LogBase& log);
    // Condition 1: until the channel's CLOSE has been received.
    bool channelReceiveUntilCondition(int channel, unsigned condition, SshReadParams& rp,
                                      SocketParams& sp, LogBase& log);
    // The transfer that opened the channel has ended (whatever its outcome):
    // the channel is closed and freed. Channels not yet marked belong to a
    // running transfer and are never taken from it.
    void channelFinished(int channel);

    // The most a bulk send reads from its source at a time.
    static constexpr size_t kChunkSize = 256 * 1024;

  private:
    bool connectTo(const std::string& host, int port);
    LibsshConnectSettings connectSettings(const std::string& host, int port);
    // Connects and logs in to each jump host in turn, each one's channel to
    // the next carrying the next connection; `route` then leads to the
    // server at host:port.
    bool connectThroughJumps(const std::vector<JumpHost>& hops, const std::string& host, int port,
                             LibsshRoute& route);
    // Connects over `socketFd` (-1: TCP), checks the key and logs in.
    JumpHostOutcome connectJumpHost(const JumpHost& hop,
                                    const std::shared_ptr<LibsshTransport>& session, int socketFd);
    void setLoginFacts(LibsshTransport* session);
    void notifyExec(const XString& command);
    // Sends every byte, waiting for the peer's window as needed.
    bool writeAll(int channel, const unsigned char* data, size_t numBytes, SocketParams& sp,
                  LogBase& log);
    // What Connect learned: the key of the session (the server's, or the
    // jump host's that stopped it), and the user in effect.
    void setConnectionFacts(LibsshTransport* session, const char* configUser);
    // Keeps a session whose key is unknown for TrustServerKey.
    void awaitTrust(const std::shared_ptr<LibsshTransport>& session, bool jumpHost);
    bool readIntoOutput(SshChannel& ch, long long numBytes, _vqOutput& out, SocketParams& sp,
                        LogBase& log);

    std::unique_ptr<ChannelTable> m_table;
    // The connection Connect made, for logging in; null with a test transport.
    // Changed and used under m_critSec.
    std::shared_ptr<LibsshTransport> m_session;
    // A connection whose unknown host key awaits TrustServerKey; and what
    // carries the connection through its jump hosts: their tunnels (each
    // with its pump thread), or the ssh program. Changed and used under
    // m_critSec.
    std::shared_ptr<LibsshTransport> m_unverified;
    bool m_unverifiedIsJump = false;
    std::vector<std::shared_ptr<void>> m_jumpLinks;

    // Property values: read and written under m_propertyLock only, held just
    // long enough to copy a value in or out (ClsSshProperties.cpp).
    std::mutex m_propertyLock;
    XString m_knownHostsPath;
    XString m_hostKeyPolicy;
    XString m_serverKeySha256;
    XString m_serverKeyType;
    XString m_serverKeyHost;
    XString m_ciphers;
    XString m_configUser;
    XString m_sshConfigPath;
    XString m_proxyJump;
    XString m_compression;
    XString m_authMethods;
    XString m_lockedKeys;
    bool m_hostKeyUnknown = false;
    std::function<void(const std::string&)> m_execObserver;
    int m_connectTimeoutMs = 30000;
    int m_stallTimeoutMs = 60000;
    bool m_useSshConfig = false;
    bool m_stderrToStdout = false;
};

}  // namespace scpkit
